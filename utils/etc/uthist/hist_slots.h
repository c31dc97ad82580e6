// hist_slots.h: which of the 256 thread slots the calling thread records under.
//
// Literal rule (the default): the low 10 bits of pthread_self(); slots above 255 do not record.
// Dense rule (UT_HIST_THREAD_SLOT=dense): every live thread gets the lowest free number at its first event
// and keeps it until it ends. A slot's owner word moves like this:
//
//     free, g --claim--> tid, g+1 --the kernel no longer knows tid--> free, g+2
//                          |  ^
//                          +--+ adopted by a new thread that got the same id: tid, g+2
//
// The generation g makes the compare-and-swap of a thread that saw a dead owner fail when the slot has been
// adopted meanwhile. No lock, no allocation; both rules are signal-safe.
#ifndef UTHIST_HIST_SLOTS_H
#define UTHIST_HIST_SLOTS_H

#include <pthread.h>

#include <atomic>

#include "utils/etc/uthist/hist_config.h"

inline constexpr uint32 thread_slot_mask = 0x3FF;

// A slot's number and what it holds; no thread where the number is above 255.
struct a_slot {
    a_ut_hist_thread* thread;
    uint32 t;
};

// The calling thread's dense slot; no thread while it has none. Both, since an event needs both at once. initial-exec: the
// first touch of a lazily allocated thread-local variable would allocate, which a signal handler may not.
extern constinit __attribute__((tls_model("initial-exec"))) thread_local a_slot hist_my_slot;

a_slot hist_claim_slot();
void hist_slots_fork_child();

// Signal-safe.
inline a_slot hist_slot(uint32 t) { return {t < hist_max_threads ? &hist.threads[t] : nullptr, t}; }

// Signal-safe.
inline a_slot hist_thread_slot()
{
    if (hist_cfg.dense_slots == 0) [[unlikely]]
        return hist_slot(uint32(a_ptrint(pthread_self())) & thread_slot_mask);
    a_ut_hist_thread* const thread = hist_my_slot.thread;
    if (thread == nullptr) [[unlikely]]
        return hist_claim_slot();
    // The number second: a handler that claims between the two sets it first.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return {thread, hist_my_slot.t};
}

#endif
