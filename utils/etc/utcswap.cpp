// utcswap.cpp: compare-and-swap (see utcswap.h). Signal-safe: all of it.
#include "utils/etc/utcswap.h"

int CSwap(uint32* target, uint32* expected, uint32 replacement)
{
    return __atomic_compare_exchange_n(target, expected, replacement, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

int CSwap64(uint64* target, uint64* expected, uint64 replacement)
{
    return __atomic_compare_exchange_n(target, expected, replacement, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
