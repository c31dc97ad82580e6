// Forked children: their mark, and the pools in them whatever other threads of the parent were doing.
#include <stdlib.h>

#include <atomic>
#include <thread>

#include "corvex/forkprotection.h"
#include "corvex/ptcondvar.h"
#include "tests/child.h"

namespace {

TEST(ForkProtection, MarksChildrenAndTheirChildrenUntilReset)
{
    const auto fork_and_say = [](const char* who) {
        const pid_t child = fork();
        if (child == 0)
            say("%s %u ", who, UnixForkProtection_IsChild()), _exit(0);
        waitpid(child, nullptr, 0);
    };
    const a_child child = in_child([&] {
        fork_and_say("grandchild");
        UnixForkProtection_Init();
        say("child %u ", UnixForkProtection_IsChild());
        UnixForkProtection_Reset();
        fork_and_say("its-child");
        say("reset %u", UnixForkProtection_IsChild());
    });
    EXPECT_EQ("grandchild 1 child 1 its-child 1 reset 0", child.said);
    EXPECT_EQ(0u, UnixForkProtection_IsChild());
}

void use_pools()
{
    a_ut_safe_pthread_mutex_t mutex;
    a_ut_safe_pthread_cond_t cond;
    if (ut_safe_pthread_mutex_init(&mutex, nullptr) != 0 || ut_safe_pthread_cond_init(&cond, nullptr) != 0)
        abort();
    ut_safe_pthread_mutex_lock(&mutex);
    ut_safe_pthread_mutex_unlock(&mutex);
    ut_safe_pthread_cond_destroy(&cond);
    ut_safe_pthread_mutex_destroy(&mutex);
}

// In the child no other thread exists: none that would give a lock back, and none to wait for behind a condition.
TEST(ForkedChild, FindsThePoolsFreeWhileThreadsOfTheParentUseThemAndWait)
{
    a_ut_safe_pthread_mutex_t mutex;
    a_ut_safe_pthread_cond_t cond;
    ut_safe_pthread_mutex_init(&mutex, nullptr);
    ut_safe_pthread_cond_init(&cond, nullptr);
    std::atomic<int> stage = 0;
    std::thread waiter([&] {
        ut_safe_pthread_mutex_lock(&mutex);
        for (stage = 1; stage < 2;)
            ut_safe_pthread_cond_wait(&cond, &mutex);
        ut_safe_pthread_mutex_unlock(&mutex);
    });
    while (stage == 0)
        std::this_thread::yield();
    ut_safe_pthread_mutex_lock(&mutex);  // held by the waiter until it waits
    EXPECT_EQ(0, in_child([&] { ut_safe_pthread_cond_destroy(&cond); }).status)
        << "the last give-back, which frees the pool";
    ut_safe_pthread_mutex_unlock(&mutex);

    const auto hammer = [&] {
        while (stage < 2)
            use_pools();
    };
#if defined(__SANITIZE_ADDRESS__)
    constexpr int num_forks = 0;  // its allocator's own locks stay held in a child
#else
    constexpr int num_forks = 300;
#endif
    std::thread one(hammer), two(hammer);
    int status = 0;
    for (int i = 0; i < num_forks && status == 0; i++)
        status = in_child(use_pools).status;
    EXPECT_EQ(0, status);
    ut_safe_pthread_mutex_lock(&mutex);
    stage = 2;
    ut_safe_pthread_cond_broadcast(&cond);
    ut_safe_pthread_mutex_unlock(&mutex);
    for (std::thread* thread : {&waiter, &one, &two})
        thread->join();
    ut_safe_pthread_cond_destroy(&cond);
    ut_safe_pthread_mutex_destroy(&mutex);
}

}  // namespace
