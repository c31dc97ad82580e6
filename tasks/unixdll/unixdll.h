// unixdll.h: the load and unload entries of the library, which only its own static objects (and the unit tests) call,
// and the print of its version record.
#pragma once

extern int init_fini_call_count_corvex;

void LibInit_corvex();
void LibFini_corvex();

// Its constructor writes the UNAME entry to standard output when VORNE_VERSION_INFO is set, to whatever value.
class dbversion_info {
public:
    dbversion_info();
};
