/* types.h: the integer and boolean types of the whole interface, for C99 and C++11.
 * Invariant: the widths below are part of the binary interface and never change. */
#pragma once

#include <stddef.h>
#include <stdint.h>

/* The interface's version, as one number to compare with: 160000 is 16.0.0. */
#define CORVEX_VERSION_MAJOR 16
#define CORVEX_VERSION_MINOR 0
#define CORVEX_VERSION_PATCH 0
#define CORVEX_VERSION       (CORVEX_VERSION_MAJOR * 10000 + CORVEX_VERSION_MINOR * 100 + CORVEX_VERSION_PATCH)

#ifdef __cplusplus
#define CORVEX_C_BEGIN           extern "C" {
#define CORVEX_C_END             }
#define CORVEX_LAYOUT(condition) static_assert(condition, "the layout is part of the binary interface")
#else
#define CORVEX_C_BEGIN
#define CORVEX_C_END
#define CORVEX_LAYOUT(condition) __extension__ _Static_assert(condition, "the layout is part of the binary interface")
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
