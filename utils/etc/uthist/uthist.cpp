// uthist.cpp: start-up and shut-down of the event history, and its part in a forked child.
//
// States: off (no store) -> running (hist_initialized) -> shut down (store freed, or kept with option x-).
// Start-up gets the whole store or leaves the history off. Shut-down claims the dump before it frees the
// store, and a SIGUSR1 that comes once the history is stopped does nothing. No locks: both run while nobody else
// uses the history. Not signal-safe, but for the fork step.
#include "utils/etc/uthist/uthist.h"

#include <unistd.h>

#include "utils/etc/utcancel.h"
#include "utils/etc/utclock.h"
#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/hist_ext.h"
#include "utils/etc/uthist/hist_file.h"
#include "utils/etc/uthist/hist_fork.h"
#include "utils/etc/uthist/hist_header.h"
#include "utils/etc/uthist/hist_lock.h"
#include "utils/etc/uthist/hist_log.h"
#include "utils/etc/uthist/hist_slots.h"
#include "utils/etc/uthist/hist_threads.h"
#include "utils/etc/uthist/hist_tsc.h"
#include "utils/unix/utending.h"
#include "utils/unix/utptmutex.h"

namespace {

bool left_behind = false;  // the last shut-down gave up, and left the store to a thread that is inside

// Whether a thread other than this one is inside ut_hist_add: what this one was doing will not go on when a handler
// that interrupted it, or a jump out of one, has led here. Acquire: what the thread wrote there comes before what
// follows here.
bool somebody_records()
{
    const uint32 mine = hist_slot_number();
    for (uint32 t = 0; t < hist_slots_end(); t++)
        for (const uint8_t& recursing : hist.threads[t].recursing)
            if (t != mine && __atomic_load_n(&recursing, __ATOMIC_ACQUIRE) != 0)
                return true;
    return false;
}

// Lets threads that are just recording or dumping finish: a server may exit under its threads. The barrier runs on all
// their processors, so that it costs recording nothing: afterwards either a thread's mark is seen here, or the thread
// sees that the history has stopped. Bounded: a thread that was ended in the middle of its event leaves its mark for
// ever. Those that wait for their turn to dump a store that is kept are not waited for. False when somebody is still
// there.
bool wait_for_users(bool store_goes)
{
    if (!hist_barrier_on_all_threads())
        unix_pause(1);  // refused to a confined process: a mark is seen long before that
    __atomic_store_n(&hist.closing, store_goes, __ATOMIC_SEQ_CST);
    return unix_in_time([=] { return !somebody_records() && !(store_goes && hist.users.now() > hist_my_uses); });
}

// Frees the store unless option x- keeps it. False while another thread is inside, say in a dump that does not end: all
// that it uses stays then, the message stream too. When true the caller has claimed the dump.
bool clean_up()
{
    const bool frees = hist_cfg.ut_hist_exit_cleanup > 0;
    if (!wait_for_users(frees) || !hist_dump_claim_in_time())
        return false;
    if (frees)
        hist_store_free(hist_cfg.ut_hist_exit_cleanup > 1);
    return true;
}

// Whether a thread may still use the store of the last start-up, or be dumping it.
bool left_to_a_thread()
{
    return hist.hist_evs != nullptr &&
           (left_behind || __atomic_load_n(&hist.dump_state, __ATOMIC_ACQUIRE) != pack_dump(DUMP_IDLE));
}

// One message where the counter cannot be used, and the system clock. Gives the name of what is used.
const char* start_counter()
{
    hist_tsc_start();
    hist_cfg.tsc = hist_tsc.refused == nullptr;
    an_output out;
    if (!hist_cfg.tsc)
        hist_note(out, hist_errout_as_it_is())
            .text.put("UT_HIST_EXT=tsc: ", hist_tsc.refused, ": times come from the system clock");
    return hist_cfg.tsc ? "tsc" : "system";
}

bool make_store()
{
    hist_lay_out_texts();
    if (!hist_store_alloc(hist_dump_bytes))
        return false;
    hist_dump_lay_out(hist_streams.ut_hist_eol);
    hist_header_fill();
    hist_slots_start();
    hist_lock_start();
    hist.closing = false;
    hist_header_publish();
    __atomic_store_n(&hist.dump_state, pack_dump(DUMP_IDLE), __ATOMIC_RELEASE);
    return true;
}

// In a forked child: the history goes on in a store that is not its parent's, or not at all. Signal-safe.
void own_the_store()
{
    const bool shared = hist_file_is_mapped();
    if (!hist_fork_child_store()) {
        hist_store_forget();
        ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
    } else if (shared && hist.hist_evs != nullptr) {
        hist_dump_lay_out(hist_streams.ut_hist_eol);
    }
}

}  // namespace

void ut_hist_static_defaults()
{
    hist_reset_settings();
    hist_errout_load();
}

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
    ut_zone_refresh();  // before the first message, which begins with the local time
    hist_read_options();
    hist_read_ext();
    hist_write_settings(hist_cfg.tsc ? start_counter() : nullptr);
    const bool made = make_store();
    if (hist_cfg.ut_hist_dump_on_sig == 1)
        hist_install_signal_handler_once();
    an_output out;
    if (!made) {
        ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
        hist_note_no_memory();
        hist_tell_open_error(out);
        hist_errout_close();
        return;
    }
    __atomic_store_n(&hist.hist_ok_to_dump, true, __ATOMIC_RELEASE);
    hist_set_running(true);
    hist_set_crash_hooks(hist_cfg.crash);
    hist_say(false, "init done");
    hist_tell_open_error(out);
}

void ut_hist_fini(void)
{
    if (!hist_runs())
        return;
    const an_uncancelled_scope uncancelled;
    hist_dump_in_crash();
    hist_set_crash_hooks(false);
    hist_set_running(false);
    __atomic_store_n(&hist.live->state, UT_HIST_IMAGE_ENDED, __ATOMIC_RELEASE);
    hist_say(true, "fini ...");
    if (hist_cfg.ut_hist_dump_on_sig == 1 && __atomic_load_n(&hist.sig_handler_installed, __ATOMIC_RELAXED) != 0) {
        __atomic_store_n(&hist.sig_handler_installed, 0, __ATOMIC_RELAXED);
        ut_hist_del_signal_handler();
    }
    hist_dump_at_exit();
    left_behind = !clean_up();
    if (left_behind)
        return;
    hist_file_end();
    hist_say(true, "fini done");
    hist_errout_close();
    if (hist.hist_evs == nullptr)
        __atomic_store_n(&hist.dump_state, pack_dump(DUMP_CLOSED), __ATOMIC_RELEASE);
    else
        hist_dump_release();
}

// Frees every lock of the history and forgets what the parent's other threads were doing, so that the child can record
// and dump at once. Records that they were writing stay odd, and so unread, until the ring's next record takes their
// place. Signal-safe.
void ut_hist_fork_child()
{
    hist.users.fork_child();
    hist.waiting.fork_child();
    hist_my_uses = 0;
    hist_errout_fork_child();
    own_the_store();
    hist_slots_fork_child();
    hist_header_fork_child();
    if (hist.hist_evs == nullptr)
        return;
    hist_views_fork_child();
    for (uint32 t = 0; t < hist_slots_end(); t++)
        for (uint8_t& recursing : hist.threads[t].recursing)
            __atomic_store_n(&recursing, uint8_t(0), __ATOMIC_RELAXED);
    hist_log_fork_child();
    for (int32 q = 0; q < hist_cfg.hist_num_q; q++) {
        hist_lock_fork_child(hist.hist_evs[q].mutex, hist.hist_evs[q].gate);
        if (hist.anchors != nullptr)
            hist.anchors[q].limit = 0;  // another thread may have been making it
    }
    if (hist.hist_ids == nullptr)
        return;
    ut_safe_pthread_mutex_fork_child(&hist.hist_ids_mutex);
    for (int32 i = 0; i < hist.hist_num_ids; i++)
        for (int32 key = 0; key < K_LAST; key++)
            ut_safe_pthread_mutex_fork_child(&hist_by_key(i, key).mutex);
}

// A forked child's exit shuts nothing down, but a file of its own ends with it.
void ut_hist_unload()
{
    if (unix_is_home_process() && hist_file_name()[0] != '\0') {
        if (hist.mapping != nullptr)
            __atomic_store_n(&hist.live->state, UT_HIST_IMAGE_ENDED, __ATOMIC_RELEASE);
        hist_file_end();
    }
    hist_remove_signal_handler_at_unload();
    hist_slots_unload();
    hist_store_unload();
}
