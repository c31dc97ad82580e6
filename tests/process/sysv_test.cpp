// sysv_test.cpp: no kernel semaphore set outlives its process, whatever ends it, and none is left by a failing kernel.
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "tests/process/run.h"

namespace {

const bool sanitized = std::string(CORVEX_SANITIZE) != "";

int kernel_sets()
{
    const std::string list = read_file("/proc/sysvipc/sem");
    return int(std::count(list.begin(), list.end(), '\n')) - 1;
}

}  // namespace

// Set CORVEX_TORTURE_ROUNDS for more rounds by hand.
TEST(SysvTorture, EndsBySigabrtAndLeavesNoSetWhateverTheMoment)
{
    if (std::string(CORVEX_SANITIZE) == "thread")
        return;  // its runtime lets crash signals in while it holds locks of its own, and then hangs
    const char* wanted = getenv("CORVEX_TORTURE_ROUNDS");
    const int rounds = wanted != nullptr ? atoi(wanted) : sanitized ? 40 : 150;
    unshare(CLONE_NEWIPC);  // without the right to, the machine's own sets must stand still
    const int before = kernel_sets();
    unsigned seed = unsigned(getpid());
    const a_text_list signals = {"15", "2", "11", "6"};
    const a_scratch_dir dir;
    for (int i = 0; i < rounds; i++) {
        const unsigned first = unsigned(rand_r(&seed)) % 4, second = unsigned(rand_r(&seed)) % 8;
        a_text_list args = {std::to_string(unsigned(rand_r(&seed)) % 20000), signals[first]};
        if (second < 4)
            args.push_back(signals[second]);
        const bool exits = i % 5 == 4;
        if (exits)
            args.resize(1);
        const char* size = i % 3 == 0 ? "1" : "32";
        const a_run ended =
            run("sysv_torture",
                {"UT_HIST=n200l=h.log,a-r-", "UT_HIST_THREAD_SLOT=dense", std::string("TBX_MAX_NSEMS=") + size,
                 "ASAN_OPTIONS=handle_segv=0:handle_abort=0:detect_leaks=0",
                 "TSAN_OPTIONS=handle_segv=0:handle_abort=0:report_signal_unsafe=0"},
                args, dir.path);
        // Of two signals the one that comes when the handlers are gone may end the process by its own default.
        const bool by_default =
            args.size() == 3 && (ended.died_of(atoi(args[1].c_str())) || ended.died_of(atoi(args[2].c_str())));
        ASSERT_TRUE(exits ? ended.exited_well() : ended.died_of(SIGABRT) || by_default)
            << "round " << i << " status " << ended.status << " " << ended.err;
        ASSERT_EQ(kernel_sets(), before) << "round " << i << " signal " << args[1] << " after " << args[0] << " us";
    }
}

TEST(SysvShortage, LeavesNothingWhicheverCallFails)
{
    if (sanitized)
        return;  // their allocators are not to be stood in for
    unshare(CLONE_NEWIPC);
    for (const char* size : {"1", "2", "64"})
        EXPECT_NE(run("sysv_shortage", {std::string("TBX_MAX_NSEMS=") + size}).out.find("nothing is left\n"),
                  std::string::npos)
            << size;
}

TEST(SysvShortage, ExitInAHandlerThatInterruptedACloseEndsAndLeavesNoSet)
{
    if (sanitized)
        return;
    unshare(CLONE_NEWIPC);
    const int before = kernel_sets();
    EXPECT_EQ(run("sysv_shortage", {"TBX_MAX_NSEMS=8"}, {"exit"}).status, 0);
    EXPECT_EQ(kernel_sets(), before);
}
