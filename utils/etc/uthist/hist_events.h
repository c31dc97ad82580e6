// hist_events.h: the event table of a dump and the walk over the rings that feeds it.
#ifndef UTHIST_HIST_EVENTS_H
#define UTHIST_HIST_EVENTS_H

#include "utils/etc/uthist/hist_text.h"

void ut_hist_dump_to_file_i_ev(a_ut_hist_dump& f);
void ut_hist_dump_to_file_head(a_ut_hist_dump& f);
void ut_hist_dump_to_file_q_n(a_ut_hist_dump& f, int32 q);
void ut_hist_dump_to_file_data(a_ut_hist_dump& f, const char* addr, uint32 len);
void ut_hist_dump_to_file_tail(a_ut_hist_dump& f);

#endif
