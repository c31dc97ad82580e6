// hist_lock_test.cpp: the lock of rings and timer lists under a crowd, and with a writer that the kernel has put aside.
#include "utils/etc/uthist/hist_lock.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <time.h>

#include <thread>
#include <vector>

namespace {

class HistLock : public testing::Test {
protected:
    HistLock() { ut_safe_pthread_mutex_init(&mutex, nullptr); }
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
    constexpr int writers = 4, rounds = 20000, dumps = 200;
    int inside = 0, entered = 0;  // plain: the lock orders them
    std::vector<std::thread> crowd;
    const auto enter = [&] {
        EXPECT_EQ(0, inside++);
        entered++;
        inside--;
    };
    for (int i = 0; i < writers; i++)
        crowd.emplace_back([&] {
            for (int round = 0; round < rounds; round++) {
                const a_hist_lock lock(mutex, gate);
                enter();
            }
        });
    for (int dump = 0; dump < dumps; dump++) {
        ASSERT_TRUE(lock_within(60000));
        enter();
        hist_unlock_after_dump(mutex, gate);
    }
    for (std::thread& writer : crowd)
        writer.join();
    EXPECT_EQ(writers * rounds + dumps, entered);
}

TEST_F(HistLock, WaitsForAWriterThatWasPutAside)
{
    ASSERT_TRUE(hist_try_gate(gate));
    bool left = false;
    std::vector<std::thread> waiting;
    for (int i = 0; i < 3; i++)
        waiting.emplace_back([&] {
            errno = EDOM;
            const a_hist_lock lock(mutex, gate);
            EXPECT_TRUE(left);
            EXPECT_EQ(EDOM, errno);
        });
    sleep_ms(20);
    left = true;
    hist_open_gate(gate);
    for (std::thread& thread : waiting)
        thread.join();
}

TEST_F(HistLock, IsGivenUpByADumpInTime)
{
    ASSERT_TRUE(hist_try_gate(gate));
    EXPECT_FALSE(lock_within(20));
    hist_open_gate(gate);
    EXPECT_TRUE(lock_within(20)) << "the dump that gave up left nothing behind";
    std::thread([&] { EXPECT_FALSE(lock_within(20)); }).join();
    hist_unlock_after_dump(mutex, gate);
    const a_hist_lock lock(mutex, gate);
}

}  // namespace
