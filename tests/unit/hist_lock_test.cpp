// hist_lock_test.cpp: the gate of the shared queue in a crowd, and before those whom it keeps waiting.
#include "utils/etc/uthist/hist_lock.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <time.h>

#include <atomic>
#include <latch>
#include <random>
#include <thread>
#include <vector>

namespace {

class HistLock : public testing::Test {
protected:
    HistLock()
    {
        ut_safe_pthread_mutex_init(&mutex, nullptr);
        hist_lock_start();
    }
    ~HistLock() override { ut_safe_pthread_mutex_destroy(&mutex); }
    HistLock& operator=(HistLock&&) = delete;

    bool lock_within(int ms)
    {
        struct timespec end;
        clock_gettime(CLOCK_REALTIME, &end);
        end.tv_nsec += ms * 1000000L;
        end.tv_sec += end.tv_nsec / 1000000000;
        end.tv_nsec %= 1000000000;
        return hist_lock_for_dump(mutex, gate, end);
    }

    a_critical_sect mutex;
    a_ut_hist_gate gate = {};
};

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

TEST_F(HistLock, LetsInOneOfACrowdOfWritersAndDumps)
{
    constexpr int writers = 4;
    int inside = 0, entered = 0;  // plain: the lock orders them
    std::atomic<int> left = 0;
    std::atomic<bool> ends = false;
    std::latch all(writers + 1);
    std::vector<std::thread> crowd;
    const auto enter = [&] {
        EXPECT_EQ(0, inside++);
        entered++;
        // Now and then for longer than those who wait look.
        for (int i = 0; entered % 1000 == 0 && i < 5000; i++)
            __builtin_ia32_pause();
        inside--;
        left++;
    };
    for (int i = 0; i < writers; i++)
        crowd.emplace_back([&] {
            for (all.arrive_and_wait(); !ends;) {
                const a_hist_lock lock(gate);
                enter();
            }
        });
    all.arrive_and_wait();
    for (int dump = 0; dump < 20; dump++, sleep_ms(5)) {
        EXPECT_TRUE(lock_within(60000));
        enter();
        hist_unlock_after_dump(mutex, gate);
    }
    ends = true;
    for (std::thread& writer : crowd)
        writer.join();
    EXPECT_EQ(left, entered);
}

// The writer opens the gate at about the time when the other goes to sleep, and does nothing more for it.
TEST_F(HistLock, ForgetsNobodyWhoGoesToSleepJustThen)
{
    constexpr int duels = 30000;
    std::atomic<int> begun = 0, passed = 0;
    std::thread other([&] {
        for (int duel = 1; duel <= duels; duel++) {
            while (begun != duel)
                sched_yield();
            errno = EDOM;
            const a_hist_lock lock(gate);
            EXPECT_EQ(EDOM, errno);
            passed = duel;
        }
    });
    std::minstd_rand dice;
    for (int duel = 1; duel <= duels; duel++) {
        while (!hist_try_gate(gate))
            sched_yield();
        begun = duel;
        for (unsigned i = unsigned(dice()) % 600; i > 0; i--)
            __builtin_ia32_pause();
        hist_open_gate(gate);
        const time_t last = time(nullptr) + 10;
        while (passed != duel && time(nullptr) < last)
            sched_yield();
        if (passed != duel) {
            ADD_FAILURE() << "forgotten in duel " << duel;
            hist_wake_at_gate(gate);
        }
    }
    other.join();
    const a_hist_lock lock(gate);
    EXPECT_EQ(0u, gate.wanted) << "and nobody pays for wake-ups that nobody needs";
}

TEST_F(HistLock, WakesAllWhoWaitedForAWriterAlsoBesideADumpThatGaveUp)
{
    ASSERT_TRUE(hist_try_gate(gate));
    bool opened = false;
    std::vector<std::thread> waiting;
    for (int i = 0; i < 5; i++)
        waiting.emplace_back([&] {
            errno = EDOM;
            const a_hist_lock lock(gate);
            EXPECT_TRUE(opened);
            EXPECT_EQ(EDOM, errno);
        });
    sleep_ms(20);
    EXPECT_FALSE(lock_within(20));
    opened = true;
    hist_open_gate(gate);
    for (std::thread& thread : waiting)
        thread.join();
    EXPECT_TRUE(lock_within(20)) << "nobody has left the gate shut or the mutex taken";
    std::thread([&] { EXPECT_FALSE(lock_within(20)); }).join();
    hist_unlock_after_dump(mutex, gate);
}

}  // namespace
