// hist_log.h: dumps to the log or the message stream, and the SIGUSR1 handler.
#pragma once

#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/hist_events.h"

bool hist_dump_claim_in_time();
void hist_dump_release();
void hist_dump_at_exit();
void hist_put_history(a_ut_hist_dump& f);
void ut_hist_dump_to_log_i(a_ut_hist_dump& f);
void hist_log_fork_child();
void hist_set_crash_hooks(bool wanted);  // UT_HIST_EXT=crash
void hist_dump_in_crash();

// A diagnostic message, with option Z: one that begins a group, or goes on with it.
template <class... a_part>
void hist_say(bool begins, a_part... parts)
{
    if (hist_cfg.ut_hist_z_messages <= 1 || __atomic_load_n(&hist_errout_is_stuck, __ATOMIC_RELAXED))
        return;
    an_output out;
    if (begins)
        hist_begin_message(out);
    hist_message(out).text.put("** HISTORY z-messages ** ", parts...);
    hist_note_stuck(out);
}

void ut_hist_add_signal_handler();
void ut_hist_del_signal_handler();
void ut_hist_signal_handler(int signal_number);
void hist_install_signal_handler_once();
void hist_remove_signal_handler_at_unload();

// The history is off for want of memory: whoever asks for a dump by signal is told so.
void hist_note_no_memory();
