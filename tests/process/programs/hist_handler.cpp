// hist_handler.cpp: enters the SIGUSR1 handler, also inside an event and inside a dump, and proves that it uses nothing
// unsafe: the stand-ins are in force while it runs.
#include <errno.h>
#include <signal.h>
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
#include "unsafe_calls.h"

namespace {

int raise_in_clock = 0, dumps = 0;
struct sigaction library;  // the library's own disposition
char* stack;
constexpr size_t stack_size = 256 * 1024;
constexpr char paint = 0x5C;
size_t deepest = 0;

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
        library.sa_sigaction = [](int, siginfo_t*, void*) { fflush(stderr); };
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
