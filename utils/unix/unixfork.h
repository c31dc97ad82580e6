// unixfork.h: which process the library's state is made up for.
//
// A forked child's locks, lists and counts are its own once its fork handlers have run. Before that, and for ever in a
// child that runs none (vfork, which shares its parent's memory, and _Fork), they are its parent's.
#ifndef UNIX_UNIXFORK_H
#define UNIX_UNIXFORK_H

bool unix_is_home_process();

// The last step of the fork handlers; the load sequence takes it too, first of all.
void unix_make_home_process();

#endif
