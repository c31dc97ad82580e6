// threads_test.cpp: the thread layer of the shared library when memory is short, and when the process exits under it.
#include "tests/process/run.h"

TEST(ThreadShortage, StaysUsableWhicheverAllocationFails)
{
    if (CORVEX_SANITIZE[0] != '\0')
        return;  // the sanitizers' allocators are not to be stood in for
    const a_run result = run("threads_shortage", {});
    EXPECT_EQ(result.out, "nothing is left\n") << result.status;
}

TEST(ThreadExit, EndsWellUnderThreadsThatWait)
{
    for (int i = 0; i < 10; i++)
        EXPECT_TRUE(run("threads_exit", {"MALLOC_PERTURB_=7", "TSAN_OPTIONS=report_thread_leaks=0"}).exited_well());
}

TEST(ThreadExit, EndsWhateverLockItsHandlerInterruptedAHolderOf)
{
    if (CORVEX_SANITIZE[0] != '\0')
        return;  // the sanitizers' own locks are not to be stood in for
    const a_run result = run("threads_interrupted", {"UT_HIST=q40l=/dev/null,r-"});
    EXPECT_EQ(result.out, "exited at every lock, 0 hung or crashed\n") << result.err;
}
