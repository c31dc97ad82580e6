// hist_slots.cpp: claims dense thread slots (the owner word's life is drawn in hist_slots.h).
//
// Invariant: a live thread owns at most one slot. A signal handler may record, and so claim, in the middle of
// the claim that it interrupted; whoever finds hist_my_slot set after its own claim gives that one back. No
// locks; everything here is signal-safe.
#include "utils/etc/uthist/hist_slots.h"

#include <errno.h>
#include <unistd.h>

#include <atomic>

constinit __attribute__((tls_model("initial-exec"))) thread_local a_slot hist_my_slot = {nullptr, 0};

namespace {

// A thread that found no slot looks for dead owners again only every so many events: it costs 256 system calls.
constexpr uint32 sweep_interval = 16;
constinit __attribute__((tls_model("initial-exec"))) thread_local uint32 events_until_sweep = 0;

uint64 owners[hist_max_threads];  // owner word: generation in the high half, thread id (0: free) in the low half

constexpr uint32 tid_of(uint64 owner) { return uint32(owner); }
constexpr uint64 successor(uint64 owner, uint32 tid) { return ((owner >> 32) + 1) << 32 | tid; }

// Relaxed: the word is all that is read, and every change of it is a compare-and-swap.
// Signal-safe.
uint64 owner_of(uint32 slot) { return __atomic_load_n(&owners[slot], __ATOMIC_RELAXED); }

// Acquire and release: the next owner sees the slot's state as the last one left it.
// Signal-safe.
bool change_owner(uint32 slot, uint64 from, uint32 tid)
{
    return __atomic_compare_exchange_n(&owners[slot], &from, successor(from, tid), false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_RELAXED);
}

// A slot that bears the caller's id although the caller has none belonged to a dead thread with the same id, or to the
// claim that this one interrupted.
// Signal-safe.
bool adopt(uint32 tid, uint32& slot)
{
    for (slot = 0; slot < hist_max_threads; slot++) {
        const uint64 owner = owner_of(slot);
        if (tid_of(owner) == tid && change_owner(slot, owner, tid))
            return true;
    }
    return false;
}

// Frees the slots of threads that have ended.
// Signal-safe.
void sweep()
{
    const pid_t process = getpid();
    for (uint32 slot = 0; slot < hist_max_threads; slot++) {
        const uint64 owner = owner_of(slot);
        if (tid_of(owner) != 0 && tgkill(process, pid_t(tid_of(owner)), 0) != 0 && errno == ESRCH)
            change_owner(slot, owner, 0);
    }
}

// Signal-safe.
bool claim_lowest(uint32 tid, uint32& slot)
{
    for (slot = 0; slot < hist_max_threads; slot++) {
        const uint64 owner = owner_of(slot);
        if (tid_of(owner) == 0 && change_owner(slot, owner, tid))
            return true;
    }
    return false;
}

// The number comes first: a handler that finds the thread finds its number.
// Signal-safe.
void take(a_slot slot)
{
    hist_my_slot.t = slot.t;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    hist_my_slot.thread = slot.thread;
}

// Signal-safe.
a_slot claim()
{
    const uint32 tid = uint32(gettid());
    uint32 slot;
    if (!adopt(tid, slot)) {
        sweep();
        if (!claim_lowest(tid, slot)) {
            events_until_sweep = hist_my_slot.thread == nullptr ? sweep_interval : 0;
            return hist_my_slot.thread == nullptr ? hist_slot(hist_max_threads) : hist_my_slot;
        }
    }
    if (hist_my_slot.thread != nullptr) {
        if (hist_my_slot.t != slot)
            change_owner(slot, owner_of(slot), 0);
        return hist_my_slot;
    }
    hist_reset_thread(hist.threads[slot]);
    take(hist_slot(slot));
    if (tid_of(owner_of(slot)) == uint32(gettid()))
        return hist_my_slot;
    // A handler forked just now, and the child has freed the slot.
    hist_my_slot.thread = nullptr;
    return claim();
}

}  // namespace

// The calling thread's new slot, number 256 while 256 live threads hold one, and in a vfork child: the slots are its
// parent's, whose threads the kernel does not know under the child's id. Keeps errno.
// Signal-safe.
a_slot hist_claim_slot()
{
    if (events_until_sweep != 0) {
        events_until_sweep--;
        return hist_slot(hist_max_threads);
    }
    if (!unix_is_home_process())
        return hist_slot(hist_max_threads);
    const int kept = errno;
    const a_slot slot = claim();
    errno = kept;
    return slot;
}

// The child's only thread keeps its slot under its new id; the slots of the parent's other threads are free.
// Signal-safe.
void hist_slots_fork_child()
{
    events_until_sweep = 0;
    for (uint32 slot = 0; slot < hist_max_threads; slot++)
        change_owner(slot, owner_of(slot), &hist.threads[slot] == hist_my_slot.thread ? uint32(gettid()) : 0);
}
