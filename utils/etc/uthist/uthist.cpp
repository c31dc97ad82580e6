// uthist.cpp: start-up and shut-down of the event history, and its part in a forked child.
//
// States: off (no store) -> running (hist_initialized) -> shut down (store freed, or kept with option x-).
// Start-up gets the whole store or leaves the history off. Shut-down claims the dump before it frees the
// store, and a SIGUSR1 that comes once the history is stopped does nothing. No locks: both run while nobody else
// uses the history. Only the fork and the unload step are signal-safe.
#include "utils/etc/uthist/uthist.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "utils/etc/utcancel.h"
#include "utils/etc/uthist/hist_config.h"
#include "utils/etc/uthist/hist_log.h"
#include "utils/etc/uthist/hist_slots.h"
#include "utils/unix/utptmutex.h"

namespace {

constexpr int max_waits = 1000;  // for recorders and for dumps, a millisecond each

bool left_behind = false;  // the last shut-down gave up, and left the store to a thread that is inside

// Not signal-safe: it prints.
void say_fini(const char* text)
{
    if (hist_cfg.ut_hist_z_messages > 1)
        fprintf(hist_begin_message(), "** HISTORY z-messages ** fini %s%s", text, hist_cfg.ut_hist_eol);
}

// Whether some thread is inside ut_hist_add. Acquire: what it wrote there comes before what follows here.
// Signal-safe.
bool somebody_records()
{
    for (const a_ut_hist_thread& thread : hist.threads)
        for (const int32& recursing : thread.recursing)
            if (__atomic_load_n(&recursing, __ATOMIC_ACQUIRE) != 0)
                return true;
    return false;
}

// Lets threads that are just recording or dumping finish: a server may exit under its threads. The barrier runs on all their
// processors, so that it costs recording nothing: afterwards either a thread's mark is seen here, or the thread sees
// that the history has stopped. Bounded: a thread that was ended in the middle of its event leaves its mark for ever.
// Those that wait for their turn to dump a store that is kept are not waited for. False when somebody is still there.
// Not signal-safe: it sleeps.
bool wait_for_users(bool store_goes)
{
    const struct timespec millisecond = {0, 1000000};
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) != 0 ||
        syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) != 0)
        nanosleep(&millisecond, nullptr);  // refused to a confined process: a mark is seen long before that
    __atomic_store_n(&hist.closing, store_goes, __ATOMIC_SEQ_CST);
    const auto busy = [&] { return somebody_records() || (store_goes && hist.users.now() > 0); };
    for (int i = 0; busy(); i++) {
        if (i == max_waits)
            return false;
        nanosleep(&millisecond, nullptr);
    }
    return true;
}

// Frees the store unless option x- keeps it. False while another thread is inside, say in a dump that does not end: all
// that it uses stays then, the errout stream too. When true the caller has claimed the dump.
// Not signal-safe: it frees.
bool clean_up()
{
    const bool frees = hist_cfg.ut_hist_exit_cleanup > 0;
    if (!wait_for_users(frees) || !hist_dump_claim(max_waits))
        return false;
    if (frees)
        hist_store_free(hist_cfg.ut_hist_exit_cleanup > 1);
    return true;
}

// Whether a thread may still use the store of the last start-up, or be dumping it.
// Signal-safe.
bool left_to_a_thread()
{
    return hist.hist_evs != nullptr &&
           (left_behind || __atomic_load_n(&hist.dump_state, __ATOMIC_ACQUIRE) != pack_dump(DUMP_IDLE));
}

// Frees one lock in the child, whoever of the parent held it.
// Signal-safe.
void free_lock(a_critical_sect& section) { ut_safe_pthread_mutex_fork_child(&section); }

}  // namespace

// Not signal-safe: it allocates and prints.
void ut_hist_init(void)
{
    const an_uncancelled_scope uncancelled;
    if (!hist_is_wanted())
        return;
    if (left_to_a_thread()) {
        ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
        return;
    }
    hist_store_forget();
    hist_read_options();
    hist_write_settings();
    if (!hist_store_alloc()) {
        ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
        Close_Errout();
        return;
    }
    hist.closing = false;
    __atomic_store_n(&hist.dump_state, pack_dump(DUMP_IDLE), __ATOMIC_RELEASE);
    if (hist_cfg.ut_hist_dump_on_sig == 1)
        hist_install_signal_handler_once();
    // Release: who sees the history running sees its store.
    __atomic_store_n(&hist.hist_ok_to_dump, true, __ATOMIC_RELEASE);
    __atomic_store_n(&hist.hist_initialized, true, __ATOMIC_RELEASE);
    if (hist_cfg.ut_hist_z_messages > 1) {
        fprintf(hist_cfg.ut_hist_dump_err_file, "** HISTORY z-messages ** init done%s", hist_cfg.ut_hist_eol);
        fflush(hist_cfg.ut_hist_dump_err_file);
    }
}

// Not signal-safe: it prints and frees.
void ut_hist_fini(void)
{
    if (!hist.hist_initialized)
        return;
    const an_uncancelled_scope uncancelled;
    __atomic_store_n(&hist.hist_initialized, false, __ATOMIC_RELEASE);
    say_fini("...");
    if (hist_cfg.ut_hist_dump_on_sig == 1 && __atomic_load_n(&hist.sig_handler_installed, __ATOMIC_RELAXED) != 0) {
        __atomic_store_n(&hist.sig_handler_installed, 0, __ATOMIC_RELAXED);
        ut_hist_del_signal_handler();
    }
    if (hist_cfg.ut_hist_dump_on_fini != 0)
        hist_dump_to_log_unlocked(max_waits);
    left_behind = !clean_up();
    if (left_behind)
        return;
    say_fini("done");
    Close_Errout();
    if (hist.hist_evs == nullptr)
        __atomic_store_n(&hist.dump_state, pack_dump(DUMP_CLOSED), __ATOMIC_RELEASE);
    else
        hist_dump_release();
}

// Frees every lock of the history and forgets what the parent's other threads were doing, so that the child can record
// and dump at once. Records that they were writing stay odd, and so unread; the rings go on behind them.
// Signal-safe.
void ut_hist_fork_child()
{
    __atomic_store_n(&hist.fork_count, unix_fork_count(), __ATOMIC_RELAXED);
    hist.users.fork_child();
    hist_slots_fork_child();
    hist_errout_fork_child();
    for (a_ut_hist_thread& thread : hist.threads)
        for (int32& recursing : thread.recursing)
            __atomic_store_n(&recursing, 0, __ATOMIC_RELAXED);
    if (hist.hist_evs == nullptr)
        return;
    if (hist.dump_state != pack_dump(DUMP_CLOSED))
        __atomic_store_n(&hist.dump_state, pack_dump(DUMP_IDLE), __ATOMIC_RELEASE);
    if (hist.dump != nullptr)
        hist.dump->out.to_fd(-1);  // see hist_log.cpp
    for (int32 q = 0; q < hist_cfg.hist_num_q; q++) {
        free_lock(hist.hist_evs[q].mutex);
        hist_pass_unfinished(hist.hist_evs[q]);
    }
    if (hist.hist_ids == nullptr)
        return;
    free_lock(hist.hist_ids_mutex);
    for (int32 i = 0; i < hist.hist_num_ids; i++)
        for (a_ut_hist_timer_list& list : hist.hist_ids[i].by_key)
            free_lock(list.mutex);
}

// Signal-safe.
void ut_hist_unload() { hist_remove_signal_handler_at_unload(); }
