// crash.cpp: crashes as its first argument says; the further ones are callbacks. Both have their names from `steps`.
// From the crash on the stand-ins are in force.
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unwind.h>

#include <thread>

#include "corvex/corvex.h"
#include "unsafe_calls.h"

namespace {

volatile int* volatile null = nullptr;
void (*volatile no_function)() = nullptr;
a_sysv_semaphore semaphore;
constexpr size_t stack_size = 64 * 1024;
unsigned char* stack;

__attribute__((format(printf, 1, 2))) void say(const char* format, ...)
{
    char text[100];
    va_list args;
    va_start(args, format);
    (void)!write(STDERR_FILENO, text, size_t(vsnprintf(text, sizeof text, format, args)));
    va_end(args);
}

__attribute__((noinline)) void fault()
{
    in_handler = true;
    null[4] = 1;
}
void nowhere() { in_handler = true, no_function(); }
void loader()
{
    dl_iterate_phdr([](dl_phdr_info*, size_t, void*) { return fault(), 0; }, nullptr);
}
void unwinder()
{
    _Unwind_Backtrace([](_Unwind_Context*, void*) { return fault(), _URC_NO_REASON; }, nullptr);
}

// The heap's list of free blocks leads nowhere: the allocator ends with its lock held.
void heap()
{
    void* volatile block = malloc(5000);
    void* volatile behind = malloc(16);
    volatile uint64_t* const links = static_cast<uint64_t*>(block);
    free(block);
    links[0] = 0x4141414141414141;
    links[1] = 0x4141414141414141;
    free(behind);
    in_handler = true;
    block = __libc_malloc(6000);
}

// A frame whose caller the unwinder looks for at address 24.
__attribute__((noinline)) void frame()
{
    in_handler = true;
    asm volatile(
        ".cfi_remember_state\n\t.cfi_def_cfa rax, 16\n\tmov $16, %%eax\n\tmov %%eax, 8\n\t.cfi_restore_state" ::
            : "rax", "memory");
}

void both()
{
    std::thread other(fault);
    fault();
}
void terminate() { in_handler = true, kill(getpid(), SIGTERM), pause(); }
void loop()
{
    for (;;)
        pause();
}
// More frames than any stack has room for.
__attribute__((noinline)) int overflow_frames(int depth)
{
    volatile char frame[1000] = {char(depth)};
    return depth == 0 ? 0 : overflow_frames(depth - 1) + frame[0];
}
void overflow() { overflow_frames(1 << 30); }
void limit_signal() { raise(SIGRTMAX - 1); }
void no_timers()
{
    const rlimit none = {};
    setrlimit(RLIMIT_SIGPENDING, &none);
    loop();
}
void start_history()
{
    setenv("UT_HIST", "f-l=late.log", 1);
    setenv("UT_HIST_EXT", "crash", 1);
    ut_hist_init();
    overflow();
}
void dump() { raise(SIGUSR1); }
void block()
{
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    loop();
}
void fork_and_fault()
{
    in_handler = false;  // the steps of a fork take the library's locks
    fork() == 0 ? fault() : void(wait(nullptr));
    in_handler = true;
}
void flush() { fflush(stderr); }
void say_record()
{
    const a_ut_crash_record& r = ut_crash_record;
    say("record %d %u %d %d %#lx %d %d\n", r.magic == UT_CRASH_MAGIC, r.state, r.sig, r.code, r.address,
        r.pid == getpid() && r.tid == gettid(), r.pc == r.registers[16]);
}
void say_sets() { say("sets %s\n", semctl(semaphore.ident, 0, GETVAL) < 0 ? "removed" : "left"); }
void say_stack()
{
    size_t untouched = 0;
    while (stack[untouched] == 0x5C)
        untouched++;
    say("stack %zu\n", stack_size - untouched);
}

struct a_step {
    const char* name;
    int priority;  // as a callback
    void (*run)();
} const steps[] = {{"fault", 1, fault},
                   {"abort", 2, abort},
                   {"fork", 3, fork_and_fault},
                   {"record", 4, say_record},
                   {"loop", 5, loop},
                   {"block", 6, block},
                   {"sets", 1001, say_sets},
                   {"stack", 32000, say_stack},
                   {"nowhere", 7, nowhere},
                   {"heap", 8, heap},
                   {"loader", 9, loader},
                   {"unwinder", 10, unwinder},
                   {"frame", 11, frame},
                   {"terminate", 12, terminate},
                   {"both", 13, both},
                   {"overflow", 14, overflow},
                   {"limit", 15, limit_signal},
                   {"timers", 16, no_timers},
                   {"late", 17, start_history},
                   {"dump", 18, dump},
                   {"exit", 19, [] { exit(3); }},
                   {"flush", 20, flush}};

const a_step* step(const char* name)
{
    for (const a_step& row : steps)
        if (strcmp(row.name, name) == 0)
            return &row;
    abort();
}

void callback(int, void* row, a_bool, a_bool, a_bool, void*, void*) { static_cast<const a_step*>(row)->run(); }

void set_blocked(int sig, int how)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    pthread_sigmask(how, &set, nullptr);
}

void crash(const a_step* how)
{
    pthread_setname_np(pthread_self(), "worker \t3");
    stack = static_cast<unsigned char*>(malloc(stack_size));
    memset(stack, 0x5C, stack_size);
    const stack_t alternate = {stack, 0, stack_size};
    sigaltstack(&alternate, nullptr);
    set_blocked(SIGTERM, SIG_UNBLOCK);
    UT_HIST_SCOPE(UT_HIST_ID_TEXT("crash"), how->name);
    UT_HIST_DATA(UT_HIST_ID_TEXT("crash"), "block %f", "some bytes", 10L, 2.5);
    how->run();
}

}  // namespace

int main(int argc, char** argv)
{
    alarm(60);
    const rlimit none = {};
    setrlimit(RLIMIT_CORE, &none);
    for (const int sig : {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV})
        signal(sig, SIG_DFL);  // the sanitizers have their own
    sysv_open_semaphore(&semaphore, 1);
    dprintf(STDOUT_FILENO, "%d\n", semaphore.ident);
    for (int i = 2; i < argc; i++)
        ut_onsig_call_add(step(argv[i])->priority, callback, const_cast<a_step*>(step(argv[i])));
    ut_onsig_install_signal_handlers(FALSE);
    set_blocked(SIGTERM, SIG_BLOCK);  // in a join the thread sanitizer would keep it back for ever
    std::thread(crash, step(argv[1])).join();
    return 1;
}
