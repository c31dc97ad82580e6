// history.h: the history as the benchmarks use it: started again with other options, recording the payload, and proving
// afterwards that it did record.
#ifndef BENCH_HISTORY_H
#define BENCH_HISTORY_H

#include <benchmark/benchmark.h>

#include "bench/payload.h"
#include "corvex/hist.h"

// Shuts the history down and starts it with these options, which must name f, k and q (the others keep their values).
void restart_history(const char* options, const char* slots = "dense", const char* ext = "");

// The ways of recording that are measured, as set-up functions of benchmarks.
inline void shared_queue_copy(const benchmark::State&) { restart_history("f+,k-,q-"); }
inline void shared_queue_copy_stats(const benchmark::State&) { restart_history("f+,k+,q-"); }
inline void shared_queue_pointer(const benchmark::State&) { restart_history("f-,k-,q-"); }
inline void own_queue_copy(const benchmark::State&) { restart_history("f+,k-,q8"); }
inline void own_queue_pointer(const benchmark::State&) { restart_history("f-,k-,q8"); }
inline void shared_queue_copy_tsc(const benchmark::State&) { restart_history("f+,k-,q-", "dense", "tsc"); }
inline void own_queue_copy_tsc(const benchmark::State&) { restart_history("f+,k-,q8", "dense", "tsc"); }
inline void own_queue_pointer_tsc(const benchmark::State&) { restart_history("f-,k-,q8", "dense", "tsc"); }
inline void own_queue_copy_tables(const benchmark::State&) { restart_history("f+,k-,q8", "dense", "tables"); }

// With a history file: on tmpfs, on the disk of /var/tmp, and on tmpfs for the parent alone.
void restart_with_file(const char* options, const char* folder, const char* name);
inline void shared_queue_tmpfs(const benchmark::State&) { restart_with_file("f+,k-,q-", "/dev/shm", "%p"); }
inline void shared_queue_disk(const benchmark::State&) { restart_with_file("f+,k-,q-", "/var/tmp", "%p"); }
inline void own_queue_tmpfs(const benchmark::State&) { restart_with_file("f+,k-,q8", "/dev/shm", "%p"); }
inline void own_queue_disk(const benchmark::State&) { restart_with_file("f+,k-,q8", "/var/tmp", "%p"); }
inline void own_queue_parents_file(const benchmark::State&) { restart_with_file("f+,k-,q8", "/dev/shm", "parent"); }

int64_t dump_lines();  // of a dump taken now

// Fails the benchmark when a dump does not show what its iterations recorded.
void expect_recorded(benchmark::State& state);

// What a call site compiles to, with the payload's file and line in place of its own.
inline void history_event(a_ut_hist_id id = UT_HIST_ID_NONE)
{
    if (ut_hist_is_on())
        ut_hist_add(payload::file, payload::line, nullptr, UT_HIST_CL_EV, id, payload::text, 4, payload::parms[0],
                    payload::parms[1], payload::parms[2], payload::parms[3], nullptr, nullptr, nullptr, nullptr);
}

#endif
