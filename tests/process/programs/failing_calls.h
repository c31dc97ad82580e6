// failing_calls.h: stand-ins for the allocator that count the blocks given out and let one call fail.
#ifndef PROGRAMS_FAILING_CALLS_H
#define PROGRAMS_FAILING_CALLS_H

#include <errno.h>
#include <stdio.h>
#include <unistd.h>

static long live_blocks = 0;  // changed atomically: threads allocate
static long fail_in = 0;      // the call that fails from now on; 0: none

static bool fails()
{
    errno = ENOMEM;
    return __atomic_load_n(&fail_in, __ATOMIC_RELAXED) > 0 && __atomic_sub_fetch(&fail_in, 1, __ATOMIC_RELAXED) == 0;
}

// Ends the program with what is not good after the k-th call failed.
[[maybe_unused]] static void check(bool good, const char* what, long k)
{
    if (!good) {
        dprintf(STDOUT_FILENO, "%s (failing call %ld)\n", what, k);
        _exit(1);
    }
}

static void* counted(void* block)
{
    __atomic_add_fetch(&live_blocks, block != nullptr, __ATOMIC_RELAXED);
    return block;
}

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t n, size_t size);
extern "C" void __libc_free(void* block);
extern "C" void* malloc(size_t size) { return counted(fails() ? nullptr : __libc_malloc(size)); }
extern "C" void* calloc(size_t n, size_t size) { return counted(fails() ? nullptr : __libc_calloc(n, size)); }
extern "C" void free(void* block)
{
    __atomic_sub_fetch(&live_blocks, block != nullptr, __ATOMIC_RELAXED);
    __libc_free(block);
}

#endif
