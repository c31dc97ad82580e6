// semaphore_test.cpp: binary semaphores: they do not count, wake one waiter a signal, end waits in time, and lose neither a
// signal nor a value stored before one.
#include "corvex/ptsem.h"

#include <sys/time.h>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct a_sem {
    explicit a_sem(unsigned initial = 0) { EXPECT_EQ(ut_pthread_open_semaphore(&sem, initial), 0u); }
    ~a_sem() { ut_pthread_close_semaphore(&sem); }
    bool wait_ms(unsigned ms) { return ut_pthread_waiton_semaphore_timed(&sem, ms) == TRUE; }
    a_ut_pthread_semaphore sem;
};

}  // namespace

TEST(Semaphore, KeepsOneSignalAndConsumesIt)
{
    a_sem sem;
    EXPECT_FALSE(sem.wait_ms(0)) << "opened unset";
    EXPECT_EQ(ut_pthread_signal_semaphore(&sem.sem), 1u);
    EXPECT_EQ(ut_pthread_signal_semaphore(&sem.sem), 1u);
    EXPECT_EQ(ut_pthread_test_semaphore(&sem.sem), 1u);
    EXPECT_EQ(ut_pthread_waiton_semaphore(&sem.sem), 1u);
    EXPECT_EQ(ut_pthread_test_semaphore(&sem.sem), 0u);
    EXPECT_FALSE(sem.wait_ms(1)) << "two signals are one";
    ut_pthread_signal_semaphore(&sem.sem);
    EXPECT_EQ(ut_pthread_reset_semaphore(&sem.sem), 1u);
    EXPECT_FALSE(sem.wait_ms(0)) << "a reset drops the signal";
    a_sem set(5);
    EXPECT_EQ(set.sem.set, 1u) << "only zero or not counts";
    EXPECT_TRUE(set.wait_ms(0));
    ut_pthread_signal_semaphore(&set.sem);
    ut_pthread_close_semaphore(&set.sem);
    EXPECT_EQ(set.sem.set, 0u);
    EXPECT_EQ(set.sem.cv.p_cond, nullptr);
    EXPECT_EQ(set.sem.mutex.p_mutex, nullptr);
}

TEST(Semaphore, TimedWaitEndsWhenItsTimeIsOver)
{
    a_sem sem;
    struct timeval before, after;
    gettimeofday(&before, nullptr);
    EXPECT_FALSE(sem.wait_ms(120));
    gettimeofday(&after, nullptr);
    const long us = (after.tv_sec - before.tv_sec) * 1000000 + after.tv_usec - before.tv_usec;
    EXPECT_GE(us, 120000);
    EXPECT_LT(us, 5000000) << "a carry into the seconds went wrong";
}

TEST(Semaphore, WakesOneOfManyWaitersASignal)
{
    constexpr int waiters = 12;
    constexpr int signals = 400;
    a_sem sem, taken;
    std::atomic<int> woken{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < waiters; i++)
        threads.emplace_back([&] {
            while (ut_pthread_waiton_semaphore(&sem.sem) && !stop) {
                woken++;
                ut_pthread_signal_semaphore(&taken.sem);
            }
            ut_pthread_signal_semaphore(&sem.sem);  // the next one ends too
        });
    for (int i = 0; i < signals; i++) {
        ut_pthread_signal_semaphore(&sem.sem);
        ASSERT_TRUE(taken.wait_ms(20000)) << "signal " << i << " woke nobody";
        ASSERT_EQ(woken.load(), i + 1);
    }
    stop = true;
    ut_pthread_signal_semaphore(&sem.sem);
    for (std::thread& thread : threads)
        thread.join();
}

// The waker stores a value and signals, twice in quick succession; whatever the flag was then, the waiter ends with the
// last value. Plain accesses in the place of the semaphore's read-modify-writes fail here within a second.
TEST(Semaphore, LosesNoValueStoredBeforeASignal)
{
    const long rounds = 200000;
    a_sem sem, done;
    std::atomic<long> value{0};  // relaxed: the semaphore alone orders it
    std::thread waiter([&] {
        for (long last = 0; last < 2 * rounds;) {
            ut_pthread_waiton_semaphore(&sem.sem);
            last = value.load(std::memory_order_relaxed);
            if (last % 2 == 0)
                ut_pthread_signal_semaphore(&done.sem);
        }
    });
    bool stuck = false;
    for (long i = 1; i <= rounds && !stuck; i++) {
        value.store(2 * i - 1, std::memory_order_relaxed);
        ut_pthread_signal_semaphore(&sem.sem);
        value.store(2 * i, std::memory_order_relaxed);
        ut_pthread_signal_semaphore(&sem.sem);
        stuck = !done.wait_ms(20000);
        EXPECT_FALSE(stuck) << "the second value of round " << i << " was lost";
    }
    value = 2 * rounds;
    ut_pthread_signal_semaphore(&sem.sem);
    waiter.join();
}
