// utmem.h: the library's allocation wrappers. A request for zero bytes yields null; a failed one asks the out-of-memory
// hook once and then yields null, ut_alloc and a resize after a report to the system log. Blocks are plain system
// blocks. Thread-safe as the allocator is; not signal-safe.
#pragma once

#include <stddef.h>

#include "corvex/types.h"

void* ut_malloc(size_t size);
void* uimalloc(size_t size);
void* ut_alloc(size_t size);  // must not fail: reports "Out of memory (ut_alloc)" before it yields null
void* ut_calloc(size_t size);
void* uicalloc(size_t n, size_t size);  // null when the product does not fit
void* ut_memdup(void* old, size_t size);
void* ut_realloc(void* ptr, size_t size);  // on failure the old block stays the caller's
void* uirealloc(void* ptr, size_t size);
void ut_free(void* ptr);
void uifree(void* ptr);
a_bool ut_out_of_memory();  // whether a failed allocation is worth a second attempt
void ut_start_trackmem();
void ut_stop_trackmem();
int ut_trackmem(const char* filename);
void utmem_abort();

extern a_bool g_utmem_aborted;
