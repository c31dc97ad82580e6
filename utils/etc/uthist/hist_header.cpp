// hist_header.cpp: fills the header of the store (see hist_header.h) by plain system calls, since a forked child does
// the same. The magic stands in the code inverted, so that a search for it finds no library. Not signal-safe, but what
// says otherwise.
#include "utils/etc/uthist/hist_header.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include "utils/etc/utclock.h"
#include "utils/etc/utenv.h"
#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/hist_store.h"
#include "utils/unix/unixcrash.h"
#include "utils/unix/utcallers.h"

namespace {

constexpr unsigned char magic[] = UT_HIST_IMAGE_MAGIC;
constexpr uint64 inverted_half(size_t from)
{
    uint64 half = 0;
    for (size_t i = 0; i < sizeof half; i++)
        half |= uint64(magic[from + i]) << 8 * i;
    return ~half;
}

// A file's first bytes, as a text without its line end; empty when it cannot be read. Signal-safe.
void read_text(const char* path, char* text, size_t size)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t len = fd >= 0 ? read(fd, text, size - 1) : -1;
    if (fd >= 0)
        close(fd);
    text[len > 0 ? len : 0] = '\0';
    char* const line_end = strchr(text, '\n');
    if (line_end != nullptr)
        *line_end = '\0';
}

// The 22nd field; the second is a name in parentheses, and may hold anything. Signal-safe.
uint64 process_start()
{
    constexpr int fields_behind_name = 20;
    char stat[512];
    read_text("/proc/self/stat", stat, sizeof stat);
    const char* at = strrchr(stat, ')');
    for (int i = 0; i < fields_behind_name && at != nullptr; i++)
        at = strchr(at + 1, ' ');
    uint64 ticks = 0;
    for (; at != nullptr && at[1] >= '0' && at[1] <= '9'; at++)
        ticks = ticks * 10 + uint64(at[1] - '0');
    return ticks;
}

// Signal-safe.
void fill_process(a_ut_hist_image& image)
{
    struct stat found = {};
    image.pid = getpid();
    image.pid_namespace = stat("/proc/self/ns/pid", &found) == 0 ? found.st_ino : 0;
    image.process_start = process_start();
}

void fill_times(a_ut_hist_image& image)
{
    struct timespec wall, boot;
    clock_gettime(CLOCK_REALTIME, &wall);
    clock_gettime(CLOCK_BOOTTIME, &boot);
    image.start_time = {wall.tv_sec, wall.tv_nsec / 1000};
    image.since_boot = uint64(boot.tv_sec) * 1000000000 + uint64(boot.tv_nsec);
    read_text("/proc/sys/kernel/random/boot_id", image.boot_id, sizeof image.boot_id);
}

void fill_names(a_ut_hist_image& image)
{
    struct utsname host;
    strncpy(image.program, program_invocation_short_name, sizeof image.program - 1);
    strncpy(image.host, uname(&host) == 0 ? host.nodename : "?", sizeof image.host - 1);
    a_place place;
    ut_find_place(place, uint64(reinterpret_cast<a_ptrint>(&hist_header_fill)));
    ut_find_build_id(place);
    image.build_id_bytes = place.build_id_size < sizeof image.build_id ? uint32(place.build_id_size) : 0;
    if (image.build_id_bytes != 0)
        memcpy(image.build_id, place.build_id, image.build_id_bytes);
}

void fill_settings(a_ut_hist_image& image)
{
    const a_ut_hist_settings& cfg = hist_cfg;
    image.flags = (cfg.ut_hist_dump_on_fini != 0 ? UT_HIST_IMAGE_COPY : 0) | (cfg.tables ? UT_HIST_IMAGE_TABLES : 0) |
                  (cfg.dense_slots != 0 ? UT_HIST_IMAGE_DENSE : 0) |
                  (strcmp(hist_streams.ut_hist_eol, "\n") != 0 ? UT_HIST_IMAGE_CRLF : 0);
    image.events = uint32(cfg.ut_hist_debug_num);
    image.queues = uint32(cfg.hist_num_q);
    image.max_file_len = uint32(cfg.hist_max_file_len);
    image.max_id_len = uint32(cfg.hist_max_id_len);
    image.max_ev_len = uint32(cfg.hist_max_ev_len);
    image.id_text_at = uint32(cfg.id_text_at);
    image.ev_text_at = uint32(cfg.ev_text_at);
    image.text_stride = uint32(cfg.text_stride);
    image.data_size = image.sections[UT_HIST_DATA].bytes != 0 ? uint32(cfg.ut_hist_debug_data_size) : 0;
    for (uint32 i = 0; i < sizeof cfg.include / sizeof *cfg.include; i++)
        image.columns |= cfg.include[i] != 0 ? 1u << i : 0;
    image.dump_signal = cfg.dump_signal;
    ut_getenv("UT_HIST", image.ut_hist, env_buf_size);
    ut_getenv("UT_HIST_EXT", image.ut_hist_ext, sizeof image.ut_hist_ext);
}

}  // namespace

void hist_header_fill()
{
    a_ut_hist_image& image = *hist.image;
    image.version = UT_HIST_IMAGE_VERSION;
    image.header_bytes = UT_HIST_IMAGE_HEADER;
    image.base = uint64(reinterpret_cast<a_ptrint>(&image));
    fill_process(image);
    fill_times(image);
    fill_names(image);
    fill_settings(image);
    hist_header_zone();
}

// Release: who finds the magic or the pointer finds a whole store.
void hist_header_publish()
{
    uint64 halves[] = {inverted_half(0), inverted_half(8)};
    for (size_t i = 0; i < 2; i++) {
        __asm__("" : "+r"(halves[i]));  // what inverts it is not to be done by the compiler
        __atomic_store_n(reinterpret_cast<uint64*>(hist.image->magic) + i, ~halves[i], __ATOMIC_RELEASE);
    }
    __atomic_store_n(&ut_hist_image_now, hist.image, __ATOMIC_RELEASE);
    unix_set_crash_copy(&hist.live->crash);
}

// Release: who sees the count sees the table. A reader meanwhile may see a change's offset with another's beginning: a
// table is made anew once a year, or by a new TZ.
// Signal-safe.
void hist_header_zone()
{
    char* const section = reinterpret_cast<char*>(hist.image) + hist.image->sections[UT_HIST_ZONE].at;
    a_ut_hist_zone_change* const changes = reinterpret_cast<a_ut_hist_zone_change*>(section);
    a_zone_change now[ut_zone_changes];
    const uint32 count = ut_zone_get(now);
    for (uint32 i = 0; i < count; i++) {
        __atomic_store_n(&changes[i].from, now[i].from, __ATOMIC_RELAXED);
        __atomic_store_n(&changes[i].offset, now[i].offset, __ATOMIC_RELAXED);
    }
    __atomic_store_n(&hist.live->zone_changes, count, __ATOMIC_RELEASE);
}

// Signal-safe.
void hist_header_fork_child()
{
    if (hist.image != nullptr)
        fill_process(*hist.image);
}
