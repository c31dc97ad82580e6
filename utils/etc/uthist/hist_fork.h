// hist_fork.h: a forked child's own store, where its parent's is in a file.
#pragma once

// Puts a copy of the parent's store in the place of the shared mapping, with what the parent had recorded; where the
// store is in memory, it is the child's own already. False when memory is short: the mapping is not to be used.
// Signal-safe.
bool hist_fork_child_store();
