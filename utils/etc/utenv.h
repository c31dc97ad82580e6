// utenv.h: environment lookup, for all of the library. In secure execution (set-uid, set-gid, capabilities) no variable
// is set: else whoever calls the program had files written and limits changed with its rights. Must not run while the
// environment is being changed; signal-safe otherwise.
#pragma once

#include <stddef.h>

// Copies the value into buf (bufsize bytes, at least 1: cut to bufsize - 1 characters, the rest filled with NULs) and
// returns buf; null, and buf untouched, when the variable is not set.
char* ut_getenv(const char* name, char* buf, size_t bufsize);

// The environment's own text, not to be changed or released; null when the variable is not set.
char* ut_getenv2(const char* name);

// A number of seconds, at most max: leading decimal digits; anything else, a minus sign included, reads as 0.
unsigned ut_seconds_of(const char* text, unsigned max);
