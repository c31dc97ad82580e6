// mutex.cpp: an uncontended lock and unlock of the pooled safe mutex beside the same of a plain one.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include "corvex/ptmutex.h"

namespace {

void safe(benchmark::State& state)
{
    a_ut_safe_pthread_mutex_t mutex;
    ut_safe_pthread_mutex_init(&mutex, nullptr);
    for (auto _ : state) {
        ut_safe_pthread_mutex_lock(&mutex);
        ut_safe_pthread_mutex_unlock(&mutex);
    }
    ut_safe_pthread_mutex_destroy(&mutex);
}
BENCHMARK(safe)->Name("mutex/safe");

void plain(benchmark::State& state)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
}
BENCHMARK(plain)->Name("mutex/pthread");

}  // namespace
