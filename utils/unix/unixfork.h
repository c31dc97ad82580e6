// unixfork.h: what forks mean for the library's own state: which process it is made up for, and how threads that are
// counted for a while are forgotten in a child.
//
// A forked child's locks, lists and counts are its own once its fork handlers have run. Before that, and for ever in a
// child that runs none (vfork, which shares its parent's memory, and _Fork), they are its parent's.
#ifndef UNIX_UNIXFORK_H
#define UNIX_UNIXFORK_H

#include "corvex/types.h"

bool unix_is_home_process();

// The last step of the fork handlers; the load sequence takes it too, first of all.
void unix_make_home_process();

// How many forks lie behind this process since the library was loaded.
uint32 unix_fork_count();

// One more in a count of threads, for a scope; sequentially consistent with those who look at the count. The owner of the
// count sets it to 0 in a forked child: who was counted before the fork, and goes on in the child because a signal
// handler forked, must not count down there.
class a_counted {
public:
    // Signal-safe.
    explicit a_counted(int32& of) : count(of), forks(unix_fork_count())
    {
        __atomic_add_fetch(&count, 1, __ATOMIC_SEQ_CST);
    }
    // Signal-safe.
    ~a_counted()
    {
        if (forks == unix_fork_count())
            __atomic_sub_fetch(&count, 1, __ATOMIC_SEQ_CST);
    }
    a_counted(const a_counted&) = delete;
    a_counted& operator=(const a_counted&) = delete;

private:
    int32& count;
    uint32 forks;
};

#endif
