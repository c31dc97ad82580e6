// unixdll.h: the load and unload entries of the library. Nothing but its own static objects (and the unit
// tests) calls them.
#ifndef UNIXDLL_UNIXDLL_H
#define UNIXDLL_UNIXDLL_H

extern int init_fini_call_count_corvex;

void LibInit_corvex();
void LibFini_corvex();

#endif
