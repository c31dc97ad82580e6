// hist_log.h: dumps to the log or the errout stream, the errout stream itself, and the SIGUSR1 handler.
#ifndef UTHIST_HIST_LOG_H
#define UTHIST_HIST_LOG_H

#include "utils/etc/uthist/hist_text.h"

void Open_Errout();
void Close_Errout();
FILE* hist_begin_message();

inline constexpr int hist_no_limit = -1;
void hist_errout_fork_child();
bool hist_dump_claim(int max_wait);
void hist_dump_release();
void hist_dump_to_log_unlocked(int max_wait);
void ut_hist_dump_to_log_i(a_ut_hist_dump& f);

void ut_hist_add_signal_handler();
void ut_hist_del_signal_handler();
void ut_hist_signal_handler(int signal_number);
void hist_install_signal_handler_once();
void hist_remove_signal_handler_at_unload();

#endif
