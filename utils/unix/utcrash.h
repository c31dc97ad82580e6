// utcrash.h: what the handler does for a signal that ends the process: the record and the report, and a chain that
// comes to its end. Signal-safe: all of it, but what says otherwise.
#pragma once

#include "utils/unix/utonsig.h"

// Reads the settings. Not signal-safe: it changes what the handler reads.
void ut_crash_configure();

// How long a second crashing thread waits for the first: longer than the first may take.
int ut_crash_patience_ms();

// Runs the chain for a signal that ends the process. With neither reports nor hooks nor a limit it does no more beside
// than keep the record.
void ut_crash_run(const an_onsig_call& call);
