// hist_clock.h: local time without localtime_r, which a signal handler may not call.
//
// A table of the offsets from UTC, with the changes of the next ten years, is made at start-up and looked at
// again by every dump outside a handler, but in a forked child, which keeps its parent's. Lookups are signal-safe and
// never wait.
#ifndef UTHIST_HIST_CLOCK_H
#define UTHIST_HIST_CLOCK_H

#include <sys/time.h>
#include <time.h>

#include "corvex/types.h"
#include "utils/etc/uthist/hist_text.h"

struct a_hist_civil {
    int32 yr, mo, da, hr, mi, se;  // month and day from 1
};

inline constexpr size_t hist_timestamp_size = 24;

void hist_zone_refresh();
a_hist_civil hist_local(time_t seconds);
void ut_hist_now(int32* yr, int32* mo, int32* da, int32* hr, int32* mi, int32* se, int32* us);
char* ut_hist_cur_timestamp_str(char* buf);
void ut_hist_timestamp_str(char* buf, const struct timeval& time_of_day);
void hist_put_timestamp(a_hist_text& out);

#endif
