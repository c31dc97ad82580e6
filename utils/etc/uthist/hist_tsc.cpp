// hist_tsc.cpp: makes the anchors of the counter's times (hist_tsc.h says how they hold), and finds out whether the
// counter may be used. Signal-safe: all of it, but what says otherwise.
#include "utils/etc/uthist/hist_tsc.h"

#include <cpuid.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

a_hist_tsc hist_tsc;

namespace {

constexpr int tries = 4;                     // of a look that another process or an interrupt may stretch
constexpr uint64 narrow = 1000;              // counts
constexpr uint64 believable = 1000;          // a rate differs from the one before by a thousandth at most
constexpr int64_t longest_gap = 1000000000;  // nanoseconds between anchors that give a rate
constexpr int64_t calibration = 1000000;     // nanoseconds

int64_t nanoseconds(clockid_t clock)
{
    struct timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * int64_t(1000000000) + now.tv_nsec;
}

// The narrowest of some looks.
a_clock_look look_at(clockid_t clock)
{
    a_clock_look best = {0, UINT64_MAX, 0};
    for (int i = 0; i < tries && best.after - best.before > narrow; i++) {
        a_clock_look look;
        look.before = __rdtsc();
        look.time = nanoseconds(clock);
        look.after = __rdtsc();
        if (look.after - look.before < best.after - best.before)
            best = look;
    }
    return best;
}

uint64 middle(const a_clock_look& look) { return look.before + (look.after - look.before) / 2; }

// Microseconds a count, times 2^40.
uint64 rate_of(int64_t passed, uint64 counts)
{
    __extension__ typedef unsigned __int128 a_wide;
    return counts != 0 ? uint64((a_wide(uint64(passed)) << hist_tsc_shift) / 1000 / counts) : 0;
}

bool is_near(uint64 rate, uint64 other)
{
    const uint64 apart = rate > other ? rate - other : other - rate;
    return apart < other / believable;
}

// The rate from the last anchor to this look, unless the clock has made a step since or the counter a jump: then it is
// the one before. A second look in a row that finds the same new rate is believed: the machine is another one.
void set_rate(a_hist_anchor& anchor, uint64 counter, int64_t time)
{
    const int64_t last = anchor.base * 1000 + int64_t((anchor.part * 1000) >> hist_tsc_shift);
    const int64_t passed = time - last;
    if (anchor.limit == 0 || passed <= 0 || passed > longest_gap)
        return;
    const uint64 rate = rate_of(passed, counter - anchor.counter);
    const bool good = is_near(rate, anchor.rate) || (anchor.refused != 0 && is_near(rate, anchor.refused));
    anchor.refused = good ? 0 : rate;
    if (good)
        anchor.rate = rate;
}

// Not signal-safe: it reads a file.
bool is_clock_of_kernel()
{
    char name[16] = "";
    const int fd = open("/sys/devices/system/clocksource/clocksource0/current_clocksource", O_RDONLY | O_CLOEXEC);
    const ssize_t len = fd >= 0 ? read(fd, name, sizeof name - 1) : -1;
    if (fd >= 0)
        close(fd);
    return len > 0 && strncmp(name, "tsc\n", 4) == 0;
}

// Two threads with one slot would make one anchor side by side.
bool slots_are_shared() { return hist_cfg.dense_slots == 0 && hist_cfg.ut_hist_debug_q_by_thr != 0; }

// Why the counter cannot be used; null when it can. Not signal-safe: it reads a file.
const char* refusal()
{
    unsigned a, b, c, d;
    int mode = 0;
    constexpr unsigned power_management = 0x80000007, invariant = 1u << 8;
    if (__get_cpuid(power_management, &a, &b, &c, &d) == 0 || (d & invariant) == 0)
        return "the processor's counter does not run at one rate";
    if (prctl(PR_GET_TSC, &mode) != 0 || mode != PR_TSC_ENABLE)
        return "the process may not read the processor's counter";
    if (!is_clock_of_kernel())
        return "the kernel's clock is not the processor's counter";
    return slots_are_shared() ? "threads may share queues under UT_HIST_THREAD_SLOT=handle" : nullptr;
}

}  // namespace

// Measures the rate for a millisecond, by the clock that makes no steps.
void hist_tsc_start()
{
    hist_tsc = {refusal(), 0, 0};
    if (hist_tsc.refused != nullptr)
        return;
    const a_clock_look first = look_at(CLOCK_MONOTONIC);
    a_clock_look last = first;
    while (last.time - first.time < calibration)
        last = look_at(CLOCK_MONOTONIC);
    const uint64 counts = middle(last) - middle(first);
    hist_tsc.rate = rate_of(last.time - first.time, counts);
    hist_tsc.limit = counts;
    if (hist_tsc.rate == 0)
        hist_tsc.refused = "the processor's counter stands still";
}

// Puts the anchor where the look was; gives the time.
int64_t hist_new_anchor(a_hist_anchor& anchor, const a_clock_look& look)
{
    const uint64 counter = middle(look);
    if (anchor.rate == 0)
        anchor.rate = hist_tsc.rate;
    set_rate(anchor, counter, look.time);
    anchor.counter = counter;
    anchor.base = look.time / 1000;
    anchor.part = (uint64(look.time % 1000) << hist_tsc_shift) / 1000;
    anchor.limit = hist_tsc.limit;
    if (anchor.last - anchor.base > hist_tsc_step)
        anchor.last = anchor.base;
    return hist_tsc_time(anchor, 0);
}

// Keeps errno, as the system calls of a clock that is no mapped one may not.
__attribute__((noinline)) int64_t hist_renew_anchor(a_hist_anchor& anchor)
{
    const int kept = errno;
    const int64_t time = hist_new_anchor(anchor, look_at(CLOCK_REALTIME));
    errno = kept;
    return time;
}
