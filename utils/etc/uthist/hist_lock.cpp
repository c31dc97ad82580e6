// hist_lock.cpp: what waits at a shut gate, and what wakes it. Not signal-safe, but what says so: it locks.
#include "utils/etc/uthist/hist_lock.h"

#include <emmintrin.h>
#include <errno.h>
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "utils/unix/utptmutex.h"

namespace {

constexpr int looks = 100;  // of ten to forty nanoseconds each

// Looks before it exchanges, so that the line stays the writer's. Relaxed: the exchange acquires.
bool passes_soon(a_ut_hist_gate& gate)
{
    for (int i = 0; i < looks; i++) {
        if (__atomic_load_n(&gate.shut, __ATOMIC_RELAXED) == 0 && hist_try_gate(gate))
            return true;
        _mm_pause();
    }
    return false;
}

bool is_past(const struct timespec& end)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec > end.tv_sec || (now.tv_sec == end.tv_sec && now.tv_nsec >= end.tv_nsec);
}

// Relaxed: a barrier comes before the sleep that it is for.
void want(a_ut_hist_gate& gate) { __atomic_store_n(&gate.wanted, 1u, __ATOMIC_RELAXED); }

// False when the end came first; null: there is none. By plain system calls: no cancellation point. A wake-up between
// the barrier and the sleep has changed the word, which the kernel looks at.
bool pass_gate(a_ut_hist_gate& gate, const struct timespec* end)
{
    static constexpr struct timespec slice = {0, 1000000};
    while (!passes_soon(gate)) {
        want(gate);
        const bool ordered = hist_barrier_on_all_threads();
        if (hist_try_gate(gate))
            return true;
        if (end != nullptr && is_past(*end))
            return false;
        const struct timespec* const time = ordered && end == nullptr ? nullptr : &slice;
        if (syscall(SYS_futex, &gate.wanted, FUTEX_WAIT_PRIVATE, 1, time) == 0)
            want(gate);  // for others who may sleep, since this one's wake-up was the only one
    }
    return true;
}

}  // namespace

void hist_lock_start() { syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0); }

bool hist_barrier_on_all_threads() { return syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0; }

// A recording leaves errno as it is.
__attribute__((noinline, cold)) void hist_wait_at_gate(a_ut_hist_gate& gate)
{
    const int kept_errno = errno;
    pass_gate(gate, nullptr);
    errno = kept_errno;
}

// Sequentially consistent: before the kernel looks for sleepers.
__attribute__((noinline, cold)) void hist_wake_at_gate(a_ut_hist_gate& gate)
{
    const int kept_errno = errno;
    __atomic_store_n(&gate.wanted, 0u, __ATOMIC_SEQ_CST);
    syscall(SYS_futex, &gate.wanted, FUTEX_WAKE_PRIVATE, 1);
    errno = kept_errno;
}

bool hist_lock_for_dump(a_critical_sect& mutex, a_ut_hist_gate& gate, const struct timespec& end)
{
    if (pthread_mutex_timedlock(mutex.p_mutex, &end) != 0)
        return false;
    const bool passed = pass_gate(gate, &end);
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
    __atomic_store_n(&gate.wanted, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&gate.shut, 0u, __ATOMIC_RELAXED);
}
