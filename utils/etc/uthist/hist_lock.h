// hist_lock.h: the lock of what several threads write: the shared queue's ring, a list of timers.
//
// A mutex with a gate before it. A writer shuts the gate by one exchange, and opens it by a plain store: the processor
// need not wait for the writer's other stores, as the locked instruction of a mutex's unlock makes it. Who finds the
// gate shut looks again for some four microseconds, far longer than a writer takes, and then waits for the mutex:
//
//     gate open --exchange--> the writer's --store--> open
//          \--shut: look again--> the mutex, the gate is wanted --look again, nap--> the writer's
//
// Nobody is woken when the gate opens, so of those who wait only the one that has the mutex looks at the gate; the
// others sleep. While it is wanted nobody else passes: who waits waits for one writer. The one that has the mutex naps
// only where the kernel has put that writer's thread aside. A dump takes both, and all whom it keeps waiting sleep.
#pragma once

#include "corvex/hist_image.h"

// Acquire: what the last writer stored. Not signal-safe: it locks.
inline bool hist_try_gate(a_ut_hist_gate& gate) { return __atomic_exchange_n(&gate.shut, 1u, __ATOMIC_ACQUIRE) == 0; }

// Relaxed: who comes in between is one writer more. Not signal-safe: it goes before a lock.
inline bool hist_gate_is_wanted(const a_ut_hist_gate& gate)
{
    return __atomic_load_n(&gate.wanted, __ATOMIC_RELAXED) != 0;
}

// Release: for the next writer. Not signal-safe: it unlocks.
inline void hist_open_gate(a_ut_hist_gate& gate) { __atomic_store_n(&gate.shut, 0u, __ATOMIC_RELEASE); }

void hist_wait_at_gate(a_critical_sect& mutex, a_ut_hist_gate& gate);

// Both the mutex and the gate, before the wall clock has come to `end`; false when they cannot be had.
bool hist_lock_for_dump(a_critical_sect& mutex, a_ut_hist_gate& gate, const struct timespec& end);
void hist_unlock_after_dump(a_critical_sect& mutex, a_ut_hist_gate& gate);

void hist_lock_fork_child(a_critical_sect& mutex, a_ut_hist_gate& gate);  // in it both are free. Signal-safe.

// A writer, for a scope.
class a_hist_lock {
public:
    // Not signal-safe: it locks.
    a_hist_lock(a_critical_sect& mutex, a_ut_hist_gate& its_gate) : gate(its_gate)
    {
        if (hist_gate_is_wanted(gate) || !hist_try_gate(gate)) [[unlikely]]
            hist_wait_at_gate(mutex, gate);
    }
    // Not signal-safe: it unlocks.
    ~a_hist_lock() { hist_open_gate(gate); }
    a_hist_lock& operator=(a_hist_lock&&) = delete;  // nor copies

private:
    a_ut_hist_gate& gate;
};
