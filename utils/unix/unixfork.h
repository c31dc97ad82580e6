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

// A number of threads that are inside something, in one word with the number of forks behind the process: a forked child
// begins with none, and who goes on in it, since a signal handler forked, does not count down there. Sequentially
// consistent with those who look at it.
class a_thread_count {
public:
    // Signal-safe.
    uint32 now() const { return count_in(__atomic_load_n(&word, __ATOMIC_SEQ_CST)); }

    // The forks to leave with.
    // Signal-safe.
    uint32 enter()
    {
        uint64 old = __atomic_load_n(&word, __ATOMIC_RELAXED);
        for (;;) {
            const uint32 forks = unix_fork_count();
            if (change(old, pack(forks, (forks_in(old) == forks ? uint32(old) : 0) + 1)))
                return forks;
        }
    }
    // Signal-safe.
    void leave(uint32 forks)
    {
        uint64 old = __atomic_load_n(&word, __ATOMIC_RELAXED);
        while (forks == unix_fork_count() && !change(old, old - 1))
            continue;
    }

private:
    static uint64 pack(uint32 forks, uint32 count) { return uint64(forks) << 32 | count; }            // Signal-safe.
    static uint32 forks_in(uint64 of) { return uint32(of >> 32); }                                    // Signal-safe.
    static uint32 count_in(uint64 of) { return forks_in(of) == unix_fork_count() ? uint32(of) : 0; }  // Signal-safe.
    // Signal-safe.
    bool change(uint64& from, uint64 to)
    {
        return __atomic_compare_exchange_n(&word, &from, to, false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED);
    }

    uint64 word = 0;
};

// One more in a count, for a scope.
class a_counted {
public:
    explicit a_counted(a_thread_count& of) : count(of), forks(of.enter()) {}  // Signal-safe.
    ~a_counted() { count.leave(forks); }                                      // Signal-safe.
    a_counted(const a_counted&) = delete;
    a_counted& operator=(const a_counted&) = delete;

private:
    a_thread_count& count;
    uint32 forks;
};

#endif
