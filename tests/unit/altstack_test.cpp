// altstack_test.cpp: which threads have an alternate signal stack of the library's.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "corvex/thread.h"
#include "utils/unix/unixaltstack.h"

namespace {

stack_t seen, own;
bool a_sanitizers;  // every thread has a stack already, which the address sanitizer unmaps in the end

// What is in force in a thread of the layer; that thread then brings its own or ends by a jump.
void* stack_of_thread(bool brings_own)
{
    static char bytes[65536];
    own = {brings_own ? bytes : nullptr, 0, sizeof bytes};
    const auto body = [](void*) {
        sigaltstack(nullptr, &seen);
        if (own.ss_sp == nullptr)
            OS_End_Thread();
        sigaltstack(&own, nullptr);
        unix_give_signal_stack();
        sigaltstack(nullptr, &own);
        if (a_sanitizers)
            sigaltstack(&seen, nullptr);
    };
    OS_WaitOnThreadTermination(OS_Begin_Thread_Attachable(body, nullptr, 0, nullptr, nullptr, TRUE));
    EXPECT_EQ(own.ss_sp, brings_own ? bytes : nullptr);
    return seen.ss_sp;
}

}  // namespace

TEST(SignalStacks, AreGivenWhereWantedAndKeptForTheNextThread)
{
    OS_Init();
    void* const before = stack_of_thread(false);
    a_sanitizers = before != nullptr;
    unix_want_signal_stacks(true);
    void* const given = stack_of_thread(true);
    for (const bool brings_own : {false, true, false})
        EXPECT_EQ(stack_of_thread(brings_own), given);
    EXPECT_TRUE(a_sanitizers || write(STDERR_FILENO, static_cast<char*>(given) - 1, 1) < 0) << "no guard page";
    unix_release_signal_stacks();
    EXPECT_EQ(stack_of_thread(false), before) << "not wanted";
    OS_Fini();
}
