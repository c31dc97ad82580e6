// hist_handler.cpp: enters the SIGUSR1 handler, also inside an event and inside a dump, and proves that it uses nothing
// unsafe: stand-ins for malloc, stdio, local time and the pthread locks abort while it runs.
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "corvex/corvex.h"

namespace {

bool in_handler = false;
int raise_in_clock = 0, dumps = 0;
struct sigaction library;  // the library's own disposition
char* stack;
constexpr size_t stack_size = 256 * 1024;
constexpr char paint = 0x5C;
size_t deepest = 0;

void check(const char* name)
{
    if (!in_handler)
        return;
    in_handler = false;
    (void)!write(STDERR_FILENO, name, strlen(name));
    (void)!write(STDERR_FILENO, " in a handler\n", 14);
    abort();
}

// Stands before the library's handler and measures how deep that went on the painted stack.
void handler(int sig, siginfo_t* info, void* context)
{
    char here;
    memset(stack, paint, size_t(&here - stack) - 512);
    in_handler = true;
    library.sa_sigaction(sig, info, context);
    in_handler = false;
    size_t untouched = 0;
    while (stack[untouched] == paint)
        untouched++;
    deepest = std::max(deepest, size_t(&here - stack) - untouched);
    dumps++;
}

}  // namespace

#define STAND_IN(type, name, parms, args)                                                                              \
    extern "C" type name parms                                                                                         \
    {                                                                                                                  \
        static const auto next = reinterpret_cast<type(*) parms>(dlsym(RTLD_NEXT, #name));                             \
        check(#name);                                                                                                  \
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
STAND_IN(int, pthread_mutex_lock, (pthread_mutex_t * mutex) noexcept, (mutex))

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t n, size_t size);
extern "C" void* __libc_realloc(void* block, size_t size);
extern "C" void __libc_free(void* block);
extern "C" void* malloc(size_t size) { return check("malloc"), __libc_malloc(size); }
extern "C" void* calloc(size_t n, size_t size) { return check("calloc"), __libc_calloc(n, size); }
extern "C" void* realloc(void* at, size_t size) { return check("realloc"), __libc_realloc(at, size); }
extern "C" void free(void* block) { check("free"), __libc_free(block); }

extern "C" int gettimeofday(struct timeval* tv, void*) noexcept
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    *tv = {now.tv_sec, now.tv_nsec / 1000};
    if (raise_in_clock > 0 && --raise_in_clock == 0)
        raise(SIGUSR1);
    return 0;
}

// With an argument the handler behind the stand-ins is an unsafe one, to show that they notice.
int main(int argc, char**)
{
    const a_ut_hist_id id = ut_hist_id_alloc("handler.c", 1, "work");
    UT_HIST_LOC(at);
    UT_HIST_BEG(&at, id, "begin", 1L);
    UT_HIST_END(&at, id, "end", 2L);
    UT_HIST_DATA(id, "block", "some bytes", 10L);
    sigaction(SIGUSR1, nullptr, &library);
    if (argc > 1)
        library.sa_sigaction = [](int, siginfo_t*, void*) { fputs("unsafe", stderr); };
    stack = static_cast<char*>(mmap(nullptr, stack_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    stack_t alternate = {};
    alternate.ss_sp = stack;
    alternate.ss_size = stack_size;
    sigaltstack(&alternate, nullptr);
    struct sigaction mine = {};
    mine.sa_sigaction = handler;
    mine.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    sigaction(SIGUSR1, &mine, nullptr);

    raise(SIGUSR1);      // opens a pending errout file
    raise_in_clock = 1;  // the queue's lock is held, the record half written
    UT_HIST_EV(id, "interrupted");
    raise_in_clock = 3;  // a dump is running, with all locks
    ut_hist_dump_to_log();
    errno = 4242;
    raise(SIGUSR1);
    printf("errno %s, dumps %d, stack %s\n", errno == 4242 ? "kept" : "changed", dumps,
           deepest < 8192 ? "small" : std::to_string(deepest).c_str());
    return 0;
}
