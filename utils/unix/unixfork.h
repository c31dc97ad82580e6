// unixfork.h: what forks mean for the library's own state: which process it is made up for, and counts of threads
// that are inside something for a while.
//
// A forked child's locks, lists and counts are its own once its fork handlers have run. Before that, and for ever in a
// child that runs none (vfork, which shares its parent's memory, and _Fork), they are its parent's.
#pragma once

#include "corvex/types.h"

bool unix_is_home_process();

// The last step of the fork handlers; the load sequence takes it too, first of all.
void unix_make_home_process();

// How many forks lie behind this process since the library was loaded.
uint32 unix_fork_count();

// Whether each of these forks was made by a process with one thread: no lock of the C library is held then by a thread
// which this process does not have, but one may be by what a signal handler that forked had interrupted.
bool unix_forked_alone();

// A number of threads which are inside something. Sequentially consistent with those who look at it. A forked child
// begins with none: its fork step says so for each count. Signal-safe, as is a_counted.
class a_thread_count {
public:
    uint32 now() const { return __atomic_load_n(&count, __ATOMIC_SEQ_CST); }
    void enter() { __atomic_add_fetch(&count, 1u, __ATOMIC_SEQ_CST); }
    void leave() { __atomic_sub_fetch(&count, 1u, __ATOMIC_SEQ_CST); }
    void fork_child() { __atomic_store_n(&count, 0u, __ATOMIC_SEQ_CST); }

private:
    uint32 count = 0;
};

// One more in a count, for a scope.
class a_counted {
public:
    explicit a_counted(a_thread_count& of) : count(of) { count.enter(); }
    ~a_counted() { count.leave(); }
    a_counted& operator=(a_counted&&) = delete;  // nor copies

private:
    a_thread_count& count;
};
