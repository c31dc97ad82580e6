// hist_slots.cpp: claims dense thread slots and frees them (hist_slots.h draws a slot's life).
//
// Invariant: a live thread owns at most one slot. A signal handler may record, and so claim, in the middle of the claim
// that it interrupted; whoever finds that its thread has a slot after its own claim gives that one back. Signal-safe:
// all of it, but hist_slots_start; pthread_setspecific stores into the thread itself where the key is one of the first.
#include "utils/etc/uthist/hist_slots.h"

#include <errno.h>
#include <unistd.h>

constinit __attribute__((tls_model("initial-exec"))) thread_local uint64 hist_my_slot = 0;

namespace {

constexpr pthread_key_t keys_in_thread = 32;  // the C library allocates for the others
constexpr uint32 look_interval = 16;          // events of a thread without a slot between two questions to the kernel
constexpr int looks_of_claim = 2;             // owners asked for by a claim where no destructors run

// Events since a thread that found no slot looked for a dead owner, and how many slots had been freed when it last
// looked.
constinit __attribute__((tls_model("initial-exec"))) thread_local uint32 events_without_slot = 0;
constinit __attribute__((tls_model("initial-exec"))) thread_local uint32 freed_seen = 0;

pthread_key_t end_key;
bool ends_are_told = false;  // end_key is there, and setting it allocates nothing
uint32 freed = 1;            // slots freed since the library was loaded
uint32 next_look = 0;        // the slot whose owner is asked for next

constexpr uint32 tid_of(uint64 owner) { return uint32(owner); }
constexpr uint64 successor(uint64 owner, uint32 tid) { return ((owner >> 32) + 1) << 32 | tid; }

// Acquire and release: the next owner sees the slot's state as the last one left it.
bool take_bit(uint32 t)
{
    const uint64 bit = uint64(1) << t % 64;
    return (__atomic_fetch_or(&hist.taken_slots[t / 64], bit, __ATOMIC_ACQ_REL) & bit) == 0;
}

void free_bit(uint32 t)
{
    __atomic_fetch_and(&hist.taken_slots[t / 64], ~(uint64(1) << t % 64), __ATOMIC_RELEASE);
    __atomic_add_fetch(&freed, 1u, __ATOMIC_RELEASE);
}

// Relaxed here and below: the word is all that is read, and every change of it is a compare-and-swap.
bool change_owner(uint32 t, uint64 from, uint32 tid)
{
    return __atomic_compare_exchange_n(&hist.threads[t].owner, &from, successor(from, tid), false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_RELAXED);
}

void free_slot(uint32 t)
{
    const uint64 owner = __atomic_load_n(&hist.threads[t].owner, __ATOMIC_RELAXED);
    if (change_owner(t, owner, 0))
        free_bit(t);
}

// Gives the lowest free slot; num_threads when there is none.
uint32 take_lowest()
{
    for (uint32 base = 0; base < hist.num_threads; base += 64)
        for (uint64 taken; (taken = __atomic_load_n(&hist.taken_slots[base / 64], __ATOMIC_RELAXED)) != ~uint64(0);) {
            const uint32 t = base + uint32(__builtin_ctzll(~taken));
            if (t >= hist.num_threads)
                break;
            if (take_bit(t))
                return t;
        }
    return hist.num_threads;
}

// Asks for the next owner that there is, and frees its slot if the kernel does not know it any more.
void look_for_a_dead_owner()
{
    for (uint32 i = 0, used = hist_slots_end(); i < used; i++) {
        const uint32 t = __atomic_fetch_add(&next_look, 1u, __ATOMIC_RELAXED) % used;
        const uint64 owner = __atomic_load_n(&hist.threads[t].owner, __ATOMIC_RELAXED);
        if (tid_of(owner) == 0)
            continue;
        if (tgkill(getpid(), pid_t(tid_of(owner)), 0) != 0 && errno == ESRCH && change_owner(t, owner, 0))
            free_bit(t);
        return;
    }
}

// Relaxed: shut-down, which looks at it, waits for a mark that is set behind a barrier.
void note_end(uint32 t)
{
    uint32 seen = hist_slots_end();
    while (seen <= t &&
           !__atomic_compare_exchange_n(&hist.live->slots_end, &seen, t + 1, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
        continue;
}

// For a thread without a slot.
a_slot claim()
{
    uint64 before = hist_my_slot;
    const uint32 seen = __atomic_load_n(&freed, __ATOMIC_ACQUIRE), t = take_lowest();
    if (t == hist.num_threads) {
        freed_seen = seen;
        events_without_slot = 1;
        return hist_slot(t);
    }
    note_end(t);
    hist_reset_thread(hist.threads[t]);
    hist_reset_view(t);
    change_owner(t, __atomic_load_n(&hist.threads[t].owner, __ATOMIC_RELAXED), uint32(gettid()));
    const uint64 mine = slot_word(hist.start, hist_way(hist.threads[t].own_q), t);
    // Fails when a handler has claimed meanwhile.
    if (!__atomic_compare_exchange_n(&hist_my_slot, &before, mine, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
        free_slot(t);
        return hist_slot(slot_number(hist_my_slot));
    }
    if (ends_are_told)
        pthread_setspecific(end_key, &hist);
    return hist_slot(t);
}

// Runs at a thread's end. The slot may be of an earlier start-up, or shut-down just be freeing the store.
void end_thread(void*)
{
    const a_hist_user user;
    const uint64 mine = hist_my_slot;
    hist_my_slot = 0;
    if (user.has_store() && slot_start(mine) == hist.start)
        free_slot(slot_number(mine));
}

}  // namespace

// The key stays until the library is unloaded: threads of an earlier start-up may have set it.
// Not signal-safe: it makes a key.
void hist_slots_start()
{
    hist.live->slots_end = hist_cfg.dense_slots == 0 ? hist.num_threads : 0;
    freed++;  // a thread that found no slot in an earlier store looks again
    if (hist_cfg.dense_slots == 0)
        return;
    if (!ends_are_told && pthread_key_create(&end_key, end_thread) == 0) {
        ends_are_told = end_key < keys_in_thread;
        if (!ends_are_told)
            pthread_key_delete(end_key);
    }
}

// Nothing may point into the library once it has left the process. Not signal-safe: it deletes a key.
void hist_slots_unload()
{
    if (ends_are_told)
        pthread_key_delete(end_key);
    ends_are_told = false;
}

bool hist_slot_is_taken(uint32 t)
{
    return hist_cfg.dense_slots == 0 ||
           (__atomic_load_n(&hist.taken_slots[t / 64], __ATOMIC_ACQUIRE) >> t % 64 & 1) != 0;
}

uint32 hist_slots_end() { return __atomic_load_n(&hist.live->slots_end, __ATOMIC_RELAXED); }

// The calling thread's new slot, the first number beyond the last while all are taken, and in a vfork child: the slots
// are its parent's, whose threads the kernel does not know under the child's id. Keeps errno.
a_slot hist_claim_slot()
{
    // Nothing has been freed since this thread found no slot: a look at a counter, and seldom a question.
    const bool in_vain = events_without_slot != 0 && freed_seen == __atomic_load_n(&freed, __ATOMIC_ACQUIRE);
    if ((in_vain && events_without_slot++ % look_interval != 0) || !unix_is_home_process())
        return hist_slot(hist.num_threads);
    const int kept = errno;
    for (int looks = in_vain ? 1 : ends_are_told ? 0 : looks_of_claim; looks > 0; looks--)
        look_for_a_dead_owner();
    const a_slot slot = claim();
    errno = kept;
    return slot;
}

// The child's only thread keeps its slot under its new id; the slots of the parent's other threads are free.
void hist_slots_fork_child()
{
    events_without_slot = 0;
    if (hist.hist_evs == nullptr || hist_cfg.dense_slots == 0)
        return;
    const uint64 mine = hist_my_slot;
    const bool has_slot = slot_start(mine) == hist.start;
    for (uint32 t = 0; t < hist.num_threads; t += 64)
        __atomic_store_n(&hist.taken_slots[t / 64], uint64(0), __ATOMIC_RELAXED);
    for (uint32 t = 0; t < hist_slots_end(); t++)
        hist.threads[t].owner =
            successor(hist.threads[t].owner, has_slot && t == slot_number(mine) ? uint32(gettid()) : 0);
    if (has_slot)
        take_bit(slot_number(mine));
}
