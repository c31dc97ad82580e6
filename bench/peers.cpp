// peers.cpp: the same event through other recorders that keep the newest ones in memory: a logger's backtrace ring and
// a ring of lines made by snprintf.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <stdio.h>
#include <sys/time.h>

#include <mutex>
#include <vector>

#include "bench/floor.h"
#include "bench/payload.h"

namespace {

// Below the logger's level, so that the event goes into the ring only.
void spdlog_backtrace(benchmark::State& state)
{
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger.set_level(spdlog::level::err);
    logger.enable_backtrace(ring_size);
    const spdlog::source_loc at(payload::file, int(payload::line), "");
    for (auto _ : state)
        logger.log(at, spdlog::level::debug, "{} {} {} {} {} {}", payload::id, payload::text, payload::parms[0],
                   payload::parms[1], payload::parms[2], payload::parms[3]);
}
BENCHMARK(spdlog_backtrace)->Name("event/spdlog");

struct a_line {
    struct timeval time;
    char text[128];
};

void snprintf_ring(benchmark::State& state)
{
    std::vector<a_line> ring(ring_size);
    std::mutex mutex;
    size_t next = 0;
    for (auto _ : state) {
        const std::lock_guard lock(mutex);
        a_line& line = ring[next];
        gettimeofday(&line.time, nullptr);
        snprintf(line.text, sizeof line.text, "%s:%u %s %s %p %p %p %p", payload::file, payload::line, payload::id,
                 payload::text, payload::parms[0], payload::parms[1], payload::parms[2], payload::parms[3]);
        next = next + 1 == ring_size ? 0 : next + 1;
    }
    benchmark::DoNotOptimize(ring.data());
}
BENCHMARK(snprintf_ring)->Name("event/snprintf");

}  // namespace
