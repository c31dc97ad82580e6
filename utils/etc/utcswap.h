// utcswap.h: compare-and-swap with a full memory barrier. Returns 1 when *target was *expected and is now
// replacement; else 0, and the word found at target stands in *expected. Signal-safe: all of it.
#pragma once

#include "corvex/types.h"

inline int CSwap(uint32* target, uint32* expected, uint32 replacement)
{
    return __atomic_compare_exchange_n(target, expected, replacement, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

inline int CSwap64(uint64* target, uint64* expected, uint64 replacement)
{
    return __atomic_compare_exchange_n(target, expected, replacement, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
