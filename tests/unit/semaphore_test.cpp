// Binary semaphores: they do not count, wake one waiter a signal, end waits in time, and lose neither a signal nor a
// value stored before one.
#include <chrono>

#include "corvex/ptsem.h"
#include "tests/child.h"

namespace {

using a_clock = std::chrono::steady_clock;

struct a_sem {
    explicit a_sem(unsigned initial = 0) { EXPECT_EQ(ut_pthread_open_semaphore(&sem, initial), 0u); }
    ~a_sem() { ut_pthread_close_semaphore(&sem); }
    bool signal() { return ut_pthread_signal_semaphore(&sem) == TRUE; }
    bool wait() { return ut_pthread_waiton_semaphore(&sem) == TRUE; }
    bool wait_ms(unsigned ms) { return ut_pthread_waiton_semaphore_timed(&sem, ms) == TRUE; }
    bool is_set() { return ut_pthread_test_semaphore(&sem) == TRUE; }
    a_ut_pthread_semaphore sem;
};

TEST(Semaphore, KeepsOneSignalAndConsumesIt)
{
    a_sem sem;
    EXPECT_TRUE(sem.signal() && sem.signal() && sem.is_set() && sem.wait());
    EXPECT_FALSE(sem.is_set() || sem.wait_ms(1)) << "two signals are one";
    EXPECT_TRUE(sem.signal() && ut_pthread_reset_semaphore(&sem.sem) == TRUE);
    EXPECT_FALSE(sem.wait_ms(0)) << "a reset drops the signal";
    a_sem set(5);
    EXPECT_TRUE(set.wait() && !set.is_set()) << "only zero or not counts";
}

TEST(Semaphore, TimedWaitEndsWhenItsTimeIsOver)
{
    a_sem sem, unset;
    const std::jthread longest([&] { EXPECT_TRUE(sem.wait_ms(0xFFFFFFFF)) << "over at once"; });
    for (int i = 0; i < 9; i++) {  // their ends lie on both sides of a full second
        const auto before = a_clock::now();
        EXPECT_FALSE(unset.wait_ms(i == 8 ? 1001 : 120));
        EXPECT_GT(a_clock::now() - before, std::chrono::milliseconds(i == 8 ? 999 : 118));
    }
    sem.signal();
}

TEST(Semaphore, WakesOneOfManyWaitersASignal)
{
    a_sem sem, taken;
    std::atomic<int> woken{0};
    std::atomic<bool> stop{false};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 12; i++)
        threads.emplace_back([&] {
            while (sem.wait() && !stop)
                woken++, taken.signal();
            sem.signal();  // the next one ends too
        });
    for (int i = 0; i < 400; i++) {
        sem.signal();
        ASSERT_TRUE(taken.wait_ms(20000)) << "signal " << i << " woke nobody";
        ASSERT_EQ(woken.load(), i + 1);
    }
    stop = true;
    sem.signal();
}

// Two values are stored and signalled at once; the waiter ends with the last. It spins for the flag, so that the two
// meet within some ten instructions. A signaller that looks by a plain load alone fails here within a second.
TEST(Semaphore, LosesNoValueStoredBeforeASignal)
{
    a_sem sem;
    std::atomic<long> value{0}, done{0};  // relaxed: the semaphore alone orders the value
    const auto store_and_signal = [&](long number) {
        value.store(number, std::memory_order_relaxed);
        sem.signal();
    };
    const std::jthread waiter([&] {
        for (long last = 0; last >= 0;) {
            for (long n = 1; !sem.is_set(); n++)
                if (n % 10000 == 0)  // the other may be waiting for this processor
                    std::this_thread::yield();
            sem.wait();
            last = value.load(std::memory_order_relaxed);
            if (last % 2 == 0)
                done = last;
        }
    });
    const auto enough = a_clock::now() + std::chrono::seconds(10);
    for (long i = 2; i <= 2000000 && done == i - 2 && a_clock::now() < enough; i += 2) {
        store_and_signal(i - 1);
        for (volatile long n = i / 2 % 64; n > 0;)
            n = n - 1;
        store_and_signal(i);
        const auto end = a_clock::now() + std::chrono::seconds(20);
        for (long n = 1; done != i && (n % 10000 != 0 || a_clock::now() < end); n++)
            if (n % 10000 == 0)
                std::this_thread::yield();
        EXPECT_EQ(done, i) << "the second value of the round was lost";
    }
    store_and_signal(-1);
}

}  // namespace
