// unixout.cpp: output by descriptor which neither kills nor hangs the process. All of it is signal-safe.
//
// To poll alone is not enough: after POLLOUT a terminal may be stopped, and a second writer may fill a pipe. Both are
// therefore opened once more, non-blocking: O_NONBLOCK set on the descriptor would be everybody's who shares it.
// Dropped: a timer's signal that ends a blocked write, since the program may use any signal.
#include "utils/unix/unixout.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#include "utils/unix/utending.h"

namespace {

constexpr int64_t ms = 1000000;  // times are in nanoseconds
constexpr int64_t max_wait = 1000 * ms;
constexpr int slice_ms = 50;  // a wait is made of such

constexpr size_t whole = SIZE_MAX;

constexpr int raised_by_writes[] = {SIGPIPE, SIGXFSZ};

constexpr int max_links = 40;      // as the kernel
constexpr size_t max_name = 1024;  // less than PATH_MAX: it lies on signal stacks

int64_t now()
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000 * ms + t.tv_nsec;
}

// A pseudo-terminal's master is none: to open it again makes a new one.
bool is_terminal(int fd)
{
    int number;
    return isatty(fd) && ioctl(fd, TIOCGPTN, &number) != 0;
}

// Not by the number of a standard stream that the process has closed.
int above_standard_streams(int fd)
{
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return high;
}

// Puts what the link at `path` points to in its place, or says that the kernel may follow it: links of the proc file
// system stand for files, not for names, and nobody plants any there. One descriptor is looked at and read: to put
// another link in its place meanwhile gains nothing.
bool follow_link(char (&path)[max_name], int& nofollow)
{
    constexpr mode_t shared = S_ISVTX | S_IWOTH;
    char target[max_name];
    struct stat folder, link;
    struct statfs system;
    const int fd = open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return false;
    const ssize_t len = readlinkat(fd, "", target, sizeof target);
    const bool known = len >= 0 && fstat(fd, &link) == 0 && fstatfs(fd, &system) == 0;
    close(fd);
    if (known && system.f_type == PROC_SUPER_MAGIC)
        nofollow = 0;
    if (!known || nofollow == 0)
        return known;
    char* const slash = strrchr(path, '/');
    char* const last = slash != nullptr ? slash + 1 : path;
    *last = '\0';
    const bool found = stat(last != path ? path : ".", &folder) == 0;
    const bool planted =
        (folder.st_mode & shared) == shared && link.st_uid != geteuid() && link.st_uid != folder.st_uid;
    char* const at = target[0] == '/' ? path : last;
    const bool fits = len < path + sizeof path - at;
    errno = planted ? EACCES : ENAMETOOLONG;
    if (!found || planted || !fits)
        return false;
    memcpy(at, target, size_t(len));
    at[len] = '\0';
    return true;
}

}  // namespace

a_quiet_scope::a_quiet_scope() : kept_errno(errno)
{
    sigset_t before;
    sigpending(&before);
    sigemptyset(&raised);
    for (const int sig : raised_by_writes)
        if (!sigismember(&before, sig))
            sigaddset(&raised, sig);
    pthread_sigmask(SIG_BLOCK, &raised, &mask);  // what is pending is blocked already
}

a_quiet_scope::~a_quiet_scope()
{
    const struct timespec none = {};
    while (sigtimedwait(&raised, nullptr, &none) > 0)
        continue;
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    errno = kept_errno;
}

void an_output::open(int to)
{
    close();
    failure = 0;
    fd = to;
    struct stat about;
    if (fd < 0)
        return;
    if (fstat(fd, &about) != 0)
        return fail(errno);
    node = {about.st_dev, about.st_ino};
    if (node == stuck[0] || node == stuck[1])
        return fail(ETIMEDOUT);
    socket = S_ISSOCK(about.st_mode);
    const int flags = fcntl(fd, F_GETFL);
    const bool terminal = is_terminal(fd);
    if (socket || S_ISREG(about.st_mode) || (flags & O_NONBLOCK) != 0)
        piece = whole;
    else if ((terminal || S_ISFIFO(about.st_mode)) && (flags & O_ACCMODE) != O_RDONLY && reopen())
        piece = whole;
    else
        piece = terminal ? 1 : PIPE_BUF;  // a terminal may write a character as several
}

// In the thread's own folder: the process's has no files when the main thread has ended.
bool an_output::reopen()
{
    char path[40] = "/proc/thread-self/fd/";
    char* at = path + strlen(path);
    for (int rest = fd; rest >= 10; rest /= 10)
        at++;
    at[1] = '\0';
    for (int rest = fd; *at != '/'; rest /= 10)
        *at-- = char('0' + rest % 10);
    const int own = above_standard_streams(::open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own < 0)
        return false;
    fd = own;
    return reopened = true;
}

void an_output::close()
{
    if (reopened)
        ::close(fd);
    reopened = false;
    fd = -1;
}

void an_output::fail(int why)
{
    close();
    failure = why;
}

void an_output::when_waited(void (*call)(void*), void* arg)
{
    hook = call;
    hook_arg = arg;
}

void an_output::write(const char* text, size_t len)
{
    const a_quiet_scope quiet;
    idle = credit = 0;
    while (len > 0 && fd >= 0) {
        const int64_t from = now();
        const ssize_t taken = put(text, len);
        if (taken > 0) {
            text += taken;
            len -= size_t(taken);
            idle = 0;
        } else if (taken < 0 && errno != EAGAIN && errno != EINTR) {
            fail(errno);
        } else if (!wait(from)) {
            stuck[1] = stuck[0];
            stuck[0] = node;
            fail(ETIMEDOUT);
        }
    }
    unix_ending_wait_ms(-int(credit / ms));
}

bool an_output::takes_more(int max_ms) const
{
    struct pollfd stream = {fd, POLLOUT, 0};
    return poll(&stream, 1, max_ms) == 1;
}

ssize_t an_output::put(const char* text, size_t len) const
{
    if (socket)
        return send(fd, text, len, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (piece == whole || takes_more(0))
        return ::write(fd, text, len < piece ? len : piece);
    errno = EAGAIN;
    return -1;
}

// Waits for a slice, or until the stream may take more; false when it is to be given up. `from`: when it was tried.
bool an_output::wait(int64_t from)
{
    if (credit <= 0)
        credit += unix_ending_wait_ms(slice_ms - int(credit / ms)) * ms;
    const bool granted = credit > 0;
    if (granted)
        takes_more(int(credit / ms) + 1);
    const int64_t took = now() - from;
    idle += took;
    waited += took;
    credit -= took;
    if (hook != nullptr && waited >= max_wait) {
        void (*const call)(void*) = hook;
        hook = nullptr;
        call(hook_arg);
    }
    return granted && idle < max_wait;
}

int unix_open_output(const char* name, int how, mode_t mode)
{
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | how;
    char path[max_name];
    const size_t len = strnlen(name, sizeof path);
    errno = ENAMETOOLONG;
    if (len == sizeof path)
        return -1;
    memcpy(path, name, len + 1);
    for (int links = 0, nofollow = O_NOFOLLOW;;) {
        const int fd = open(path, flags | nofollow, mode);
        if (fd < 0 && errno == ELOOP && links++ < max_links && follow_link(path, nofollow))
            continue;
        if (fd >= 0 || errno != EINTR)
            return above_standard_streams(fd);
    }
}
