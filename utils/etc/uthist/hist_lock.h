// hist_lock.h: the lock of what several threads write, the shared queue's ring.
//
// Writers pass a gate. One exchange shuts it, a plain store opens it: the processor need not wait for the writer's
// other stores, as the locked instruction of a mutex's unlock makes it. Who finds it shut looks again for a microsecond
// or a few, far longer than most writers take, and then sleeps until who opens the gate finds it wanted:
//
//     the writer                  who waits
//     shut = 0                    wanted = 1
//     (a compiler's fence)        a barrier on the processors of all threads
//     wanted? 0, wakes one        passes, or sleeps while wanted is 1
//
// The barrier is for both: a writer that did not find the gate wanted had opened it before the other's look. Who is
// woken says anew that the gate is wanted, since others may sleep. Where the kernel refuses the barrier nobody sleeps
// for longer than a millisecond. A dump takes the queue's mutex first, and then passes the gate.
#pragma once

#include <atomic>

#include "corvex/hist_image.h"

void hist_lock_start();              // of the history; the first among many threads costs milliseconds
bool hist_barrier_on_all_threads();  // false where the kernel refuses it. Signal-safe.

// Acquire: what the last writer stored. Not signal-safe: it locks.
inline bool hist_try_gate(a_ut_hist_gate& gate) { return __atomic_exchange_n(&gate.shut, 1u, __ATOMIC_ACQUIRE) == 0; }

void hist_wait_at_gate(a_ut_hist_gate& gate);
void hist_wake_at_gate(a_ut_hist_gate& gate);

// Release: for the next writer. Not signal-safe: it unlocks.
inline void hist_open_gate(a_ut_hist_gate& gate)
{
    __atomic_store_n(&gate.shut, 0u, __ATOMIC_RELEASE);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    // Relaxed: the barrier of the one that waits orders it.
    if (__atomic_load_n(&gate.wanted, __ATOMIC_RELAXED) != 0) [[unlikely]]
        hist_wake_at_gate(gate);
}

// Both the mutex and the gate, before the wall clock has come to `end`; false when they cannot be had.
bool hist_lock_for_dump(a_critical_sect& mutex, a_ut_hist_gate& gate, const struct timespec& end);
void hist_unlock_after_dump(a_critical_sect& mutex, a_ut_hist_gate& gate);

void hist_lock_fork_child(a_critical_sect& mutex, a_ut_hist_gate& gate);  // in it both are free. Signal-safe.

// A writer, for a scope.
class a_hist_lock {
public:
    // Not signal-safe: it locks.
    explicit a_hist_lock(a_ut_hist_gate& of) : gate(of)
    {
        if (!hist_try_gate(gate)) [[unlikely]]
            hist_wait_at_gate(gate);
    }
    // Not signal-safe: it unlocks.
    ~a_hist_lock() { hist_open_gate(gate); }
    a_hist_lock& operator=(a_hist_lock&&) = delete;  // nor copies

private:
    a_ut_hist_gate& gate;
};
