// unixaltstack.h: alternate signal stacks, on which a handler also runs when a thread's own stack has overflowed.
//
// A thread gets one only while they are wanted, and only if it has none: one that the program brings stays. Where
// memory is short the thread goes on without. Signal-safe: all of it.
#pragma once

void unix_want_signal_stacks(bool wanted);  // off at first; changes nothing for threads which have one
void unix_give_signal_stack();              // to the calling thread

// At the end of a thread: what it was given is kept for the next one.
void unix_take_signal_stack();

// In a handler that ends the process and runs on such a stack: a handler that interrupts it, because what it calls has
// overflowed that stack, say, runs on another one. Else the kernel would begin it over the frames of the first.
void unix_use_nested_signal_stack();

// When the library leaves the process: unmaps those kept and the calling thread's; other threads' stay mapped.
void unix_release_signal_stacks();
