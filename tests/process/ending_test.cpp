// ending_test.cpp: whatever ends a process at whichever moment, it does not hang and no kernel semaphore set outlives it;
// a kernel or an allocator that fails leaves nothing behind.
#include <sched.h>

#include <algorithm>

#include "tests/process/run.h"

namespace {

const std::string sanitizers = CORVEX_SANITIZE;

int kernel_sets()
{
    const std::string list = read_file("/proc/sysvipc/sem");
    return int(std::count(list.begin(), list.end(), '\n'));
}

}  // namespace

// Set CORVEX_TORTURE_ROUNDS for more rounds by hand.
TEST(SysvEnding, ByExitOrSignalsAtAnyMomentLeavesNoSet)
{
    const char* wanted = getenv("CORVEX_TORTURE_ROUNDS");
    const int rounds = wanted != nullptr ? atoi(wanted) : sanitizers != "" ? 40 : 150;
    unshare(CLONE_NEWIPC);  // without the right to, the machine's own sets must stand still
    const int before = kernel_sets();
    unsigned seed = unsigned(getpid());
    const a_scratch_dir dir;
    for (int i = 0; i < rounds; i++) {
        a_text_list args = {std::to_string(rand_r(&seed) % 20000)};
        // TSan's runtime lets crash signals in while it holds locks of its own, and then hangs.
        if (i % 5 != 4 && sanitizers != "thread")
            for (int n = rand_r(&seed) % 2; n >= 0; n--)
                args.push_back(
                    std::to_string(std::array{SIGTERM, SIGINT, SIGSEGV, SIGABRT}[size_t(rand_r(&seed)) % 4]));
        const a_run ended =
            run("torture",
                {"UT_HIST=n200l=h.log,a-r-", "UT_HIST_THREAD_SLOT=dense", "MALLOC_PERTURB_=7",
                 i % 3 == 0 ? "TBX_MAX_NSEMS=1" : "TBX_MAX_NSEMS=32",
                 "ASAN_OPTIONS=handle_segv=0:handle_abort=0:detect_leaks=0", "TSAN_OPTIONS=report_thread_leaks=0"},
                args, dir.path);
        bool good = args.size() == 1 ? ended.exited_well() : ended.died_of(SIGABRT);
        // Of two signals the one that comes when the handlers are gone may end the process by its own default.
        for (size_t n = 1; n < args.size() && args.size() == 3; n++)
            good = good || ended.died_of(stoi(args[n]));
        ASSERT_TRUE(good) << "round " << i << " status " << ended.status << " " << ended.err;
        ASSERT_EQ(kernel_sets(), before) << "round " << i << " signal " << args.back() << " after " << args[0] << " us";
    }
}

TEST(SysvEnding, ByExitInAHandlerThatInterruptedAHolderOfAnyLockLeavesNoSet)
{
    if (sanitizers != "")
        return;  // their own locks are not to be stood in for
    unshare(CLONE_NEWIPC);
    const int before = kernel_sets();
    const a_run result = run("interrupted", {"UT_HIST=q40l=/dev/null,r-", "TBX_MAX_NSEMS=1"});
    EXPECT_EQ(result.out, "exited at every lock and parked, 0 hung or crashed\n") << result.err;
    EXPECT_EQ(kernel_sets(), before);
}

TEST(SysvShortage, LeavesNothingAndNobodyUnusableWhicheverCallFails)
{
    if (sanitizers != "")
        return;  // their allocators are not to be stood in for
    unshare(CLONE_NEWIPC);
    for (const char* size : {"TBX_MAX_NSEMS=1", "TBX_MAX_NSEMS=2", "TBX_MAX_NSEMS=64"}) {
        const a_run result = run("shortage", {size});
        EXPECT_TRUE(result.exited_well()) << size << "\n" << result.out;
    }
}
