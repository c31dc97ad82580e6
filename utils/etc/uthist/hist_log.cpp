// hist_log.cpp: writes dumps to the log file or the message stream: on request, at shut-down, and on SIGUSR1.
//
// One dump runs at a time (hist.dump_state, hist_store.h), so that no dump's text gets into another's and
// there is one set of buffers. A SIGUSR1 that finds a dump running never waits: it leaves a request, and that
// dump writes another one when it is done. Ordinary dumps wait for a running one, and take the queue locks then, for a
// second at most: a dump needs no lock, and no recorder waits longer than that for a stream.
//
// When the process is ending, the dump that its handler interrupted gives way to the handler's own: better one dump
// whole than none.
//
// Everything is written by descriptor, bounded in time (unixout.h), but for a dump into the caller's stream.
// Signal-safe: all of it, but what says otherwise; a dump is as long as no locks are held.
#include "utils/etc/uthist/hist_log.h"

#include <errno.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "utils/etc/utcancel.h"
#include "utils/etc/utclock.h"
#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/hist_header.h"
#include "utils/etc/uthist/hist_lock.h"
#include "utils/etc/uthist/hist_slots.h"
#include "utils/etc/uthist/hist_stats.h"
#include "utils/unix/unixcrash.h"
#include "utils/unix/unixsigs.h"
#include "utils/unix/utending.h"

namespace {

struct sigaction hist_signal_oldhandler;  // the whole disposition of SIGUSR1 before the history's own
bool lost_events_told = false;
bool dumped_at_end = false;  // by a thread whose handler ends the process

// Moves the dump from one state to another if it is in that one. Acquire and release: the next dump finds the buffers
// as the last one left them.
bool move_dump(uint64 from, uint64 to)
{
    return __atomic_compare_exchange_n(&hist.dump_state, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Relaxed: who acts on it moves the state by compare-and-swap, or owns it.
uint64 dump_state() { return __atomic_load_n(&hist.dump_state, __ATOMIC_RELAXED); }

uint64 this_thread() { return uint64(reinterpret_cast<a_ptrint>(__builtin_thread_pointer())); }

// Claims the dump if nobody's runs, with the request that a signal may have left.
bool take_dump(uint64 me)
{
    return move_dump(pack_dump(DUMP_IDLE), pack_dump(DUMP_RUNNING, me)) ||
           move_dump(pack_dump(DUMP_WANTED), pack_dump(DUMP_WANTED, me));
}

// Makes the caller the one whose dump runs; false while another thread's does. Its own thread's runs only when a
// handler that interrupted it ends the process by exit; it will never go on.
bool claim() { return take_dump(this_thread()) || (dump_state() & ~dump_state_bits) == this_thread(); }

void claim_when_free()
{
    const a_counted waits(hist.waiting);
    while (!claim())
        unix_pause(1);
}

// All queues' locks, taken in ascending order, within a second or none at all, and given back in the same.
class an_all_queues_lock {
public:
    // Not signal-safe: it locks.
    an_all_queues_lock()
    {
        struct timespec end;  // of the wall clock: the one that the thread sanitizer knows
        clock_gettime(CLOCK_REALTIME, &end);
        end.tv_sec++;
        while (taken < hist.cfg->hist_num_q && hist_lock_for_dump(of(taken).mutex, of(taken).gate, end))
            taken++;
        if (taken < hist.cfg->hist_num_q)
            give();
    }
    // Not signal-safe: it unlocks.
    ~an_all_queues_lock() { give(); }
    an_all_queues_lock(an_all_queues_lock&&) = delete;

    // Not signal-safe: it unlocks.
    void give()
    {
        for (int32 q = 0; q < taken; q++)
            hist_unlock_after_dump(of(q).mutex, of(q).gate);
        taken = 0;
    }

private:
    static a_ut_hist_event_list& of(int32 q) { return hist.hist_evs[q]; }

    int32 taken = 0;
};

// Not signal-safe: it unlocks.
void give_locks(void* locks) { static_cast<an_all_queues_lock*>(locks)->give(); }

// ---- the dump ----

void put_tables(a_ut_hist_dump& f)
{
    hist_put_history(f);
    hist_put_threads(f.out, f.view, f.pages);
    f.out.flush();
}

// The tables to a descriptor; gives the error number of what cut them short, 0 for none.
int put_tables_to(a_ut_hist_dump& f, an_output& out, int fd)
{
    out.open(fd);
    f.out.direct(ut_write_out, &out);
    put_tables(f);
    out.close();
    return out.error();
}

// The number of the last event, as the reports show it. Relaxed here and below: it is only shown.
uint32 last_event() { return __atomic_load_n(&hist.hist_count, __ATOMIC_RELAXED); }

// One report line about a dump to the log file.
void report(an_output& out, const char* end)
{
    if (hist_cfg.ut_hist_dump_report == 0)
        return;
    hist_begin_message(out);
    hist_message(out).text.put("********** Dumping history to (", hist_cfg.ut_hist_dump_log_name, ") # ", last_event(),
                               end);
}

void note_cut(an_output& out, int fd, const char* name, int error)
{
    hist_note(out, fd).text.put("dump to (", name, ") cut short: ", hist_reason(error));
}

void dump_to_log_file(a_ut_hist_dump& f, an_output& out, int fd)
{
    report(out, "");
    const int error = put_tables_to(f, out, fd);
    close(fd);
    report(out, " done");
    if (error != 0)
        note_cut(out, hist_errout(), hist_cfg.ut_hist_dump_log_name, error);
}

void dump_to_errout(a_ut_hist_dump& f, an_output& out, int log_error)
{
    const char* const log = hist_cfg.ut_hist_dump_log_name;
    hist_begin_message(out);
    if (log != nullptr)
        hist_message(out).text.put("********** Failed to dump to (", log, ") - dumping to ", hist_errout_name(), " # ",
                                   last_event());
    const int fd = hist_errout(), error = put_tables_to(f, out, fd);
    if (log != nullptr)
        hist_note(out, fd).text.put("cannot open log (", log, "): ", hist_reason(log_error));
    if (error != 0 && fd > STDERR_FILENO)
        note_cut(out, hist_stderr(), hist_errout_name(), error);
}

// Opens the log file; -1 and errno when it cannot be had.
int open_log()
{
    errno = ENAMETOOLONG;
    const bool whole = hist_cfg.ut_hist_dump_log_name != nullptr && !hist_cfg.log_name_cut;
    return whole ? hist_open_file(hist_cfg.ut_hist_dump_log_name) : -1;
}

// Into the log file or else the message stream. The caller has claimed the dump. The locks, if any, are given back when
// its streams have been waited for for a second.
void dump_to_log(a_ut_hist_dump& f, an_all_queues_lock* locks)
{
    an_output out;
    if (locks != nullptr)
        out.when_waited(give_locks, locks);
    const int fd = open_log();
    if (fd >= 0)
        dump_to_log_file(f, out, fd);
    else
        dump_to_errout(f, out, errno);
    hist_tell_open_error(out);
}

// Events that were dropped for want of a thread slot are told once. The stream is asked for then: that may open it.
void note_lost_events(int (*stream)())
{
    const uint32 lost = __atomic_load_n(&hist.live->events_missed, __ATOMIC_RELAXED);
    if (lost == 0 || __atomic_exchange_n(&lost_events_told, true, __ATOMIC_RELAXED))
        return;
    an_output out;
    {
        a_line note = hist_note(out, stream());
        note.text.put(lost, " events were lost for want of a thread slot: set UT_HIST_THREAD_SLOT=dense");
        if (hist_cfg.dense_slots != 0)
            note.text.put(":<max> with more than ", hist_cfg.dense_slots);
    }
    hist_tell_open_error(out);
}

// Into the program's stream, or to the log for null. Not signal-safe: it locks.
void dump_on_request(FILE* f)
{
    const an_uncancelled_scope uncancelled;
    const a_hist_user user;
    if (!user.has_store())
        return;
    if (f == nullptr)
        UT_HIST_EV(UT_HIST_ID_NONE, "PROGRAM DUMP");
    claim_when_free();
    ut_zone_refresh();
    hist_header_zone();
    {
        an_all_queues_lock locks;
        hist.dump->out.direct(
            [](void* to, const char* text, size_t len) { fwrite(text, 1, len, static_cast<FILE*>(to)); }, f);
        f != nullptr ? put_tables(*hist.dump) : dump_to_log(*hist.dump, &locks);
    }
    note_lost_events(f != nullptr ? hist_errout_as_it_is : hist_errout);
    hist_dump_release();
}

// ---- SIGUSR1 ----

void signal_handler_with_context(int signal_number, siginfo_t*, void*) { ut_hist_signal_handler(signal_number); }

// SIGUSR1 as it was before, or ignored where nothing handled it.
void restore_signal()
{
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    const bool handled = unix_saved_handler(&hist_signal_oldhandler) != nullptr;
    sigaction(hist_cfg.dump_signal, handled ? &hist_signal_oldhandler : &ignore, nullptr);
}

// The history's own handler, found in force already, is not taken for an earlier one.
a_bool install_signal()
{
    struct sigaction old;
    if (!unix_handle_signal_keeping(hist_cfg.dump_signal, signal_handler_with_context, &old))
        return FALSE;
    if (unix_saved_handler(&old) != signal_handler_with_context)
        hist_signal_oldhandler = old;
    return TRUE;
}

}  // namespace

// Whether the dump is the caller's within a second.
bool hist_dump_claim_in_time()
{
    const a_counted waits(hist.waiting);
    return unix_in_time(claim);
}

// Ends the caller's dump, after one more if that was asked for by signal meanwhile. What is asked for during that goes
// to the process as a new signal: no thread is kept here by a sender that is faster than its dumps.
void hist_dump_release()
{
    const uint64 me = this_thread();
    if (move_dump(pack_dump(DUMP_RUNNING, me), pack_dump(DUMP_IDLE)) ||
        !move_dump(pack_dump(DUMP_WANTED, me), pack_dump(DUMP_RUNNING, me)))
        return;
    ut_hist_dump_to_log_i(*hist.dump);
    if (move_dump(pack_dump(DUMP_RUNNING, me), pack_dump(DUMP_IDLE)))
        return;
    move_dump(pack_dump(DUMP_WANTED, me), pack_dump(DUMP_IDLE));
    if (hist_runs() && unix_current_handler(hist_cfg.dump_signal) == signal_handler_with_context)
        kill(getpid(), hist_cfg.dump_signal);
}

// All but the thread table, into the buffer.
void hist_put_history(a_ut_hist_dump& f)
{
    if (f.pages != nullptr)
        hist_empty_pages(*f.pages);
    ut_hist_dump_to_file_i_ev(f);
    ut_hist_dump_to_file_i_dur(f.out);
    ut_hist_dump_to_file_tail(f);
}

// The dump itself, without the queue locks. The caller has claimed the dump.
void ut_hist_dump_to_log_i(a_ut_hist_dump& f) { dump_to_log(f, nullptr); }

// A thread of the parent may have been dumping: the dump is the parent's.
void hist_log_fork_child()
{
    dumped_at_end = false;
    if (dump_state() != pack_dump(DUMP_CLOSED))
        __atomic_store_n(&hist.dump_state, pack_dump(DUMP_IDLE), __ATOMIC_RELEASE);
}

// Not signal-safe: it locks.
void ut_hist_dump_to_file(FILE* f) { dump_on_request(f); }

// Not signal-safe: it locks.
void ut_hist_dump_to_log(void) { dump_on_request(nullptr); }

// Shut-down's dump (option f) and last words; no dump when another thread's does not end in time.
// Not signal-safe: it waits.
void hist_dump_at_exit()
{
    if (hist_cfg.ut_hist_dump_on_fini != 0 && hist_dump_claim_in_time()) {
        ut_zone_refresh(true);
        hist_header_zone();
        ut_hist_dump_to_log_i(*hist.dump);
        hist_dump_release();
    }
    note_lost_events(hist_cfg.ut_hist_dump_on_fini != 0 ? hist_errout : hist_errout_as_it_is);
}

// ---- a signal that ends the process ----

namespace {

void dump_at_end()
{
    ut_hist_dump_to_log_i(*hist.dump);
    __atomic_store_n(&dumped_at_end, true, __ATOMIC_RELAXED);  // relaxed: one thread ends the process
}

// Whether a callback, or the crash itself, has had it dumped: then it is not dumped again. Relaxed: one thread ends the
// process.
bool dumped_in_crash()
{
    return unix_get_crash_hooks() != nullptr && unix_ends_process && __atomic_load_n(&dumped_at_end, __ATOMIC_RELAXED);
}

// The thread's last row. An event of a handler that the signal has interrupted will not go on: its mark would hide this
// one.
void crash_began(int sig, int code, const void* address)
{
    if (hist_slot_number() < hist.num_threads)
        __atomic_store_n(&hist.threads[hist_slot_number()].recursing[1], uint8_t(0), __ATOMIC_RELAXED);
    UT_HIST_EV(UT_HIST_ID_SIGHANDLER, "ending on signal", long(sig), long(code), address);
}

// Unless a callback had it dumped. The dump stays claimed: nobody else's is cut off by the end. Another's that does not
// end in time gives way: it waits for what this thread held when it was interrupted, or its thread has crashed too.
void crash_dump()
{
    if (!hist_runs() || dumped_in_crash())
        return;
    if (!hist_dump_claim_in_time())
        __atomic_store_n(&hist.dump_state, pack_dump(DUMP_RUNNING, this_thread()), __ATOMIC_RELEASE);
    dump_at_end();
}

int32 crash_slot() { return hist_slot_number() < hist.num_threads ? int32(hist_slot_number()) : -1; }

constexpr a_crash_hooks crash_hooks = {crash_began, crash_dump, crash_slot};

}  // namespace

// A callback may exit: shut-down dumps then, whatever option f says.
void hist_dump_in_crash()
{
    if (unix_get_crash_hooks() != nullptr && unix_ends_process && hist_cfg.ut_hist_dump_on_fini == 0)
        crash_dump();
}

// Not signal-safe: it prepares reports.
void hist_set_crash_hooks(bool wanted)
{
    dumped_at_end = false;
    unix_set_crash_hooks(wanted ? &crash_hooks : nullptr);
}

// ---- SIGUSR1 ----

// Dumps now, or has the dump that is running write another one. Keeps errno. In a vfork child the history is the
// parent's, and its descriptors are not.
void ut_hist_signal_handler(int)
{
    if (!unix_is_home_process())
        return;
    const int kept = errno;
    const an_uncancelled_scope uncancelled;
    const uint64 me = this_thread();
    if (__atomic_load_n(&hist.no_memory, __ATOMIC_RELAXED))
        hist_note_no_memory();
    while (hist_runs() && !dumped_in_crash()) {
        // Signals faster than the looks of one that waits would keep it waiting for ever.
        const bool leaves = hist.waiting.now() > 0 && !unix_ends_process;
        if (leaves && move_dump(pack_dump(DUMP_IDLE), pack_dump(DUMP_WANTED)))
            break;
        if (!leaves && take_dump(me)) {
            unix_ends_process ? dump_at_end() : ut_hist_dump_to_log_i(*hist.dump);
            hist_dump_release();
            break;
        }
        const uint64 now = dump_state(), state = now & dump_state_bits, owner = now & ~dump_state_bits;
        if (owner == me && unix_ends_process) {
            dump_at_end();  // the dump that it interrupted will not go on, or be cut off
            break;
        }
        if (state == DUMP_WANTED || (state == DUMP_RUNNING && move_dump(now, pack_dump(DUMP_WANTED, owner))))
            break;
    }
    errno = kept;
}

void hist_note_no_memory()
{
    an_output out;
    hist_note(out, hist_errout_as_it_is())
        .text.put("history is off: no memory for a store of ", hist.wanted_bytes,
                  " bytes (n=", hist_cfg.ut_hist_debug_num, ", queues=", hist_cfg.hist_num_q, ')');
}

void ut_hist_add_signal_handler()
{
    hist_say(true, "add signal handler ...");
    const a_bool installed = install_signal();
    hist_say(false, "add signal handler done = ", installed);
}

void ut_hist_del_signal_handler()
{
    hist_say(true, "del signal handler ...");
    restore_signal();
    hist_say(false, "del signal handler done");
}

// Installs the handler unless that has been done since start-up. Relaxed: the exchange only picks the one who does.
void hist_install_signal_handler_once()
{
    if (__atomic_load_n(&hist.sig_handler_installed, __ATOMIC_RELAXED) != 0)
        return;
    const an_uncancelled_scope uncancelled;  // the caller holds a queue's lock
    if (__atomic_exchange_n(&hist.sig_handler_installed, 1, __ATOMIC_RELAXED) == 0)
        ut_hist_add_signal_handler();
}

// Option S leaves the handler in place at shut-down; the code behind it goes when the library is unloaded.
void hist_remove_signal_handler_at_unload()
{
    for (int sig = 1; sig < NSIG; sig++)
        if (unix_current_handler(sig) == signal_handler_with_context) {
            hist_cfg.dump_signal = sig;  // an earlier start-up may have had another one
            restore_signal();
        }
}
