// utcrash.h: what the handler does for a signal that ends the process: the record, the report, callbacks that may fault
// and have a limit. Settings are read where handlers are installed. Signal-safe: all of it, but what says otherwise.
#pragma once

#include <signal.h>

#include "corvex/crash.h"
#include "utils/unix/utonsig.h"

// Reads ZT_CRASH_REPORT and ZT_CRASH_TIMEOUT. Not signal-safe: it looks at the zone and takes the unwinder's first use.
void ut_crash_configure();

bool ut_crash_reports();  // whether a crash is reported by now

// How long a second crashing thread waits for the first: longer than the first may take.
int ut_crash_patience_ms();

// For each handled signal first: true when this thread's handler is inside ut_crash_run and was sent another one, which
// then does nothing. A fault there does not return: what faulted ends.
bool ut_crash_interrupted(int sig, const siginfo_t* info, const void* context);

// Runs the chain for a signal that ends the process. With neither reports nor hooks nor a limit it does no more beside
// than keep the record.
void ut_crash_run(const an_onsig_call& call);
