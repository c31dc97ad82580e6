// crowd.cpp: the history with many threads that live and hold their thread slots: an event of another thread, the first
// event of a new one, and an event of one for which no slot is left.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <latch>
#include <memory>
#include <string>
#include <vector>

#include "bench/history.h"

namespace {

// Threads on small stacks. Each runs the body and then stays until the crowd goes.
template <void (*body)()>
class a_crowd {
public:
    explicit a_crowd(size_t size) : all_in(std::ptrdiff_t(size)), threads(size)
    {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setstacksize(&attr, 65536);
        for (pthread_t& thread : threads)
            pthread_create(&thread, &attr, stay, this);
        pthread_attr_destroy(&attr);
        all_in.wait();
    }
    ~a_crowd()
    {
        leave.count_down();
        for (const pthread_t thread : threads)
            pthread_join(thread, nullptr);
    }
    a_crowd(const a_crowd&) = delete;
    a_crowd& operator=(const a_crowd&) = delete;

private:
    static void* stay(void* arg)
    {
        auto& crowd = *static_cast<a_crowd*>(arg);
        body();
        crowd.all_in.count_down();
        crowd.leave.wait();
        return nullptr;
    }

    std::latch all_in;
    std::latch leave{1};
    std::vector<pthread_t> threads;
};

void record_one() { history_event(); }
std::unique_ptr<a_crowd<record_one>> holders;

void holders_come(const benchmark::State& state, const char* slots)
{
    restart_history("f+,k-,q-", slots);
    holders = std::make_unique<a_crowd<record_one>>(size_t(state.range(0)));
}

void slots_for_all(const benchmark::State& state) { holders_come(state, "dense"); }

void slots_for_holders(const benchmark::State& state)
{
    holders_come(state, ("dense:" + std::to_string(state.range(0))).c_str());
}

void holders_go(const benchmark::State&) { holders.reset(); }

void live(benchmark::State& state)
{
    for (auto _ : state)
        history_event();
    expect_recorded(state);
}
BENCHMARK(live)->Name("event/live")->Arg(4)->Arg(1000)->Arg(4000)->Setup(slots_for_all)->Teardown(holders_go);

void lost(benchmark::State& state)
{
    for (auto _ : state)
        history_event();
    if (dump_lines() > state.range(0) + 10)
        state.SkipWithError("the history recorded");
}
BENCHMARK(lost)->Name("event/lost")->Arg(1000)->Setup(slots_for_holders)->Teardown(holders_go);

double event_ns()
{
    struct timespec from, to;
    clock_gettime(CLOCK_MONOTONIC, &from);
    history_event();
    clock_gettime(CLOCK_MONOTONIC, &to);
    return double(to.tv_sec - from.tv_sec) * 1e9 + double(to.tv_nsec - from.tv_nsec);
}

constexpr size_t newcomers = 500;
std::vector<double> beyond_ordinary;
pthread_mutex_t samples_mutex = PTHREAD_MUTEX_INITIALIZER;

// The second event warms up what the thread's own memory costs either way; the third is an ordinary one.
void record_first()
{
    const double first = event_ns();
    event_ns();
    const double ordinary = event_ns();
    pthread_mutex_lock(&samples_mutex);
    beyond_ordinary.push_back(first - ordinary);
    pthread_mutex_unlock(&samples_mutex);
}

void first_event(benchmark::State& state)
{
    beyond_ordinary.clear();
    for (auto _ : state)
        const a_crowd<record_first> crowd(newcomers);
    std::sort(beyond_ordinary.begin(), beyond_ordinary.end());
    state.counters["beyond"] = beyond_ordinary[beyond_ordinary.size() / 2];
    state.counters["beyond_p90"] = beyond_ordinary[beyond_ordinary.size() * 9 / 10];
    expect_recorded(state);
}
BENCHMARK(first_event)->Name("event/first")->Arg(1000)->Iterations(1)->Setup(slots_for_all)->Teardown(holders_go);

}  // namespace
