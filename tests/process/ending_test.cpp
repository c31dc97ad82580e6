// ending_test.cpp: whatever ends a process at whichever moment, it does not hang and no kernel semaphore set outlives
// it; a kernel or an allocator that fails leaves nothing behind.
#include <sched.h>

#include "tests/process/run.h"

namespace {

const bool sanitized = CORVEX_SANITIZE[0] != '\0', under_tsan = CORVEX_SANITIZE[0] == 't';
// Without the right to one the machine's own sets must stand still.
const int own_namespace [[maybe_unused]] = unshare(CLONE_NEWIPC);

int kernel_sets()
{
    const std::string list = read_file("/proc/sysvipc/sem");
    return int(std::count(list.begin(), list.end(), '\n'));
}

}  // namespace

TEST(SysvEnding, ByExitOrSignalsAtAnyMomentLeavesNoSet)
{
    const int before = kernel_sets(), signals[] = {SIGTERM, SIGINT, SIGSEGV, SIGABRT};
    unsigned seed = unsigned(getpid());
    const a_scratch_dir dir;
    for (int i = 0; i < (sanitized ? 40 : 120); i++) {
        a_text_list args = {std::to_string(rand_r(&seed) % 20000)};
        // TSan's runtime lets crash signals in while it holds locks of its own, and then hangs.
        for (int n = i % 5 == 4 || under_tsan ? 0 : 1 + rand_r(&seed) % 2; n > 0; n--)
            args.push_back(std::to_string(signals[rand_r(&seed) % 4]));
        const a_run ended =
            run("torture",
                {"UT_HIST=n200l=h.log,a-r-", "UT_HIST_THREAD_SLOT=dense", "MALLOC_PERTURB_=7",
                 i % 3 == 0 ? "TBX_MAX_NSEMS=1" : "TBX_MAX_NSEMS=32", "TSAN_OPTIONS=report_thread_leaks=0",
                 "ASAN_OPTIONS=handle_segv=0:handle_abort=0:detect_leaks=0"},
                args, dir.path);
        bool good = args.size() == 1 ? ended.exited_well() : ended.died_of(SIGABRT);
        if (args.size() == 3)  // the one that comes when the handlers are gone may end the process by its own default
            good = good || ended.died_of(stoi(args[1])) || ended.died_of(stoi(args[2]));
        ASSERT_TRUE(good) << "round " << i << " status " << ended.status << " " << ended.err;
        ASSERT_EQ(kernel_sets(), before) << "round " << i << " signal " << args.back() << " after " << args[0] << " us";
    }
}

TEST(SysvEnding, ByExitInAHandlerThatInterruptedAHolderOfAnyLockLeavesNoSet)
{
    if (sanitized)
        return;  // their own locks are not to be stood in for
    const int before = kernel_sets();
    const a_run result = run("interrupted", {"UT_HIST=q40l=/dev/null,r-", "TBX_MAX_NSEMS=1"});
    EXPECT_TRUE(result.exited_well()) << result.out;
    EXPECT_EQ(kernel_sets(), before);
}

TEST(Crash, AtAnyMomentIsReportedWholeAndDumpedWhole)
{
    if (under_tsan)
        return;  // see above
    const a_run rounds = run(
        "crash_torture", {"ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_abort=0:use_sigaltstack=0:detect_leaks=0"},
        {sanitized ? "40" : "150"});
    EXPECT_TRUE(rounds.exited_well());
    EXPECT_EQ(rounds.out, "");
}

TEST(SysvShortage, LeavesNothingAndNobodyUnusableWhicheverCallFails)
{
    if (sanitized)
        return;  // nor are their allocators
    for (const char* size : {"TBX_MAX_NSEMS=1", "TBX_MAX_NSEMS=2", "TBX_MAX_NSEMS=64"}) {
        const a_run result = run("shortage", {size});
        EXPECT_TRUE(result.exited_well()) << size << "\n" << result.out;
    }
}
