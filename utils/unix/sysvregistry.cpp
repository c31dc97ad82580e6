// sysvregistry.cpp: the table, and the cleanup that walks it. All of it is signal-safe.
//
// A set's slot is its number modulo the table's size, which is the kernel's own index: what stands in that of a new set
// is gone from the kernel, a set of a forked child's parent or one that somebody else has removed, and gives way. Only
// where the kernel was booted to number more, and more than 21845 sets are on the machine, may it be a living set, and
// the new one is refused.
#include "utils/unix/sysvregistry.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include "corvex/forkprotection.h"
#include "corvex/onsig.h"
#include "utils/unix/utending.h"

namespace {

constexpr uint32 num_slots = 32768;
constexpr int patience = 5000;  // milliseconds, for the makers of sets

// An entry: the process of the family that opened the set in the high half, the set's number (0: free) in the low half.
uint64 registry[num_slots];
c_sysv_semaphore_set* registered_sets[num_slots];  // stored before, and valid while, the entry is there
uint32 used_slots = 0;                             // no entry from this slot on
uint32 removals = 0;

a_thread_count creators;  // that are making a kernel set
a_thread_count cleaners;  // that are inside the cleanup

uint32 slot_of(int32 ident) { return uint32(ident) % num_slots; }
int32 ident_of(uint64 entry) { return int32(uint32(entry)); }

// Acquire: who sees an entry sees its set.
uint64 entry_at(uint32 slot) { return __atomic_load_n(&registry[slot], __ATOMIC_ACQUIRE); }

// Exchanged: another walker may have cleared the entry, and a new set taken the slot.
void clear_entry(uint32 slot, uint64 entry)
{
    __atomic_compare_exchange_n(&registry[slot], &entry, uint64(0), false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
}

bool is_foreign(uint64 entry) { return UnixForkProtection_IsChild() && uint32(entry >> 32) != unix_fork_count(); }

void remove_registered_sets()
{
    for (uint32 slot = 0; slot < sysv_used_slots(); slot++) {
        const uint64 entry = entry_at(slot);
        if (entry == 0 || is_foreign(entry))
            continue;
        sysv_remove_kernel_set(ident_of(entry));
        clear_entry(slot, entry);
    }
}

}  // namespace

// Either the cleanup sees this creator, or the creator sees the cleanup.
a_creation::a_creation() : counted(creators) {}

bool a_creation::allowed() const { return !sysv_sets_are_barred() && !ut_onsig_will_do_cleanup(); }

// The fork count is taken inside a creation, where no handler can fork.
bool sysv_register(int32 ident, c_sysv_semaphore_set* set)
{
    const uint32 slot = slot_of(ident);
    const int32 earlier = ident_of(entry_at(slot));
    if (earlier != 0 && earlier != ident && semctl(earlier, 0, GETPID) != -1)
        return false;
    if (earlier != 0)
        sysv_forget(earlier);
    registered_sets[slot] = set;
    if (slot >= used_slots)
        __atomic_store_n(&used_slots, slot + 1, __ATOMIC_RELEASE);
    __atomic_store_n(&registry[slot], uint64(unix_fork_count()) << 32 | uint32(ident), __ATOMIC_RELEASE);
    return true;
}

void sysv_unregister(int32 ident)
{
    const uint64 entry = entry_at(slot_of(ident));
    if (ident_of(entry) == ident)
        clear_entry(slot_of(ident), entry);
}

// Release, as for the cleanup: who sees the number sees the entries cleared.
void sysv_forget(int32 ident)
{
    sysv_unregister(ident);
    __atomic_add_fetch(&removals, 1u, __ATOMIC_RELEASE);
}

uint32 sysv_removals() { return __atomic_load_n(&removals, __ATOMIC_ACQUIRE); }
bool sysv_is_foreign(int32 ident) { return is_foreign(entry_at(slot_of(ident))); }

bool sysv_none_registered()
{
    uint32 slot = 0;
    while (slot < sysv_used_slots() && entry_at(slot) == 0)
        slot++;
    return slot == sysv_used_slots();
}

c_sysv_semaphore_set* sysv_registered_set(int32 ident)
{
    return ident_of(entry_at(slot_of(ident))) == ident ? sysv_set_in_slot(slot_of(ident)) : nullptr;
}

c_sysv_semaphore_set* sysv_set_in_slot(uint32 slot) { return entry_at(slot) != 0 ? registered_sets[slot] : nullptr; }
uint32 sysv_used_slots() { return __atomic_load_n(&used_slots, __ATOMIC_ACQUIRE); }
void sysv_remove_kernel_set(int32 ident) { semctl(ident, 0, IPC_RMID); }

void sysv_bar_and_remove_sets()
{
    cleaners.enter();
    unix_in_time([] { return creators.now() == 0; }, patience);
    remove_registered_sets();
}

bool sysv_sets_are_barred() { return cleaners.now() != 0; }

void sysv_registry_fork_child()
{
    creators.fork_child();
    cleaners.fork_child();
}

void sysv_sig_handler(int, void*, a_bool, a_bool, a_bool cleanup, void*, void*)
{
    if (!cleanup || !unix_is_home_process())
        return;
    const int kept = errno;
    sysv_bar_and_remove_sets();
    __atomic_add_fetch(&removals, 1u, __ATOMIC_RELEASE);
    cleaners.leave();
    errno = kept;
}
