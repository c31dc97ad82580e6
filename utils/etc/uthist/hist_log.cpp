// hist_log.cpp: writes dumps to the log file or the errout stream: on request, at shut-down, and on SIGUSR1.
//
// One dump runs at a time (hist.dump_state, hist_store.h), so that no dump's text gets into another's and
// there is one set of buffers. A SIGUSR1 that finds a dump running never waits: it leaves a request, and that
// dump writes another one when it is done. Ordinary dumps wait for a running one, before that taking all
// queue locks.
//
// When the process is ending, the dump that its handler interrupted gives way to the handler's own: better one dump whole
// than none.
//
// Errout: need_to_open_errout is exchanged, so that exactly one thread opens the file. The handler opens a
// pending file by descriptor; Open_Errout makes the stream for it later.
//
// Dumps and the reports about them go out through descriptors, but for a dump into the caller's stream; messages go out
// through the errout stream.
//
// A handler may fork in the middle of a dump. The child's fork step takes the dump from the interrupted thread, whose text
// then goes nowhere: the dump is the parent's to finish.
#include "utils/etc/uthist/hist_log.h"

#include <errno.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include "utils/etc/utcancel.h"
#include "utils/etc/uthist/hist_clock.h"
#include "utils/etc/uthist/hist_config.h"
#include "utils/etc/uthist/hist_events.h"
#include "utils/etc/uthist/hist_stats.h"
#include "utils/unix/unixfork.h"
#include "utils/unix/unixsigs.h"
#include "utils/unix/utending.h"

namespace {

// The errout stream's descriptor, for the handler; and whether the handler opened it, so that it has no stream yet.
int errout_fd = STDERR_FILENO;
int32 errout_without_stream = 0;

struct sigaction hist_signal_oldhandler;  // the whole disposition of SIGUSR1 before the history's own

constexpr char dumping_to[] = "********** Dumping history to (";

// Moves the dump from one state to another if it is in that one. Acquire and release: the next dump finds the buffers
// as the last one left them.
// Signal-safe.
bool move_dump(uint64 from, uint64 to)
{
    return __atomic_compare_exchange_n(&hist.dump_state, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Relaxed: who acts on it moves the state by compare-and-swap, or owns it.
// Signal-safe.
uint64 dump_state() { return __atomic_load_n(&hist.dump_state, __ATOMIC_RELAXED); }

// Signal-safe.
uint64 this_thread() { return uint64(reinterpret_cast<a_ptrint>(__builtin_thread_pointer())); }

// Signal-safe.
bool runs_for(uint64 owner) { return (dump_state() & ~dump_state_bits) == owner; }

// For a dump that has just been directed anew: looked at afterwards, since a fork before it has found the earlier direction.
// Signal-safe.
void stop_if_taken(a_hist_text& out)
{
    if (!runs_for(this_thread()))
        out.to_fd(-1);
}

// Opens as fopen does with mode "a" or "w", but not for programs that the process starts, and never by the number of a
// standard stream that the process has closed: what it prints would get into the file.
// Signal-safe.
int open_file(const char* name)
{
    const int mode = hist_cfg.ut_hist_dump_append != 0 ? O_APPEND : O_TRUNC;
    int fd;
    do
        fd = open(name, O_WRONLY | O_CREAT | O_CLOEXEC | mode, 0666);
    while (fd < 0 && errno == EINTR);
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return high;
}

// Signal-safe.
const char* errout_name() { return __atomic_load_n(&hist_cfg.ut_hist_dump_err_name, __ATOMIC_RELAXED); }

// Signal-safe.
void fall_back_to_stderr() { __atomic_store_n(&hist_cfg.ut_hist_dump_err_name, stderr_str, __ATOMIC_RELAXED); }

// Signal-safe.
bool name_is_stderr() { return strcmp(errout_name(), stderr_str) == 0; }

// Whether the caller is the one that opens the pending errout file. Relaxed: the exchange only picks one.
// Signal-safe.
bool take_pending() { return __atomic_exchange_n(&hist_cfg.need_to_open_errout, 0, __ATOMIC_RELAXED) != 0; }

// In this order: a process that another thread forks meanwhile must not find the closed one.
// Not signal-safe: it closes a stream.
void replace_stream(FILE* by)
{
    FILE* const replaced = hist_cfg.ut_hist_dump_err_file;
    hist_cfg.ut_hist_dump_err_file = by;
    if (replaced != stderr)
        fclose(replaced);
}

// Makes `fd` the errout stream; standard error when it could not be opened. Unbuffered: no forked child writes a message
// once more when it exits. A handler that forked meanwhile has told the child to do what this goes on to do there.
// Not signal-safe: it allocates.
void use_stream(int fd)
{
    FILE* const f = fd >= 0 ? fdopen(fd, hist_cfg.ut_hist_dump_append != 0 ? "a" : "w") : nullptr;
    __atomic_store_n(&errout_fd, f != nullptr ? fd : STDERR_FILENO, __ATOMIC_RELAXED);
    if (f != nullptr) {
        setvbuf(f, nullptr, _IONBF, 0);
    } else {
        fall_back_to_stderr();
        if (fd >= 0)
            close(fd);
    }
    replace_stream(f != nullptr ? f : stderr);
    __atomic_store_n(&hist_cfg.need_to_open_errout, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&errout_without_stream, 0, __ATOMIC_RELAXED);
}

// Signal-safe.
void put_timestamp_line(a_hist_text& out)
{
    out.str("@ ");
    hist_put_timestamp(out);
    out.str(" ..........");
    out.eol();
}

// By the stream's descriptor if it has one: a forked child must not find pieces of a dump in the stream.
// Not signal-safe: it opens a stream.
void begin_errout_stream(a_hist_text& out)
{
    Open_Errout();
    fflush(hist_cfg.ut_hist_dump_err_file);
    const int fd = fileno(hist_cfg.ut_hist_dump_err_file);
    if (fd >= 0)
        out.to_fd(fd);
    else
        out.to_file(hist_cfg.ut_hist_dump_err_file);
    stop_if_taken(out);
    put_timestamp_line(out);
}

// None when the program has closed standard error, whose number another file may have by now.
// Signal-safe.
int errout_descriptor()
{
    const int fd = __atomic_load_n(&errout_fd, __ATOMIC_RELAXED);
    return fd != STDERR_FILENO ? fd : fileno(stderr);
}

// Signal-safe.
void begin_errout_fd(a_hist_text& out)
{
    if (take_pending() && !name_is_stderr()) {
        const int fd = open_file(errout_name());
        if (fd >= 0) {
            __atomic_store_n(&errout_fd, fd, __ATOMIC_RELAXED);
            __atomic_store_n(&errout_without_stream, 1, __ATOMIC_RELEASE);
            __atomic_store_n(&hist_cfg.need_to_open_errout, 0, __ATOMIC_RELAXED);  // see use_stream
        } else {
            fall_back_to_stderr();
        }
    }
    out.to_fd(errout_descriptor());
    stop_if_taken(out);
    put_timestamp_line(out);
}

// Signal-safe.
void put_tables(a_ut_hist_dump& f)
{
    ut_hist_dump_to_file_i_ev(f);
    ut_hist_dump_to_file_i_dur(f);
    ut_hist_dump_to_file_tail(f);
    f.out.flush();
}

// The number of the last event, as the reports show it. Relaxed: it is only shown.
// Signal-safe.
void put_count(a_hist_text& out)
{
    out.str(" # ");
    out.dec(__atomic_load_n(&hist.hist_count, __ATOMIC_RELAXED));
}

// One report line about a dump to the log file.
// Signal-safe when begin_errout is.
void report(a_ut_hist_dump& f, const char* end)
{
    if (hist_cfg.ut_hist_dump_report == 0)
        return;
    f.begin_errout(f.out);
    f.out.str(dumping_to);
    f.out.str(hist_cfg.ut_hist_dump_log_name);
    f.out.chr(')');
    put_count(f.out);
    f.out.str(end);
    f.out.eol();
    f.out.flush();
}

// Signal-safe when begin_errout is.
void dump_to_fd(a_ut_hist_dump& f, int fd)
{
    report(f, "");
    f.out.to_fd(fd);
    stop_if_taken(f.out);
    put_tables(f);
    close(fd);
    report(f, " done");
}

// Signal-safe when begin_errout is.
void dump_to_errout(a_ut_hist_dump& f)
{
    f.begin_errout(f.out);
    if (hist_cfg.ut_hist_dump_log_name != nullptr) {
        f.out.str("********** Failed to dump to (");
        f.out.str(hist_cfg.ut_hist_dump_log_name);
        f.out.str(") - dumping to ");
        f.out.str(errout_name());
        put_count(f.out);
        f.out.eol();
    }
    put_tables(f);
}

// A dump on signal: no stream, no lock. The caller has claimed the dump.
// Signal-safe.
void dump_by_descriptor()
{
    hist.dump->begin_errout = begin_errout_fd;
    ut_hist_dump_to_log_i(*hist.dump);
}

// Signal-safe.
bool running() { return __atomic_load_n(&hist.hist_initialized, __ATOMIC_ACQUIRE); }

// Signal-safe.
void signal_handler_with_context(int signal_number, siginfo_t*, void*) { ut_hist_signal_handler(signal_number); }

// SIGUSR1 as it was before, or ignored where nothing handled it.
// Signal-safe.
void restore_signal()
{
    if (unix_saved_handler(&hist_signal_oldhandler) != nullptr) {
        unix_restore_signal(SIGUSR1, &hist_signal_oldhandler);
        return;
    }
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    unix_restore_signal(SIGUSR1, &ignore);
}

// The history's own handler, found in force already, is not taken for an earlier one.
// Signal-safe.
a_bool install_signal()
{
    struct sigaction old;
    if (!unix_handle_signal_keeping(SIGUSR1, signal_handler_with_context, &old))
        return FALSE;
    if (unix_saved_handler(&old) != signal_handler_with_context)
        hist_signal_oldhandler = old;
    return TRUE;
}

}  // namespace

// ---- the errout stream ----

// Opens the errout stream if that is still pending; standard error stands in for a file that cannot be opened.
// Not signal-safe: it opens a stream.
void Open_Errout()
{
    if (__atomic_exchange_n(&errout_without_stream, 0, __ATOMIC_ACQUIRE) != 0)
        use_stream(__atomic_load_n(&errout_fd, __ATOMIC_RELAXED));
    if (take_pending() && !name_is_stderr())
        use_stream(open_file(errout_name()));
}

// Not signal-safe: it closes a stream.
void Close_Errout()
{
    if (__atomic_exchange_n(&errout_without_stream, 0, __ATOMIC_ACQUIRE) != 0)
        use_stream(__atomic_load_n(&errout_fd, __ATOMIC_RELAXED));
    if (hist_cfg.ut_hist_dump_err_file == stderr)
        return;
    __atomic_store_n(&errout_fd, STDERR_FILENO, __ATOMIC_RELAXED);
    fall_back_to_stderr();
    replace_stream(stderr);
}

// Opens the errout stream and begins a group of messages on it with the timestamp line.
// Not signal-safe: it prints.
FILE* hist_begin_message()
{
    char now[hist_timestamp_size];
    Open_Errout();
    fprintf(hist_cfg.ut_hist_dump_err_file, "@ %s ..........%s", ut_hist_cur_timestamp_str(now), hist_cfg.ut_hist_eol);
    return hist_cfg.ut_hist_dump_err_file;
}

// A thread of the parent may have been about to open the errout file, or to make its stream: the child does it instead.
// Signal-safe.
void hist_errout_fork_child()
{
    if (hist_cfg.ut_hist_dump_err_file != stderr || name_is_stderr())
        return;
    const bool open = __atomic_load_n(&errout_fd, __ATOMIC_RELAXED) != STDERR_FILENO;
    __atomic_store_n(open ? &errout_without_stream : &hist_cfg.need_to_open_errout, 1, __ATOMIC_RELAXED);
}

// ---- dumps ----

// Makes the caller the one whose dump runs, waiting for another thread's, up to so many milliseconds; false when that
// runs still. Its own thread's runs only when a handler that interrupted it ends the process by exit; it will never go on.
// Not signal-safe: it waits.
bool hist_dump_claim(int max_wait)
{
    const struct timespec millisecond = {0, 1000000};
    const uint64 me = this_thread();
    for (int i = 0; !move_dump(pack_dump(DUMP_IDLE), pack_dump(DUMP_RUNNING, me)); i++) {
        if (runs_for(me))
            return true;
        if (i == max_wait)
            return false;
        nanosleep(&millisecond, nullptr);
    }
    return true;
}

// Ends the caller's dump, after the dumps that were asked for by signal meanwhile.
// Signal-safe.
void hist_dump_release()
{
    const uint64 me = this_thread();
    while (!move_dump(pack_dump(DUMP_RUNNING, me), pack_dump(DUMP_IDLE))) {
        if (!move_dump(pack_dump(DUMP_WANTED, me), pack_dump(DUMP_RUNNING, me)))
            return;  // a fork in a handler has ended it for the child
        dump_by_descriptor();
    }
}

// The dump itself, into the log file or else the errout stream. The caller has claimed the dump and set begin_errout.
// Signal-safe when begin_errout is.
void ut_hist_dump_to_log_i(a_ut_hist_dump& f)
{
    const char* log = hist_cfg.ut_hist_dump_log_name;
    // With option a- opening it in a forked child would take away what the parent has written.
    const int fd = log != nullptr && runs_for(this_thread()) ? open_file(log) : -1;
    if (fd >= 0)
        dump_to_fd(f, fd);
    else
        dump_to_errout(f);
    f.out.to_fd(-1);  // the dump that this one's process was forked in must not go on where this one ended
}

// Not signal-safe: it locks.
void ut_hist_dump_to_file(FILE* f)
{
    const an_uncancelled_scope uncancelled;
    const a_hist_user user;
    if (!user.has_store())
        return;
    const a_hist_lock_all lock;
    hist_dump_claim(hist_no_limit);
    hist_zone_refresh();
    hist.dump->out.to_file(f);
    stop_if_taken(hist.dump->out);
    put_tables(*hist.dump);
    hist.dump->out.to_fd(-1);
    hist_dump_release();
}

// Not signal-safe: it locks.
void ut_hist_dump_to_log(void)
{
    const an_uncancelled_scope uncancelled;
    const a_hist_user user;
    if (!user.has_store())
        return;
    UT_HIST_EV(UT_HIST_ID_NONE, "PROGRAM DUMP");
    const a_hist_lock_all lock;
    hist_dump_to_log_unlocked(hist_no_limit);
}

// A dump outside the handler by a caller that holds all queue locks or that nobody records beside; none when another
// thread's dump does not end in time.
// Not signal-safe: it waits and prints.
void hist_dump_to_log_unlocked(int max_wait)
{
    const an_uncancelled_scope uncancelled;
    if (!hist_dump_claim(max_wait))
        return;
    hist_zone_refresh();
    hist.dump->begin_errout = begin_errout_stream;
    ut_hist_dump_to_log_i(*hist.dump);
    fflush(hist_cfg.ut_hist_dump_err_file);
    hist_dump_release();
}

// ---- SIGUSR1 ----

// Dumps now, or has the dump that is running write another one. Keeps errno. In a vfork child the history is the
// parent's, and its descriptors are not.
// Signal-safe.
void ut_hist_signal_handler(int)
{
    if (!unix_is_home_process())
        return;
    const int kept = errno;
    const an_uncancelled_scope uncancelled;
    const uint64 me = this_thread();
    while (running()) {
        if (move_dump(pack_dump(DUMP_IDLE), pack_dump(DUMP_RUNNING, me))) {
            dump_by_descriptor();
            hist_dump_release();
            break;
        }
        const uint64 now = dump_state(), state = now & dump_state_bits, owner = now & ~dump_state_bits;
        if (owner == me && unix_ends_process) {
            dump_by_descriptor();  // the dump that it interrupted will not go on, or be cut off by the process's end
            break;
        }
        if (state == DUMP_WANTED || (state == DUMP_RUNNING && move_dump(now, pack_dump(DUMP_WANTED, owner))))
            break;
    }
    errno = kept;
}

// Not signal-safe: it prints.
void ut_hist_add_signal_handler()
{
    if (hist_cfg.ut_hist_z_messages > 1)
        fprintf(hist_begin_message(), "** HISTORY z-messages ** add signal handler ...%s", hist_cfg.ut_hist_eol);
    const a_bool installed = install_signal();
    if (hist_cfg.ut_hist_z_messages <= 1)
        return;
    fprintf(hist_cfg.ut_hist_dump_err_file, "** HISTORY z-messages ** add signal handler done = %d%s", int(installed),
            hist_cfg.ut_hist_eol);
    fflush(hist_cfg.ut_hist_dump_err_file);
}

// Not signal-safe: it prints.
void ut_hist_del_signal_handler()
{
    if (hist_cfg.ut_hist_z_messages > 1)
        fprintf(hist_begin_message(), "** HISTORY z-messages ** del signal handler ...%s", hist_cfg.ut_hist_eol);
    restore_signal();
    if (hist_cfg.ut_hist_z_messages <= 1)
        return;
    fprintf(hist_cfg.ut_hist_dump_err_file, "** HISTORY z-messages ** del signal handler done%s", hist_cfg.ut_hist_eol);
    fflush(hist_cfg.ut_hist_dump_err_file);
}

// Installs the handler unless that has been done since start-up. Relaxed: the exchange only picks the one who does.
// Not signal-safe: it prints.
void hist_install_signal_handler_once()
{
    if (__atomic_load_n(&hist.sig_handler_installed, __ATOMIC_RELAXED) != 0)
        return;
    const an_uncancelled_scope uncancelled;  // the caller holds a queue's lock
    if (__atomic_exchange_n(&hist.sig_handler_installed, 1, __ATOMIC_RELAXED) == 0)
        ut_hist_add_signal_handler();
}

// Option S leaves the handler in place at shut-down; the code behind it goes when the library is unloaded.
// Signal-safe.
void hist_remove_signal_handler_at_unload()
{
    if (unix_current_handler(SIGUSR1) == signal_handler_with_context)
        restore_signal();
}
