// lttng.cpp: the same event as an LTTng tracepoint. It counts only while a session records it, which bench/report.py
// sees to; without one the benchmark reports an error instead of the cost of a tracepoint that is off.
#include <benchmark/benchmark.h>

#include "bench/lttng_provider.h"
#include "bench/payload.h"

namespace {

void lttng(benchmark::State& state)
{
    if (!lttng_ust_tracepoint_enabled(corvex_bench, event)) {
        state.SkipWithError("no session records the tracepoint");
        return;
    }
    for (auto _ : state)
        lttng_ust_tracepoint(corvex_bench, event, payload::file, payload::line, payload::id, payload::text,
                             payload::parms[0], payload::parms[1], payload::parms[2], payload::parms[3]);
}
BENCHMARK(lttng)->Name("event/lttng");

}  // namespace
