// threads_test.cpp: the thread layer of the shared library when memory is short.
#include "tests/process/run.h"

TEST(ThreadShortage, StaysUsableWhicheverAllocationFails)
{
    if (CORVEX_SANITIZE[0] != '\0')
        return;  // the sanitizers' allocators are not to be stood in for
    const a_run result = run("threads_shortage", {});
    EXPECT_EQ(result.out, "nothing is left\n") << result.status;
}
