// hist_file.cpp: see hist_file.h. Two processes that remove old files at once do not remove a new one in the place of
// an old one: who removes a file has its lock, and looks whether the name still is that file's. Not signal-safe, but
// what says otherwise.
#include "utils/etc/uthist/hist_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/hist_process.h"
#include "utils/unix/unixout.h"

namespace {

constexpr size_t page = 4096;
constexpr uint32 most_names = 10000;                 // of one pattern: without a number and with .1, .2 ...
constexpr uint32 most_entries = 100000;              // of the folder that are looked at
constexpr char digits = '\1';                        // stands for digits in what a name is compared with
constexpr const char* default_name = "/%e.%p.hist";  // in a folder

char folder_at_start[hist_file_size] = "";  // where a name begins that has no slash in front
char pattern[hist_file_size] = "";          // as given, or of a name in the folder given
char file[hist_file_size] = "";             // the name of this process's file; empty: it has none
a_file_node node;                           // the file
bool mapped = false;                        // the store is in a file
void* wiped_page = nullptr;

// A name in the making; one that is too long is none.
struct a_name {
    char text[hist_file_size] = "";
    size_t len = 0;
    bool fits = true;

    // Signal-safe.
    void chr(char c)
    {
        fits = fits && len + 1 < sizeof text;
        if (fits)
            text[len++] = c;
        text[len] = '\0';
    }
    // Signal-safe.
    void str(const char* s)
    {
        while (*s != '\0')
            chr(*s++);
    }
    // Signal-safe.
    void dec(uint64 value)
    {
        if (value >= 10)
            dec(value / 10);
        chr(char('0' + value % 10));
    }
};

// What stands for a letter behind '%'. Signal-safe.
void put_part(a_name& name, char letter, bool to_compare)
{
    struct utsname host;
    struct timespec now;
    switch (letter) {
    case 'e':
        return name.str(program_invocation_short_name);
    case 'h':
        return name.str(uname(&host) == 0 ? host.nodename : "host");
    case 'p':
        return to_compare ? name.chr(digits) : name.dec(uint64(getpid()));
    case 't':
        clock_gettime(CLOCK_REALTIME, &now);
        return to_compare ? name.chr(digits) : name.dec(uint64(now.tv_sec));
    default:
        return name.chr(letter);
    }
}

// Signal-safe.
a_name name_of(const char* from, bool to_compare)
{
    a_name name;
    name.str(folder_at_start);
    for (const char* at = from; *at != '\0'; at++)
        *at == '%' ? put_part(name, *++at, to_compare) : name.chr(*at);
    return name;
}

// Signal-safe.
bool tells_processes_apart()
{
    for (const char* at = pattern; *at != '\0'; at++)
        if (*at == '%' && *++at == 'p')
            return true;
    return false;
}

bool is_folder(const char* path)
{
    struct stat found;
    return stat(path, &found) == 0 && S_ISDIR(found.st_mode);
}

// Takes the pattern of the settings; false when it makes no name.
bool take_pattern()
{
    folder_at_start[0] = '\0';
    if (hist_cfg.file_pattern[0] != '/') {
        if (getcwd(folder_at_start, sizeof folder_at_start - 1) == nullptr)
            return false;
        strcat(folder_at_start, "/");
    }
    strcpy(pattern, hist_cfg.file_pattern);
    if (is_folder(name_of(pattern, false).text) && strlen(pattern) + strlen(default_name) < sizeof pattern)
        strcat(pattern, default_name);
    errno = ENAMETOOLONG;
    return name_of(pattern, false).fits;
}

// ---- making ----

// Where the file system has no call for it. Signal-safe.
int write_all(int fd, size_t bytes)
{
    static constexpr char nothing[page] = {};
    for (size_t at = 0; at < bytes;) {
        const size_t left = bytes - at;
        const ssize_t written = pwrite(fd, nothing, left < page ? left : page, off_t(at));
        if (written < 0 && errno != EINTR)
            return errno;
        at += written > 0 ? size_t(written) : 0;
    }
    return 0;
}

// Disk space; gives an error number. Signal-safe.
int allocate(int fd, size_t bytes)
{
    const a_quiet_scope quiet;  // beyond RLIMIT_FSIZE
    while (fallocate(fd, 0, 0, off_t(bytes)) != 0)
        if (errno == EOPNOTSUPP || errno == ENOSYS)
            return write_all(fd, bytes);
        else if (errno != EINTR)
            return errno;
    return 0;
}

// Opens a file under the next free name, which it puts into `file`; -1 and errno when it cannot be had. Signal-safe.
int open_new(a_name name)
{
    const size_t len = name.len;
    for (uint32 i = 0; i < most_names && name.fits; i++) {
        const int fd = open(name.text, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600);
        if (fd >= 0)
            memcpy(file, name.text, sizeof file);
        if (fd >= 0 || (errno != EEXIST && errno != EINTR))
            return fd;
        name.len = len;
        name.chr('.');
        name.dec(i + 1);
    }
    errno = name.fits ? EEXIST : ENAMETOOLONG;
    return -1;
}

// Removes this process's file, if it still has its name. Signal-safe.
void remove_file()
{
    struct stat now;
    if (lstat(file, &now) == 0 && node == a_file_node{now.st_dev, now.st_ino})
        unlink(file);
    file[0] = '\0';
}

// Signal-safe.
int make_present(void* mapping, const a_hist_used& used)
{
    for (const a_hist_range& range : used.ranges) {
        const size_t from = range.from / page * page;
        if (range.from < range.to &&
            madvise(static_cast<char*>(mapping) + from, range.to - from, MADV_POPULATE_WRITE) != 0) {
            if (errno != EINVAL)
                return errno;
            hist_touch(mapping, used);  // an older kernel
            return 0;
        }
    }
    return 0;
}

// The file's mapping, all of it in the file system's hands; null and an error number. Signal-safe.
void* map_new(int fd, size_t bytes, int& error)
{
    struct stat made = {};
    error = fstat(fd, &made) == 0 ? allocate(fd, bytes) : errno;
    node = {made.st_dev, made.st_ino};
    void* const mapping = error == 0 ? mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    if (error == 0 && mapping == MAP_FAILED)
        error = errno;
    return error == 0 ? mapping : nullptr;
}

// Signal-safe.
void note_failure(const char* name, int error)
{
    an_output out;
    hist_note(out, hist_errout_as_it_is())
        .text.put("cannot make the history file (", name, "): ", hist_reason(error), "; it is in memory only");
}

// Null, and a note, when the file cannot be had. Signal-safe.
void* make(size_t bytes, const a_hist_used& used)
{
    const a_name name = name_of(pattern, false);
    int error = 0;
    const int fd = open_new(name);
    void* mapping = fd >= 0 ? map_new(fd, bytes, error) : nullptr;
    if (fd < 0)
        error = errno;
    else
        close(fd);
    if (mapping != nullptr && (error = make_present(mapping, used)) != 0) {
        munmap(mapping, bytes);
        mapping = nullptr;
    }
    mapped = mapping != nullptr;
    if (mapped)
        return mapping;
    note_failure(fd >= 0 ? file : name.text, error);
    remove_file();
    return nullptr;
}

bool make_wiped_page()
{
    if (wiped_page != nullptr)
        return true;
    void* const made = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (made == MAP_FAILED)
        return false;
    if (madvise(made, page, MADV_WIPEONFORK) == 0) {
        wiped_page = made;
        return true;
    }
    const int error = errno;
    munmap(made, page);
    errno = error;
    return false;
}

// ---- files of dead processes ----

// Signal-safe.
constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Whether a name is of the pattern: `form` is that of its last part, with `digits` for what differs between processes.
// Behind it may stand the number of a name that was not the first one free. Signal-safe.
bool is_of_form(const char* form, const char* name)
{
    for (; *form != '\0' && *form != digits; form++, name++)
        if (*form != *name)
            return false;
    if (*form == '\0' && *name == '.')
        name++;
    else if (*form == '\0')
        return *name == '\0';
    while (is_digit(*name)) {
        name++;
        if (*form == '\0' ? *name == '\0' : is_of_form(form + 1, name))
            return true;
    }
    return false;
}

// Signal-safe.
bool is_earlier(const struct timespec& time, const struct timespec& than)
{
    return time.tv_sec != than.tv_sec ? time.tv_sec < than.tv_sec : time.tv_nsec < than.tv_nsec;
}

struct a_dead_file {
    struct timespec newest;   // event in it, or when its history began
    struct timespec changed;  // the file itself, which stores through a mapping do not always tell
    char name[NAME_MAX + 1];

    // Signal-safe.
    bool is_older_than(const a_dead_file& other) const
    {
        return is_earlier(newest, other.newest) ||
               (!is_earlier(other.newest, newest) && is_earlier(changed, other.changed));
    }
};

// What a search needs, mapped for it: it may run on a handler's stack.
struct a_search_room {
    a_hist_system here;
    a_ut_hist_image image;
    a_name path, form;
    alignas(8) char entries[4096];  // of the folder
    a_dead_file found;
    a_dead_file newest[hist_most_dead];  // of the dead files met so far
};

// Removes files of dead processes but for the newest.
class a_search {
public:
    // Signal-safe.
    explicit a_search(uint32 at_most)
        : most(at_most),
          mapping(mmap(nullptr, sizeof(a_search_room), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
    }
    // Signal-safe.
    ~a_search()
    {
        if (mapping != MAP_FAILED)
            munmap(mapping, sizeof(a_search_room));
    }
    a_search& operator=(a_search&&) = delete;  // nor copies

    // Signal-safe.
    void run()
    {
        if (mapping == MAP_FAILED)
            return;
        hist_find_system(room().here);
        room().path = name_of(pattern, false);
        room().form = name_of(pattern, true);
        *(strrchr(room().path.text, '/') + 1) = '\0';
        folder = open(room().path.text, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (folder < 0)
            return;
        uint32 looked_at = 0;
        for (ssize_t len;
             looked_at < most_entries && (len = getdents64(folder, room().entries, sizeof room().entries)) > 0;)
            for (ssize_t at = 0; at < len; looked_at++) {
                const auto* const entry = reinterpret_cast<const struct dirent64*>(room().entries + at);
                look_at(entry->d_name);
                at += entry->d_reclen;
            }
        close(folder);
    }

private:
    // Signal-safe.
    a_search_room& room() { return *static_cast<a_search_room*>(mapping); }

    // Signal-safe.
    void look_at(const char* name)
    {
        const size_t len = strlen(name);
        a_dead_file& found = room().found;
        if (!is_of_form(strrchr(room().form.text, '/') + 1, name) || len >= sizeof found.name)
            return;
        memcpy(found.name, name, len + 1);
        const int fd = open_file(name);
        if (is_dead(fd))
            keep_or_remove();
        close_file(fd);
    }

    // Signal-safe.
    int open_file(const char* name) const
    {
        return openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }

    // Signal-safe.
    static void close_file(int fd)
    {
        if (fd >= 0)
            close(fd);
    }

    // The file may hold anything. Signal-safe.
    static void make_later(struct timespec& newest, const a_ut_hist_time& found)
    {
        constexpr uint64 last_second = uint64(1) << 33;
        if (uint64(found.tv_sec) >= last_second || uint64(found.tv_usec) >= 1000000)
            return;
        const struct timespec time = {found.tv_sec, found.tv_usec * 1000};
        newest = is_earlier(newest, time) ? time : newest;
    }

    // Of the image in the room: when its newest event was, or, without one, when its history began. Signal-safe.
    struct timespec newest_event(int fd)
    {
        const a_ut_hist_image& image = room().image;
        struct timespec newest = {};
        make_later(newest, image.start_time);
        for (uint32 q = 0; q < image.queues && q < hist_max_queues; q++) {
            a_ut_hist_event_list queue;
            a_ut_hist_event r;
            const uint64 at = image.sections[UT_HIST_QUEUES].at + q * sizeof queue;
            if (pread(fd, &queue, sizeof queue, off_t(at)) != ssize_t(sizeof queue) || queue.ring_pos == 0)
                continue;
            const uint32 next = uint32(queue.ring_pos), last = (next != 0 ? next : image.events) - 1;
            const uint64 record = image.sections[UT_HIST_RINGS].at + (uint64(q) * image.events + last) * sizeof r;
            if (pread(fd, &r, sizeof r, off_t(record)) == ssize_t(sizeof r))
                make_later(newest, r.time_of_day);
        }
        return newest;
    }

    // Whether it is an image of a dead process of this user; notes when it was changed. Signal-safe.
    bool is_dead(int fd)
    {
        struct stat about;
        a_ut_hist_image& image = room().image;
        if (fd < 0 || fstat(fd, &about) != 0 || !S_ISREG(about.st_mode) || about.st_uid != geteuid())
            return false;
        const bool dead = pread(fd, &image, sizeof image, 0) == ssize_t(sizeof image) && hist_has_magic(image) &&
                          image.version == UT_HIST_IMAGE_VERSION && hist_process_is_dead(image, room().here);
        room().found.changed = about.st_mtim;
        room().found.newest = dead ? newest_event(fd) : timespec();
        return dead;
    }

    // The one just found, or an older one. Signal-safe.
    void keep_or_remove()
    {
        a_dead_file *const files = room().newest, *oldest = &room().found;
        if (count < most) {
            files[count++] = *oldest;
            return;
        }
        for (uint32 i = 0; i < count; i++)
            if (files[i].is_older_than(*oldest))
                oldest = &files[i];
        remove(oldest->name);
        if (oldest != &room().found)
            *oldest = room().found;
    }

    // See the head of this file. Signal-safe.
    void remove(const char* name)
    {
        struct stat named, about;
        const int fd = open_file(name);
        if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 && fstat(fd, &about) == 0 &&
            fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && named.st_dev == about.st_dev &&
            named.st_ino == about.st_ino && is_dead_again(fd))
            unlinkat(folder, name, 0);
        close_file(fd);
    }

    // The name may have been another's when it was looked at first; what that found is kept. Signal-safe.
    bool is_dead_again(int fd)
    {
        const struct timespec newest = room().found.newest, changed = room().found.changed;
        const bool dead = is_dead(fd);
        room().found.newest = newest;
        room().found.changed = changed;
        return dead;
    }

    uint32 most, count = 0;
    void* mapping;
    int folder = -1;
};

}  // namespace

// Signal-safe.
void hist_touch(void* mapping, const a_hist_used& used)
{
    for (const a_hist_range& range : used.ranges)
        for (size_t byte = range.from; byte < range.to; byte += page)
            static_cast<volatile char*>(mapping)[byte] = 0;
}

bool hist_file_is_pattern(const char* text)
{
    constexpr const char* letters = "eht%,p";
    if (*text == '\0' || strlen(text) >= hist_file_size)
        return false;
    for (const char* at = text; *at != '\0'; at++)
        if (*at == '%' && (*++at == '\0' || strchr(letters, *at) == nullptr))
            return false;
    return true;
}

void* hist_file_map(size_t bytes, const a_hist_used& used)
{
    if (hist_cfg.file_pattern[0] == '\0')
        return nullptr;
    if (!take_pattern() || !make_wiped_page()) {
        note_failure(hist_cfg.file_pattern, errno);
        return nullptr;
    }
    a_search(hist_cfg.keep_dead).run();
    return make(bytes, used);
}

void* hist_file_wiped_page() { return wiped_page; }
const char* hist_file_name() { return file; }
bool hist_file_is_mapped() { return mapped; }

void hist_file_end()
{
    if (file[0] != '\0' && !hist_cfg.keep_file)
        remove_file();
    file[0] = '\0';
}

void hist_file_forget()
{
    file[0] = '\0';
    mapped = false;
}

void* hist_file_map_child(size_t bytes)
{
    if (tells_processes_apart()) {
        a_search(hist_cfg.keep_dead).run();  // workers come and go, and some leave by _exit
        if (void* const own = make(bytes, {}); own != nullptr)
            return own;
    }
    void* const mapping = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return mapping != MAP_FAILED ? mapping : nullptr;
}
