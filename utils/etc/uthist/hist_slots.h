// hist_slots.h: which thread slot the calling thread records under.
//
// Literal rule (the default): the low 10 bits of pthread_self(); slots above 255 do not record. Dense rule
// (UT_HIST_THREAD_SLOT=dense or dense:<max>): every live thread gets the lowest free number at its first event and
// keeps it until it ends. A bit map says which are taken; a slot's owner word (generation, thread id) says by whom:
//
//     free --claim: bit, then owner--> taken --the thread ends: owner, then bit--> free
//
// The end is told by a destructor of thread-specific data. Threads that none runs for (its key costs an allocation, or
// an event came after the last round of destructors) are found by asking the kernel for one owner at a time. The
// generation makes the compare-and-swap of one that saw a dead owner fail when the slot has been claimed anew
// meanwhile. No lock, no allocation. Signal-safe: all of it, but hist_slots_start.
#pragma once

#include "utils/etc/uthist/hist_store.h"

inline constexpr uint32 thread_slot_mask = 0x3FF;

// A slot's number and what it holds; no thread where the number is beyond the last slot.
struct a_slot {
    a_ut_hist_thread* thread;
    uint32 t;
};

// The calling thread's dense slot: the start-up that gave it in the high half, in the low one the way of its events and
// its number; 0 without.
// initial-exec: the first touch of a lazily allocated thread-local variable would allocate, which a signal handler may
// not.
extern constinit __attribute__((tls_model("initial-exec"))) thread_local uint64 hist_my_slot;
inline constexpr uint32 slot_way_at = 16;  // in it
inline constexpr uint64 slot_word(uint32 start, uint32 way, uint32 t)
{
    return uint64(start) << 32 | uint64(way) << slot_way_at | t;
}
inline constexpr uint32 slot_start(uint64 mine) { return uint32(mine >> 32); }
inline constexpr uint32 slot_way(uint64 mine) { return uint32(mine) >> slot_way_at; }
inline constexpr uint32 slot_number(uint64 mine) { return uint16_t(mine); }
static_assert(hist_most_slots >> slot_way_at == 0);

void hist_slots_start();   // Not signal-safe: it makes a key.
void hist_slots_unload();  // Not signal-safe: it deletes one.
void hist_slots_fork_child();
a_slot hist_claim_slot();
uint32 hist_slots_end();            // no slot from this one on has been claimed
bool hist_slot_is_taken(uint32 t);  // under the literal rule each counts as taken

inline a_slot hist_slot(uint32 t) { return {t < hist.num_threads ? &hist.threads[t] : nullptr, t}; }

// The number of the calling thread's slot; beyond the last while it has none.
inline uint32 hist_slot_number()
{
    if (hist_cfg.dense_slots == 0)
        return uint32(a_ptrint(pthread_self())) & thread_slot_mask;
    const uint64 mine = hist_my_slot;
    return slot_start(mine) == hist.start ? slot_number(mine) : hist.num_threads;
}

inline a_slot hist_thread_slot()
{
    if (hist_cfg.dense_slots == 0) [[unlikely]]
        return hist_slot(uint32(a_ptrint(pthread_self())) & thread_slot_mask);
    const uint64 mine = hist_my_slot;
    if (slot_start(mine) != hist.start) [[unlikely]]
        return hist_claim_slot();
    return {&hist.threads[slot_number(mine)], slot_number(mine)};
}
