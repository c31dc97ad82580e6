// hist_process.cpp: see hist_process.h. The magic stands in the code inverted, so that a search for it finds no
// library. Signal-safe: all of it.
#include "utils/etc/uthist/hist_process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "utils/etc/uttext.h"

namespace {

constexpr unsigned char magic[] = UT_HIST_IMAGE_MAGIC;
constexpr uint64 inverted_half(size_t from)
{
    uint64 half = 0;
    for (size_t i = 0; i < sizeof half; i++)
        half |= uint64(magic[from + i]) << 8 * i;
    return ~half;
}

uint64 magic_half(size_t i)
{
    uint64 half = i == 0 ? inverted_half(0) : inverted_half(8);
    __asm__("" : "+r"(half));  // what inverts it is not to be done by the compiler
    return ~half;
}

// A file's first bytes, as a text; empty when it cannot be read.
void read_text(const char* path, char* text, size_t size)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t len = fd >= 0 ? read(fd, text, size - 1) : -1;
    if (fd >= 0)
        close(fd);
    text[len > 0 ? len : 0] = '\0';
}

void read_line(const char* path, char* text, size_t size)
{
    read_text(path, text, size);
    char* const line_end = strchr(text, '\n');
    if (line_end != nullptr)
        *line_end = '\0';
}

uint64 number_at(const char* digits)
{
    uint64 number = 0;
    for (; *digits >= '0' && *digits <= '9'; digits++)
        number = number * 10 + uint64(*digits - '0');
    return number;
}

// In clock ticks since boot; 0 when it is not known. The 22nd field; the second is a name in parentheses, and may hold
// anything.
uint64 start_of(int32 pid)
{
    constexpr int fields_behind_name = 20;
    char path[128], stat[512];  // more than the path takes, for the formatter
    a_text text;
    text.use(path, sizeof path, "");
    text.direct(nullptr, nullptr);
    text.put("/proc/", pid, "/stat", '\0');
    read_line(path, stat, sizeof stat);
    const char* at = strrchr(stat, ')');
    for (int i = 0; i < fields_behind_name && at != nullptr; i++)
        at = strchr(at + 1, ' ');
    return at != nullptr ? number_at(at + 1) : 0;
}

// Whether /proc tells of this namespace's processes, by their own ids: a container may still see its host's.
bool proc_is_own()
{
    char self[16] = "";
    return readlink("/proc/self", self, sizeof self - 1) > 0 && number_at(self) == uint64(getpid());
}

// A namespace of time moves what /proc says of starts; others, of the same processes, are then not told the same.
bool starts_are_moved()
{
    char offsets[256];
    read_text("/proc/self/timens_offsets", offsets, sizeof offsets);
    const char* const since_boot = strstr(offsets, "boottime");
    return since_boot != nullptr && strpbrk(since_boot, "123456789") != nullptr;
}

// 0 when it is not known, or starts of processes cannot be compared in it.
uint64 pid_namespace()
{
    struct stat found = {};
    return proc_is_own() && !starts_are_moved() && stat("/proc/self/ns/pid", &found) == 0 ? found.st_ino : 0;
}

}  // namespace

void hist_process_fill(a_ut_hist_image& image)
{
    image.pid = getpid();
    image.pid_namespace = pid_namespace();
    image.process_start = start_of(image.pid);
}

void hist_find_system(a_hist_system& here)
{
    read_line("/proc/sys/kernel/random/boot_id", here.boot_id, sizeof here.boot_id);
    here.pid_namespace = pid_namespace();
}

bool hist_process_is_dead(const a_ut_hist_image& image, const a_hist_system& here)
{
    const bool known = here.boot_id[0] != '\0' && here.pid_namespace != 0 && image.pid > 0;
    if (!known || strncmp(here.boot_id, image.boot_id, sizeof here.boot_id) != 0 ||
        image.pid_namespace != here.pid_namespace)
        return false;
    if (kill(image.pid, 0) != 0 && errno == ESRCH)
        return true;
    const uint64 start = start_of(image.pid);
    return start != 0 && start != image.process_start;
}

void hist_put_magic(a_ut_hist_image& image)
{
    for (size_t i = 0; i < 2; i++)
        __atomic_store_n(reinterpret_cast<uint64*>(image.magic) + i, magic_half(i), __ATOMIC_RELEASE);
}

bool hist_has_magic(const a_ut_hist_image& image)
{
    const uint64* const halves = reinterpret_cast<const uint64*>(image.magic);
    return halves[0] == magic_half(0) && halves[1] == magic_half(1);
}
