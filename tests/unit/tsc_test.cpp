// tsc_test.cpp: times by the processor's counter, on a simulated counter and clock, and beside the real ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

#include "utils/etc/uthist/hist_tsc.h"

namespace {

constexpr int64_t begin = 1700000000 * int64_t(1000000000);  // nanoseconds since 1970
constexpr double counts_per_ns = 2.5;

// A counter and a clock that a test drives, and an anchor that sees no others.
struct a_world {
    double counter = 1e12, clock = double(0);
    double slew = 0;  // of the clock, parts of 1
    a_hist_anchor anchor{};
    int64_t worst = 0, back = 0, last = 0;

    a_world() { hist_tsc = {nullptr, uint64(double(uint64(1) << hist_tsc_shift) / 1000 / counts_per_ns), 2500000}; }

    void pass(double ns)
    {
        counter += ns * counts_per_ns;
        clock += ns * (1 + slew);
    }
    int64_t now() const { return (begin + int64_t(clock)) / 1000; }

    void event()
    {
        const uint64 counts = uint64(counter) - anchor.counter;
        const a_clock_look look = {uint64(counter) - 100, uint64(counter) + 100, begin + int64_t(clock)};
        const int64_t time = counts < anchor.limit ? hist_tsc_time(anchor, counts) : hist_new_anchor(anchor, look);
        worst = std::max(worst, std::abs(time - now()));
        back = std::max(back, last - time);
        last = time;
    }
    void events(int count, double ns)
    {
        for (int i = 0; i < count; i++, pass(ns))
            event();
    }
};

TEST(CounterClock, FollowsAClockThatIsSlewed)
{
    for (const double slew : {500e-6, -500e-6}) {
        a_world world;
        world.events(100000, 37);
        world.slew = slew;
        world.events(1000000, 37);
        world.slew = -slew;
        world.events(1000000, 37);
        world.events(10000, 3e6);  // each makes an anchor
        EXPECT_LE(world.worst, 2);
        EXPECT_EQ(world.back, 0);
    }
}

TEST(CounterClock, FollowsAStepWithinOneAnchor)
{
    for (const double step : {3600e9, -3600e9, 150e3, -150e3}) {
        a_world world;
        world.events(100000, 37);
        world.clock += step;
        world.events(30000, 37);  // more than a millisecond
        world.worst = 0;
        world.events(300000, 37);
        EXPECT_LE(world.worst, 2) << step;
        EXPECT_EQ(world.back > 0, step < 0) << step;
    }
}

TEST(CounterClock, SeesACounterThatJumpsAndOneOfAnotherRate)
{
    for (const double jump : {1e9, -1e9, -1e12}) {
        a_world world;
        world.events(100000, 37);
        world.counter += jump;
        world.event();
        world.worst = 0;
        world.events(300000, 37);
        EXPECT_LE(world.worst, 2) << jump;
    }
    a_world slower;
    slower.events(100000, 37);
    for (int i = 0; i < 3000000; i++, slower.counter += 37 * 2.0, slower.clock += 37) {
        slower.event();
        slower.worst = i < 200000 ? 0 : slower.worst;
    }
    EXPECT_LE(slower.worst, 2);
}

// Ten million times beside the clock's own, read before and after.
TEST(CounterClock, StaysBesideTheClock)
{
    hist_tsc_start();
    if (hist_tsc.refused != nullptr)  // a machine whose clock is another; the simulated counter is tested everywhere
        GTEST_SKIP() << hist_tsc.refused;
    constexpr int events = std::string_view(CORVEX_SANITIZE).empty() ? 10000000 : 500000;
    a_hist_anchor anchor{};
    int64_t last = 0, last_read = 0, far = 0, worst = 0, backward = 0;
    for (int i = 0; i < events; i++) {
        struct timeval before, after;
        gettimeofday(&before, nullptr);
        struct timeval time;
        hist_tsc_now(anchor, time);
        gettimeofday(&after, nullptr);
        const auto us = [](const struct timeval& t) { return t.tv_sec * hist_tsc_second + t.tv_usec; };
        const int64_t apart = std::max(us(before) - us(time), us(time) - us(after));
        far += apart > 2 ? 1 : 0;
        worst = std::max(worst, apart);
        backward += us(time) < last && us(before) >= last_read ? 1 : 0;  // but with the clock
        last = us(time);
        last_read = us(after);
    }
    EXPECT_EQ(backward, 0);
    EXPECT_LT(far, events / 1000);
    EXPECT_LE(worst, 50);  // 10, and what somebody sets the clock by meanwhile
}

}  // namespace
