// utcore.h: the library's handler for crash and termination signals, for the load sequence.
#pragma once

#include "corvex/onsig.h"

void ut_onsig_init();
void ut_onsig_fini();
void ut_onsig_remove_signal_handlers();

// Puts back what was in place before every handler that is still the library's, also those of a crash-only
// installation, which a removal leaves: nothing may point into the library once it has left the process.
void ut_onsig_unload();
