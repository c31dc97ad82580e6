// hist_lock.cpp: what a writer that finds the gate shut does, and a dump. Not signal-safe, but for the fork step: all
// of it locks.
#include "utils/etc/uthist/hist_lock.h"

#include <emmintrin.h>
#include <errno.h>
#include <time.h>

#include "utils/unix/utending.h"
#include "utils/unix/utptmutex.h"

namespace {

constexpr int looks = 100;  // of some 40 nanoseconds each
constexpr int nap_us = 50;

// Looks before it exchanges, so that the line stays the writer's. Relaxed: the exchange acquires.
bool passes_soon(a_ut_hist_gate& gate, bool has_mutex)
{
    for (int i = 0; i < looks; i++) {
        const bool may_pass = has_mutex || !hist_gate_is_wanted(gate);
        if (may_pass && __atomic_load_n(&gate.shut, __ATOMIC_RELAXED) == 0 && hist_try_gate(gate))
            return true;
        _mm_pause();
    }
    return false;
}

// Relaxed: see hist_gate_is_wanted.
void want_gate(a_ut_hist_gate& gate, bool wanted) { __atomic_store_n(&gate.wanted, uint32(wanted), __ATOMIC_RELAXED); }

bool is_past(const struct timespec& end)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec > end.tv_sec || (now.tv_sec == end.tv_sec && now.tv_nsec >= end.tv_nsec);
}

// With the mutex. Not wanted while it naps: the gate may open then, and others pass. Null: however long it takes.
bool wait_with_mutex(a_ut_hist_gate& gate, const struct timespec* end)
{
    for (;;) {
        want_gate(gate, true);
        const bool passed = passes_soon(gate, true);
        want_gate(gate, false);
        if (passed || (end != nullptr && is_past(*end)))
            return passed;
        unix_pause_us(nap_us);
    }
}

}  // namespace

// A recording leaves errno as it is.
__attribute__((noinline, cold)) void hist_wait_at_gate(a_critical_sect& mutex, a_ut_hist_gate& gate)
{
    if (passes_soon(gate, false))
        return;
    const int kept_errno = errno;
    pthread_mutex_lock(mutex.p_mutex);
    wait_with_mutex(gate, nullptr);
    pthread_mutex_unlock(mutex.p_mutex);
    errno = kept_errno;
}

bool hist_lock_for_dump(a_critical_sect& mutex, a_ut_hist_gate& gate, const struct timespec& end)
{
    if (pthread_mutex_timedlock(mutex.p_mutex, &end) != 0)
        return false;
    const bool passed = wait_with_mutex(gate, &end);
    if (!passed)
        pthread_mutex_unlock(mutex.p_mutex);
    return passed;
}

void hist_unlock_after_dump(a_critical_sect& mutex, a_ut_hist_gate& gate)
{
    hist_open_gate(gate);
    pthread_mutex_unlock(mutex.p_mutex);
}

void hist_lock_fork_child(a_critical_sect& mutex, a_ut_hist_gate& gate)
{
    ut_safe_pthread_mutex_fork_child(&mutex);
    want_gate(gate, false);
    __atomic_store_n(&gate.shut, 0u, __ATOMIC_RELAXED);
}
