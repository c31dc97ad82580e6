// unixfork.h: what forks mean for the library's own state: which process it is made up for, and counts of threads
// that are inside something for a while.
//
// A forked child's locks, lists and counts are its own once its fork handlers have run. Before that, and for ever in a
// child that runs none (vfork, which shares its parent's memory, and _Fork), they are its parent's.
//
// A child that a signal handler forked may use everything, but ends by exec or _exit: the code that the handler
// interrupted never goes on in it.
#ifndef UNIX_UNIXFORK_H
#define UNIX_UNIXFORK_H

#include "corvex/types.h"

bool unix_is_home_process();

// The last step of the fork handlers; the load sequence takes it too, first of all.
void unix_make_home_process();

// How many forks lie behind this process since the library was loaded.
uint32 unix_fork_count();

// A number of threads which are inside something. Sequentially consistent with those who look at it. A forked child
// begins with none: its fork step says so for each count.
class a_thread_count {
public:
    uint32 now() const { return __atomic_load_n(&count, __ATOMIC_SEQ_CST); }  // Signal-safe.
    void enter() { __atomic_add_fetch(&count, 1u, __ATOMIC_SEQ_CST); }        // Signal-safe.
    void leave() { __atomic_sub_fetch(&count, 1u, __ATOMIC_SEQ_CST); }        // Signal-safe.
    void fork_child() { __atomic_store_n(&count, 0u, __ATOMIC_SEQ_CST); }     // Signal-safe.

private:
    uint32 count = 0;
};

// One more in a count, for a scope.
class a_counted {
public:
    explicit a_counted(a_thread_count& of) : count(of) { count.enter(); }  // Signal-safe.
    ~a_counted() { count.leave(); }                                        // Signal-safe.
    a_counted(const a_counted&) = delete;
    a_counted& operator=(const a_counted&) = delete;

private:
    a_thread_count& count;
};

#endif
