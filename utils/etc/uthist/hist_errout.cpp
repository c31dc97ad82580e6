// hist_errout.cpp: who opens the message stream, and when (see hist_errout.h).
//
// One word says where the stream stands:
//
//     pending --the first message--> opening --> open: a descriptor
//        ^                                          |
//        +--------- hist_errout_rename -------------+
//
// Who opens has all signals blocked, so no handler finds its own thread's opening under way; other threads wait for the
// moment that it takes, and not for ever, since the file may lie on a dead server: they go on with standard error. A
// forked child sets an opening of the parent back to pending. Signal-safe: all of it.
#include "utils/etc/uthist/hist_errout.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "utils/etc/utcancel.h"
#include "utils/etc/utclock.h"
#include "utils/unix/utending.h"

a_hist_streams hist_streams;
bool hist_errout_is_stuck = false;

namespace {

constexpr int pending = -1, opening = -2;

int errout_fd = STDERR_FILENO;   // or pending, or opening
int open_error = 0;              // why the file could not be opened, until that has been told
const char* unopened = nullptr;  // its name
struct stat stderr_at_load;      // no device and no inode where it was closed then

int state() { return __atomic_load_n(&errout_fd, __ATOMIC_ACQUIRE); }

// Release: who finds the descriptor finds the name that goes with it.
void set_state(int fd) { __atomic_store_n(&errout_fd, fd, __ATOMIC_RELEASE); }
void fall_back_to_stderr() { __atomic_store_n(&hist_streams.ut_hist_dump_err_name, stderr_str, __ATOMIC_RELAXED); }

// The caller has blocked all signals and moved the state to `opening`.
int open_errout()
{
    const char* const name = hist_errout_name();
    if (strcmp(name, stderr_str) == 0)
        return STDERR_FILENO;
    errno = ENAMETOOLONG;
    const int fd = hist_streams.err_name_cut ? -1 : hist_open_file(name);
    if (fd >= 0)
        return fd;
    unopened = name;
    __atomic_store_n(&open_error, errno, __ATOMIC_RELEASE);  // who takes it finds the name
    fall_back_to_stderr();
    return STDERR_FILENO;
}

// Opens the stream if nobody else does.
void open_pending()
{
    const a_blocked_scope blocked;
    int expected = pending;
    if (__atomic_compare_exchange_n(&errout_fd, &expected, opening, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        set_state(open_errout());
}

}  // namespace

int hist_open_file(const char* file)
{
    return unix_open_output(file, hist_streams.ut_hist_dump_append != 0 ? O_APPEND : O_TRUNC);
}

void hist_errout_load()
{
    if (fstat(STDERR_FILENO, &stderr_at_load) != 0)
        stderr_at_load = {};
}

void hist_errout_rename()
{
    const int fd = state();
    set_state(pending);
    if (fd > STDERR_FILENO)
        close(fd);
}

int hist_errout()
{
    if (state() == pending)
        open_pending();
    unix_in_time([] { return state() != opening; });
    return hist_errout_as_it_is();
}

int hist_errout_as_it_is()
{
    const int fd = state();
    return fd > STDERR_FILENO ? fd : hist_stderr();
}

// None when the program has closed the stream, or when its number has gone to a file that is also read: to a database.
int hist_stderr()
{
    struct stat now;
    if (fileno(stderr) < 0 || fstat(STDERR_FILENO, &now) != 0)
        return -1;
    const bool same = now.st_dev == stderr_at_load.st_dev && now.st_ino == stderr_at_load.st_ino;
    const bool only_written = (fcntl(STDERR_FILENO, F_GETFL) & O_ACCMODE) == O_WRONLY;
    return same || !S_ISREG(now.st_mode) || only_written ? STDERR_FILENO : -1;
}

const char* hist_errout_name() { return __atomic_load_n(&hist_streams.ut_hist_dump_err_name, __ATOMIC_RELAXED); }

void hist_errout_close()
{
    const int fd = state();
    if (fd <= STDERR_FILENO)
        return;
    fall_back_to_stderr();
    set_state(STDERR_FILENO);
    close(fd);
}

void hist_errout_fork_child()
{
    if (state() == opening)
        set_state(pending);
}

// Relaxed: it orders nothing.
void hist_note_stuck(const an_output& out)
{
    if (out.error() == ETIMEDOUT)
        __atomic_store_n(&hist_errout_is_stuck, true, __ATOMIC_RELAXED);
}

void hist_begin_message(an_output& out)
{
    a_line line = hist_message(out);
    line.text.str("@ ");
    ut_hist_cur_timestamp_str(line.text);
    line.text.str(" ..........");
}

void hist_tell_open_error(an_output& out)
{
    const int error = __atomic_exchange_n(&open_error, 0, __ATOMIC_ACQUIRE);
    if (error != 0)
        hist_note(out, hist_stderr()).text.put("cannot open errout (", unopened, "): ", hist_reason(error));
}

// Texts of its own tables: no lock, no allocation.
const char* hist_reason(int error)
{
    const char* const text = strerrordesc_np(error);
    return text != nullptr ? text : "unknown error";
}
