// latency.cpp: single events, timed one by one with the time stamp counter: median and 99.9th percentile, with warm
// caches and with first- and second-level caches swept between events. History and floor take turns, so that both meet
// the same disturbances. The counter's own cost (the median of empty measurements) is subtracted and shown.
#include <benchmark/benchmark.h>
#include <time.h>
#include <x86intrin.h>

#include <algorithm>
#include <vector>

#include "bench/floor.h"
#include "bench/history.h"

namespace {

constexpr size_t swept_bytes = 4 * 1024 * 1024;  // several times the second-level cache

a_hand_ring ring;

double ticks_per_ns()
{
    const auto now_ns = [] {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return double(now.tv_sec) * 1e9 + double(now.tv_nsec);
    };
    const double from_ns = now_ns();
    const uint64 from = __rdtsc();
    while (now_ns() - from_ns < 20e6)
        continue;
    return double(__rdtsc() - from) / (now_ns() - from_ns);
}

template <typename Work>
uint64 ticks_of(Work work)
{
    unsigned cpu;
    _mm_lfence();
    const uint64 from = __rdtsc();
    work();
    const uint64 to = __rdtscp(&cpu);
    _mm_lfence();
    return to - from;
}

uint64 percentile(std::vector<uint64>& samples, double part)
{
    const auto at = samples.begin() + std::ptrdiff_t(double(samples.size() - 1) * part);
    std::nth_element(samples.begin(), at, samples.end());
    return *at;
}

void sweep_caches()
{
    static std::vector<char> swept(swept_bytes);
    for (size_t i = 0; i < swept_bytes; i += cache_line)
        swept[i]++;
    benchmark::ClobberMemory();
}

template <bool cold>
void latency(benchmark::State& state)
{
    constexpr size_t events = cold ? 2000 : 200000;
    const double per_ns = ticks_per_ns();
    std::vector<uint64> empty(events), history(events), floor(events);
    const auto prepare = [] {
        if (cold)
            sweep_caches();
    };
    hand_ring_init(ring, 0, true);
    for (auto _ : state) {
        for (size_t i = 0; i < events; i++) {
            empty[i] = ticks_of([] {});
            prepare();
            history[i] = ticks_of([] { history_event(); });
            prepare();
            floor[i] = ticks_of([] {
                hand_add<true, true>(ring, payload::file_end, payload::line, UT_HIST_CL_EV, payload::id, payload::text,
                                     4, payload::parms[0], payload::parms[1], payload::parms[2], payload::parms[3]);
            });
        }
    }
    const uint64 own = percentile(empty, 0.5);
    const auto ns = [&](std::vector<uint64>& samples, double part) {
        return double(std::max(percentile(samples, part), own) - own) / per_ns;
    };
    state.counters["timer"] = double(own) / per_ns;
    state.counters["history_p50"] = ns(history, 0.5);
    state.counters["history_p999"] = ns(history, 0.999);
    state.counters["floor_p50"] = ns(floor, 0.5);
    state.counters["floor_p999"] = ns(floor, 0.999);
}
BENCHMARK(latency<false>)->Name("latency/warm")->Setup(shared_queue_copy)->Iterations(1);
BENCHMARK(latency<false>)->Name("latency/tmpfs")->Setup(shared_queue_tmpfs)->Iterations(1);
BENCHMARK(latency<false>)->Name("latency/disk")->Setup(shared_queue_disk)->Iterations(1);
BENCHMARK(latency<true>)->Name("latency/cold")->Setup(shared_queue_copy)->Iterations(1);

}  // namespace
