// utending.h: what says that the process is ending, by exit, unload or signal, and which thread ends it; and how long
// it may still wait meanwhile. In a forked child nothing ends yet, but for will_do_cleanup, which is for ever. No
// locks. Signal-safe, but for attempts that are not.
#pragma once

#include "corvex/types.h"

// Set for ever by the handler just before it runs the chain with cleanup true.
extern int will_do_cleanup;

// Whether this thread's signal handler ends the process: what the thread was doing will not go on. initial-exec: no
// first touch allocates.
extern constinit __attribute__((tls_model("initial-exec"))) thread_local bool unix_ends_process;

void unix_process_starts();  // a start-up after a shut-down
void unix_process_ends();    // the shut-down of the library begins, or a handler's clean-up
bool unix_process_is_ending();
void unix_thread_ends_process();  // the calling thread's handler begins its clean-up

// How many of the wanted milliseconds a thread may wait for a stream: all of them, unless the process is ending; then
// they are taken off what all its waits for streams share. A negative number gives back what was not waited.
int unix_ending_wait_ms(int wanted);

// Whether this thread shuts the library or the thread layer down, perhaps by an exit in a handler that interrupted the
// holder of a lock: it takes each lock within a second (unix_in_time) or goes on without it, and leaves alone what that
// guards.
extern constinit __attribute__((tls_model("initial-exec"))) thread_local bool unix_shuts_down;

void unix_pause(int ms);      // no cancellation point
int64_t unix_milliseconds();  // of the monotonic clock

// Whether one of the attempts of so many milliseconds succeeds, however seldom the thread runs. For locks, too: the
// thread sanitizer does not know pthread_mutex_clocklock.
template <typename F>
bool unix_in_time(F attempt, int max_ms = 1000)
{
    const int64_t end = unix_milliseconds() + max_ms;
    bool done = attempt();
    for (; !done && unix_milliseconds() < end; done = attempt())
        unix_pause(1);
    return done;
}

// Of two threads whose signals may end the process the second leaves it to the first, whose callbacks must come to
// their end; not for ever, since the first may be stuck.
void unix_leave_it_to_the_first(bool ends, int patience_ms);

// For what ends the process. Before a call that never returns the address sanitizer asks for the bounds of the stack,
// which allocates: it would wait for ever where the signal came in the middle of an allocation.
#define ENDS_THE_PROCESS __attribute__((no_sanitize("address")))

void unix_raise_by_default(int sig);        // its default action, at once
[[noreturn]] void unix_abort_by_default();  // whatever handler there is for SIGABRT

bool unix_aborts_again();  // false for the first abort alone
void unix_ending_fork_child();
