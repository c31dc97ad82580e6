// utmem.cpp: the allocation wrappers over the system allocator: no header, no tracking, no lock. Not signal-safe.
#include "utils/utmem/utmem.h"

#include <stdlib.h>
#include <string.h>

#include "utils/etc/utfatal.h"

a_bool g_utmem_aborted = FALSE;

namespace {

void* ut_alloc_track(size_t size, bool can_fail)
{
    if (size == 0)
        return nullptr;
    void* block = malloc(size);
    if (block == nullptr && ut_out_of_memory())
        block = malloc(size);
    if (block == nullptr && !can_fail)
        ut_fatal("Out of memory (ut_alloc)");
    return block;
}

}  // namespace

// The library keeps no memory that it could give up.
a_bool ut_out_of_memory() { return FALSE; }

void* ut_malloc(size_t size) { return ut_alloc_track(size, true); }
void* uimalloc(size_t size) { return ut_malloc(size); }
void* ut_alloc(size_t size) { return ut_alloc_track(size, false); }

void* ut_calloc(size_t size)
{
    void* block = ut_alloc_track(size, true);
    if (block != nullptr)
        memset(block, 0, size);
    return block;
}

void* uicalloc(size_t n, size_t size)
{
    size_t bytes;
    return __builtin_mul_overflow(n, size, &bytes) ? nullptr : ut_calloc(bytes);
}

void* ut_memdup(void* old, size_t size)
{
    if (old == nullptr)
        return nullptr;
    void* block = ut_alloc_track(size, true);
    if (block != nullptr)
        memcpy(block, old, size);
    return block;
}

void* ut_realloc(void* ptr, size_t size)
{
    if (ptr == nullptr)
        return ut_malloc(size);
    if (size == 0) {
        ut_free(ptr);
        return nullptr;
    }
    void* block = realloc(ptr, size);
    if (block != nullptr)  // a return: behind "&&", unoptimised, gcc 12 takes the second attempt for a use after free
        return block;
    if (ut_out_of_memory())
        block = realloc(ptr, size);
    if (block == nullptr)
        ut_fatal("Out of memory");
    return block;
}

void* uirealloc(void* ptr, size_t size) { return ut_realloc(ptr, size); }
void ut_free(void* ptr) { free(ptr); }
void uifree(void* ptr) { ut_free(ptr); }

void ut_start_trackmem() {}

void ut_stop_trackmem() {}

int ut_trackmem(const char* /*filename*/) { return 0; }
void utmem_abort() { g_utmem_aborted = TRUE; }
