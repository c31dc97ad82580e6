// crash.cpp: crashes as its first argument says, with callbacks as the further ones say (`callbacks`).
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
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

namespace {

volatile int* volatile null = nullptr;
void (*volatile nowhere)() = nullptr;
a_sysv_semaphore semaphore;
constexpr size_t stack_size = 64 * 1024;
unsigned char* stack;

void note(const char* text) { (void)!write(STDERR_FILENO, text, strlen(text)); }

__attribute__((noinline)) void fault() { null[4] = 1; }

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
    block = malloc(6000);
}

void loader()
{
    dl_iterate_phdr([](dl_phdr_info*, size_t, void*) { return fault(), 0; }, nullptr);
}

void unwinder()
{
    _Unwind_Backtrace([](_Unwind_Context*, void*) { return fault(), _URC_NO_REASON; }, nullptr);
}

// A frame whose caller the unwinder looks for at address 24.
__attribute__((noinline)) void frame()
{
    asm volatile(
        ".cfi_remember_state\n\t.cfi_def_cfa rax, 16\n\tmov $16, %%eax\n\tmov %%eax, 8\n\t.cfi_restore_state" ::
            : "rax", "memory");
}

void kill_all() { kill(getpid(), SIGTERM), pause(); }

void both()
{
    std::thread other(fault);
    fault();
}

struct {
    const char* name;
    void (*crash)();
} const ways[] = {{"fault", fault},       {"nowhere", [] { nowhere(); }},
                  {"heap", heap},         {"loader", loader},
                  {"unwinder", unwinder}, {"frame", frame},
                  {"kill", kill_all},     {"both", both}};

#define CALLBACK [](int, void*, a_bool, a_bool, a_bool, void*, void*)

struct {
    const char* name;
    int priority;
    a_sig_handler_func run;
} const callbacks[] = {{"fault", 1, CALLBACK{fault();
}  // namespace
}
, {"abort", 2, CALLBACK{abort();
}
}
, {"fork", 3, CALLBACK{fork() == 0 ? fault() : void(wait(nullptr));
}
}
, {"record", 4, CALLBACK{char text[200];
const a_ut_crash_record& r = ut_crash_record;
snprintf(text, sizeof text, "record %d %d %d %d %#lx %d %d\n", int(r.magic == UT_CRASH_MAGIC), r.state, r.sig, r.code,
         r.address, int(r.pid == getpid() && r.tid == gettid()), int(r.pc == r.registers[16]));
note(text);
}
}
, {"loop", 5, CALLBACK{for (;;) pause();
}
}
, {"block", 6, CALLBACK{sigset_t all;
sigfillset(&all);
sigprocmask(SIG_BLOCK, &all, nullptr);
for (;;)
    pause();
}
}
, {"sets", 1001, CALLBACK{note(semctl(semaphore.ident, 0, GETVAL) < 0 ? "sets removed\n" : "sets left\n");
}
}
, {"stack", 32000, CALLBACK{size_t untouched = 0;
while (stack[untouched] == 0x5C)
    untouched++;
char text[40];
snprintf(text, sizeof text, "stack %zu\n", stack_size - untouched);
note(text);
}
}
,
}
;

void work(void (*crash)())
{
    pthread_setname_np(pthread_self(), "worker \t3");
    stack = static_cast<unsigned char*>(malloc(stack_size));
    memset(stack, 0x5C, stack_size);
    const stack_t alternate = {stack, 0, stack_size};
    sigaltstack(&alternate, nullptr);
    crash();
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
    printf("%d\n", semaphore.ident);
    fflush(stdout);
    for (const auto& row : callbacks)
        for (int i = 2; i < argc; i++)
            if (strcmp(argv[i], row.name) == 0)
                ut_onsig_call_add(row.priority, row.run, nullptr);
    ut_onsig_install_signal_handlers(FALSE);
    for (const auto& row : ways)
        if (strcmp(argv[1], row.name) == 0)
            std::thread(work, row.crash).join();
    return 1;
}
