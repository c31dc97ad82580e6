// utonsig.h: the part of the on-signal chain that only the library's own handler uses.
#ifndef UNIX_UTONSIG_H
#define UNIX_UTONSIG_H

#include "corvex/onsig.h"

// Set for ever by the handler just before it runs the chain with cleanup true.
extern int will_do_cleanup;

#endif
