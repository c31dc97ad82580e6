// semaphore_test.cpp: binary semaphores: they do not count, wake one waiter a signal, end waits in time, and lose
// neither a signal nor a value stored before one.
#include "corvex/ptsem.h"

#include <dlfcn.h>
#include <errno.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#ifndef __SANITIZE_THREAD__  // which must see the real wait
namespace {

// While it is set, the clock stands there, and a timed wait notes its deadline and is over.
thread_local struct timeval fixed_now = {0, 0};
thread_local struct timespec deadline;

}  // namespace

extern "C" int gettimeofday(struct timeval* tv, void*) noexcept
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    *tv = fixed_now.tv_sec != 0 ? fixed_now : timeval{now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* abstime)
{
    static const auto real =
        reinterpret_cast<decltype(&pthread_cond_timedwait)>(dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
    if (fixed_now.tv_sec == 0)
        return real(cond, mutex, abstime);
    deadline = *abstime;
    return ETIMEDOUT;
}

TEST(Semaphore, DeadlineCarriesMicrosecondsIntoSeconds)
{
    struct a_case {
        struct timeval now;
        unsigned ms;
        struct timespec deadline;
    };
    for (const a_case& c : {a_case{{10, 600000}, 1500, {12, 100000000}},
                            {{5, 999999}, 999, {6, 998999000}},
                            {{5, 0}, 1000, {6, 0}},
                            {{5, 999000}, 0xFFFFFFFF, {5 + 4294967 + 1, 294000000}}}) {
        a_ut_pthread_semaphore sem;
        ut_pthread_open_semaphore(&sem, 0);
        fixed_now = c.now;
        EXPECT_FALSE(ut_pthread_waiton_semaphore_timed(&sem, c.ms));
        fixed_now = {0, 0};
        EXPECT_EQ(deadline.tv_sec, c.deadline.tv_sec);
        EXPECT_EQ(deadline.tv_nsec, c.deadline.tv_nsec);
        ut_pthread_close_semaphore(&sem);
    }
}
#endif

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
    const auto before = std::chrono::system_clock::now();
    EXPECT_FALSE(sem.wait_ms(120));
    EXPECT_GE(std::chrono::system_clock::now() - before, std::chrono::milliseconds(120));
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
// last value. It spins for the flag, so that the two meet within some ten instructions, at a distance that the rounds
// vary. A signaller that looks by a plain load alone fails here within a second.
TEST(Semaphore, LosesNoValueStoredBeforeASignal)
{
    constexpr long rounds = 200000;
    a_sem sem;
    std::atomic<long> value{0}, done{0};  // relaxed: the semaphore alone orders the value
    std::thread waiter([&] {
        for (long last = 0; last < 2 * rounds;) {
            for (long n = 1; !ut_pthread_test_semaphore(&sem.sem); n++)
                if (n % 10000 == 0)  // the other may be waiting for this processor
                    std::this_thread::yield();
            ut_pthread_waiton_semaphore(&sem.sem);
            last = value.load(std::memory_order_relaxed);
            if (last % 2 == 0)
                done = last;
        }
    });
    bool stuck = false;
    const auto enough = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (long i = 1; i <= rounds && !stuck && std::chrono::steady_clock::now() < enough; i++) {
        value.store(2 * i - 1, std::memory_order_relaxed);
        ut_pthread_signal_semaphore(&sem.sem);
        for (volatile long n = i % 64; n > 0;)
            n = n - 1;
        value.store(2 * i, std::memory_order_relaxed);
        ut_pthread_signal_semaphore(&sem.sem);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (long n = 1; done != 2 * i && !stuck; n++)
            if (n % 10000 == 0) {
                std::this_thread::yield();
                stuck = std::chrono::steady_clock::now() > end;
            }
        EXPECT_FALSE(stuck) << "the second value of round " << i << " was lost";
    }
    value = 2 * rounds;
    ut_pthread_signal_semaphore(&sem.sem);
    waiter.join();
}
