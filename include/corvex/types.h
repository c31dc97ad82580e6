/* types.h: the integer and boolean types of the whole interface, for C11 and C++20.
 * Invariant: the widths below are part of the binary interface and never change. */
#ifndef CORVEX_TYPES_H
#define CORVEX_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define CORVEX_C_BEGIN           extern "C" {
#define CORVEX_C_END             }
#define CORVEX_LAYOUT(condition) static_assert(condition, "the layout is part of the binary interface")
#else
#define CORVEX_C_BEGIN
#define CORVEX_C_END
#define CORVEX_LAYOUT(condition) _Static_assert(condition, "the layout is part of the binary interface")
#endif

/* Marks what the shared library exports. */
#define CORVEX_API __attribute__((visibility("default")))

typedef uint32_t uint32;
typedef int32_t int32;
typedef uint64_t uint64;
typedef uintptr_t a_ptrint; /* unsigned integer of pointer width */
typedef uint32 a_bool;      /* 0 is false, any other value true */

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

CORVEX_LAYOUT(sizeof(a_ptrint) == 8 && sizeof(void*) == 8);

#endif
