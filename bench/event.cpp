// event.cpp: the cost of one event: every way of recording beside its floor, the clock alone, and the switched-off call
// site beside a branch on a flag.
#include <benchmark/benchmark.h>
#include <sys/time.h>

#include <utility>

#include "bench/floor.h"
#include "bench/history.h"

// Visible to the linker, so that the compiler cannot know its value.
extern int32 bench_flag;
int32 bench_flag = 0;

namespace {

a_hand_ring rings[2];

void history(benchmark::State& state)
{
    for (auto _ : state)
        history_event();
    if (state.thread_index() == 0)
        expect_recorded(state);
}
BENCHMARK(history)->Name("event/shared/copy/history")->Setup(shared_queue_copy);
BENCHMARK(history)->Name("event/shared/pointer/history")->Setup(shared_queue_pointer);
BENCHMARK(history)->Name("event/own/copy/history")->Setup(own_queue_copy);
BENCHMARK(history)->Name("event/own/pointer/history")->Setup(own_queue_pointer);

BENCHMARK(history)->Name("tsc/shared/copy/history")->Setup(shared_queue_copy_tsc);
BENCHMARK(history)->Name("tsc/own/copy/history")->Setup(own_queue_copy_tsc);
BENCHMARK(history)->Name("tsc/own/pointer/history")->Setup(own_queue_pointer_tsc);

// Two threads that fight for a cache line take turns by chance: many short runs, of which the report takes the median.
void two_threads(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Threads(2)->UseRealTime()->Repetitions(9)->MinTime(0.015);
}
BENCHMARK(history)->Name("event/two/shared/history")->Setup(shared_queue_copy)->Apply(two_threads);
BENCHMARK(history)->Name("event/two/own/history")->Setup(own_queue_pointer)->Apply(two_threads);
BENCHMARK(history)->Name("tsc/two/own/history")->Setup(own_queue_pointer_tsc)->Apply(two_threads);

void history_stats(benchmark::State& state)
{
    const a_ut_hist_id id = ut_hist_id_alloc(payload::file, payload::line, payload::id);
    for (auto _ : state)
        history_event(id);
    expect_recorded(state);
}
BENCHMARK(history_stats)->Name("event/shared/stats/history")->Setup(shared_queue_copy_stats);

// A begin and an end, and a plain event, with what each thread does kept beside them and without.
void history_pair(benchmark::State& state)
{
    a_ut_hist_loc at = UT_HIST_LOC_INIT;
    for (auto _ : state) {
        UT_HIST_BEG(&at, UT_HIST_ID_TEXT(payload::id), payload::text, 42L);
        UT_HIST_END(&at, UT_HIST_ID_TEXT(payload::id), payload::text, 42L);
    }
}
// The same of a registered id with statistics, beside two plain events.
void stats_pair(benchmark::State& state)
{
    const a_ut_hist_id id = ut_hist_id_alloc(payload::file, payload::line, payload::id);
    a_ut_hist_loc at = UT_HIST_LOC_INIT;
    for (auto _ : state) {
        UT_HIST_BEG(&at, id, payload::text, 42L);
        UT_HIST_END(&at, id, payload::text, 42L);
    }
}
void plain_pair(benchmark::State& state)
{
    for (auto _ : state) {
        UT_HIST_EV(UT_HIST_ID_NONE, payload::text, 42L);
        UT_HIST_EV(UT_HIST_ID_NONE, payload::text, 42L);
    }
}
BENCHMARK(stats_pair)->Name("pair/stats")->Setup(shared_queue_copy_stats);
BENCHMARK(plain_pair)->Name("pair/plain")->Setup(shared_queue_copy_stats);
BENCHMARK(history_pair)->Name("tables/pair/off")->Setup(own_queue_copy);
BENCHMARK(history_pair)->Name("tables/pair/on")->Setup(own_queue_copy_tables);
BENCHMARK(history)->Name("tables/event/off")->Setup(own_queue_copy);
BENCHMARK(history)->Name("tables/event/on")->Setup(own_queue_copy_tables);

template <bool locked, bool copies>
void hand_event(a_hand_ring& ring)
{
    hand_add<locked, copies>(ring, copies ? payload::file_end : payload::file, payload::line, UT_HIST_CL_EV,
                             payload::id, payload::text, 4, payload::parms[0], payload::parms[1], payload::parms[2],
                             payload::parms[3]);
}

template <bool copies>
void new_rings(const benchmark::State&)
{
    for (uint32 t = 0; t < 2; t++)
        hand_ring_init(rings[t], t, copies);
}

template <bool locked, bool copies>
void hand(benchmark::State& state)
{
    a_hand_ring& ring = rings[locked ? 0 : state.thread_index()];
    for (auto _ : state)
        hand_event<locked, copies>(ring);
}
BENCHMARK(hand<true, true>)->Name("event/shared/copy/floor")->Setup(new_rings<true>);
BENCHMARK(hand<true, false>)->Name("event/shared/pointer/floor")->Setup(new_rings<false>);
BENCHMARK(hand<false, true>)->Name("event/own/copy/floor")->Setup(new_rings<true>);
BENCHMARK(hand<false, false>)->Name("event/own/pointer/floor")->Setup(new_rings<false>);
BENCHMARK(hand<true, true>)->Name("event/two/shared/floor")->Setup(new_rings<true>)->Apply(two_threads);
BENCHMARK(hand<false, false>)->Name("event/two/own/floor")->Setup(new_rings<false>)->Apply(two_threads);

void clock_alone(benchmark::State& state)
{
    struct timeval now;
    for (auto _ : state) {
        gettimeofday(&now, nullptr);
        benchmark::DoNotOptimize(now);
    }
}
BENCHMARK(clock_alone)->Name("event/clock");

// What an event on the shared queue cannot do without: its lock, the clock, the atomic count of events.
void least(benchmark::State& state)
{
    struct timeval now;
    for (auto _ : state) {
        pthread_mutex_lock(&rings[0].mutex);
        gettimeofday(&now, nullptr);
        benchmark::DoNotOptimize(now);
        __atomic_add_fetch(&rings[1].next, 1u, __ATOMIC_RELAXED);
        pthread_mutex_unlock(&rings[0].mutex);
    }
}
BENCHMARK(least)->Name("event/shared/least");

// Sixteen sites per iteration, so that the loop around them does not hide what one costs.
template <typename Site>
[[gnu::always_inline]] inline void sixteen_times(Site site)
{
    [&]<size_t... i>(std::index_sequence<i...>) { ((void(i), site()), ...); }
    (std::make_index_sequence<16>());
}

void events_off(const benchmark::State& state)
{
    shared_queue_copy(state);
    ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
}

void off_history(benchmark::State& state)
{
    for (auto _ : state)
        sixteen_times([] { history_event(); });
}
BENCHMARK(off_history)->Name("off/history")->Setup(events_off);

void off_branch(benchmark::State& state)
{
    for (auto _ : state)
        sixteen_times([] {
            if (__builtin_expect(__atomic_load_n(&bench_flag, __ATOMIC_RELAXED) != 0, 0))
                hand_event<true, true>(rings[0]);
        });
}
BENCHMARK(off_branch)->Name("off/branch");

void off_loop(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::ClobberMemory();
}
BENCHMARK(off_loop)->Name("off/loop");

}  // namespace
