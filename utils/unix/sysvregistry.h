// sysvregistry.h: the table of the open kernel sets, and the cleanup by signal that removes what stands in it.
//
// The table is changed under the list's mutex and by the cleanup, which takes no lock, allocates and frees nothing. A
// set is removed from the kernel first and cleared from the table then: whoever has walked the table to its end, even
// beside another walker, knows that all it found are gone. A set that is just being made is not in the table yet: its
// maker blocks all signals and is counted; the cleanup forbids new makers and waits for those in flight. None is on
// the thread that the signal interrupted, so the wait ends soon; it is bounded all the same. So nobody waits for a
// lock, and whenever a signal can come every set is registered or not there.
#pragma once

#include "utils/etc/utcancel.h"
#include "utils/unix/unixfork.h"

class c_sysv_semaphore_set;

// While one of these exists a kernel set may be made and registered, if that is allowed.
class a_creation {
public:
    a_creation();
    bool allowed() const;

private:
    const a_blocked_scope blocked;
    const a_counted counted;
};

bool sysv_register(int32 ident, c_sysv_semaphore_set* set);
void sysv_unregister(int32 ident);  // by who destroys the set
void sysv_forget(int32 ident);      // leaves that to the list
uint32 sysv_removals();             // how often sets were left to the list
bool sysv_is_foreign(int32 ident);  // the parent's, in a forked child
bool sysv_none_registered();

// Null for a set that is not registered. The slots in use end where sysv_used_slots says, free ones among them.
c_sysv_semaphore_set* sysv_registered_set(int32 ident);
c_sysv_semaphore_set* sysv_set_in_slot(uint32 slot);
uint32 sysv_used_slots();

void sysv_remove_kernel_set(int32 ident);
void sysv_bar_and_remove_sets();  // for a shut-down that cannot wait for the list; no set is made afterwards
bool sysv_sets_are_barred();      // by that, or while a cleanup runs

void sysv_registry_fork_child();
void sysv_sig_handler(int sig, void* dummy_arg, a_bool chained, a_bool chaining, a_bool cleanup, void* siginfo,
                      void* context);
