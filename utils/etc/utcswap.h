// utcswap.h: compare-and-swap with a full memory barrier. Returns 1 when *target was *expected and is now
// replacement; else 0, and the word found at target stands in *expected. Signal-safe.
#ifndef ETC_UTCSWAP_H
#define ETC_UTCSWAP_H

#include "corvex/types.h"

int CSwap(uint32* target, uint32* expected, uint32 replacement);
int CSwap64(uint64* target, uint64* expected, uint64 replacement);

#endif
