// unsafe_calls.h: stand-ins for malloc, stdio, local time, the loader's list and the pthread locks, which end the
// process while in_handler is set. They see what the program, the library, libgcc and libstdc++ call, and whoever
// allocates; not the C library's own locks and streams, which it reaches directly. Where a sanitizer has its own there
// are none.
#ifndef PROGRAMS_UNSAFE_CALLS_H
#define PROGRAMS_UNSAFE_CALLS_H

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

extern "C" void* __libc_malloc(size_t size);
static thread_local bool in_handler = false;

#if !defined __SANITIZE_ADDRESS__ && !defined __SANITIZE_THREAD__

// Not by abort, which the handler for crashes would take for a callback's.
static void check(const char* name)
{
    if (!in_handler)
        return;
    (void)!write(STDERR_FILENO, name, strlen(name));
    (void)!write(STDERR_FILENO, " in a handler\n", 14);
    _exit(1);
}

#define STAND_IN(type, name, parms, args)                                                                              \
    extern "C" type name parms                                                                                         \
    {                                                                                                                  \
        check(#name);                                                                                                  \
        static const auto next = reinterpret_cast<type(*) parms>(dlsym(RTLD_NEXT, #name));                             \
        return next args;                                                                                              \
    }

// The stand-ins bear fewer attributes than the declarations that they shadow; clang has no such warning.
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmissing-attributes"
#endif
STAND_IN(int, fflush, (FILE * f), (f))
STAND_IN(size_t, fwrite, (const void* p, size_t size, size_t n, FILE* f), (p, size, n, f))
STAND_IN(int, fputs, (const char* s, FILE* f), (s, f))
STAND_IN(int, vfprintf, (FILE * f, const char* format, va_list list), (f, format, list))
STAND_IN(struct tm*, localtime_r, (const time_t* t, struct tm* local) noexcept, (t, local))
STAND_IN(int, dl_iterate_phdr, (int (*call)(dl_phdr_info*, size_t, void*), void* arg), (call, arg))
STAND_IN(int, pthread_mutex_lock, (pthread_mutex_t * mutex) noexcept, (mutex))
STAND_IN(int, pthread_mutex_timedlock, (pthread_mutex_t * mutex, const timespec* end) noexcept, (mutex, end))

extern "C" void* __libc_calloc(size_t n, size_t size);
extern "C" void* __libc_realloc(void* block, size_t size);
extern "C" void __libc_free(void* block);
extern "C" void* malloc(size_t size) { return check("malloc"), __libc_malloc(size); }
extern "C" void* calloc(size_t n, size_t size) { return check("calloc"), __libc_calloc(n, size); }
extern "C" void* realloc(void* at, size_t size) { return check("realloc"), __libc_realloc(at, size); }
extern "C" void free(void* block) { check("free"), __libc_free(block); }

#endif
#endif
