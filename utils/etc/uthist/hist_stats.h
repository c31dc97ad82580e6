// hist_stats.h: timing statistics between events that carry registered ids: adding a sample, and their table.
#pragma once

#include "utils/etc/uthist/hist_store.h"
#include "utils/etc/uttext.h"

void ut_hist_add_time(int32 fi, int32 fc, int32 ti, int32 tc, uint32 dur);
void ut_hist_dump_to_file_i_dur(a_text& f);
