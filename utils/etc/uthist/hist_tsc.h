// hist_tsc.h: the time of an event by the processor's counter (UT_HIST_EXT=tsc), which costs less than half of the
// clock. An anchor pairs a reading of the counter with the wall clock's time and a rate:
//
//     counter ----+=========limit--------->        within the limit, about a millisecond, times are converted;
//     clock   ----+ base                           the first event beyond it makes the next anchor
//
// A queue whose writers are serialised has an anchor of its own, so that no line is shared: queue 0, under its lock,
// and those of one thread under the dense rule. Events of the others ask the clock. An anchor's times never run
// backwards but by a step of the clock, or of a counter that jumped within the limit: where a new anchor lies before
// the last time given by less than a step, time stands until it is reached.
// Signal-safe: all of it, but hist_tsc_start.
#pragma once

#include <x86intrin.h>

#include "utils/etc/uthist/hist_store.h"

inline constexpr uint32 hist_tsc_shift = 40;   // of rates
inline constexpr int64_t hist_tsc_step = 100;  // microseconds: a clock that is set back by more has made a step
inline constexpr int64_t hist_tsc_second = 1000000;

// One look at both: the counter before and after the clock was read, and the time, nanoseconds since 1970.
struct a_clock_look {
    uint64 before, after;
    int64_t time;
};

// What the counter makes of a look: whether it can be used, and how fast it runs.
struct a_hist_tsc {
    const char* refused;  // why the system clock is used; null: it is not
    uint64 rate;          // when the history began, as that of an anchor
    uint64 limit;         // of an anchor
};
extern a_hist_tsc hist_tsc;

void hist_tsc_start();  // Not signal-safe: it reads files.
int64_t hist_new_anchor(a_hist_anchor& anchor, const a_clock_look& look);
int64_t hist_renew_anchor(a_hist_anchor& anchor);

// Microseconds since 1970 at a counter's value, while the anchor holds.
inline int64_t hist_tsc_time(a_hist_anchor& anchor, uint64 counts)
{
    const int64_t time = anchor.base + int64_t((counts * anchor.rate + anchor.part) >> hist_tsc_shift);
    if (time > anchor.last)
        anchor.last = time;
    return anchor.last;
}

// The time of an event of the anchor's queue. A counter that has jumped back is beyond the limit, too.
inline void hist_tsc_now(a_hist_anchor& anchor, struct timeval& now)
{
    const uint64 counts = __rdtsc() - anchor.counter;
    const int64_t time = counts < anchor.limit ? hist_tsc_time(anchor, counts) : hist_renew_anchor(anchor);
    now.tv_sec = time_t(uint64(time) / hist_tsc_second);
    now.tv_usec = suseconds_t(uint64(time) % hist_tsc_second);
}
