// threads.h: what is measured of a recursive mutex, a flag and a thread, the same for the layer and all its peers: of
// any class with lock and unlock, with signal and wait, with start and join.
#ifndef BENCH_THREADS_H
#define BENCH_THREADS_H

#include <benchmark/benchmark.h>

// ---- the recursive mutex ----

template <class a_kind>
void take(benchmark::State& state)
{
    a_kind mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
}

template <class a_kind>
void enter_again(benchmark::State& state)
{
    a_kind mutex;
    mutex.lock();
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
    mutex.unlock();
}

// ---- the flag: a binary semaphore ----

// As one writes it by hand under a mutex and a condition variable. A monitor is the two: lock, unlock, notify, await.
template <class a_monitor>
class a_flag {
public:
    void signal()
    {
        monitor.lock();
        set = true;
        monitor.notify();
        monitor.unlock();
    }
    void wait()
    {
        monitor.lock();
        while (!set)
            monitor.await();
        set = false;
        monitor.unlock();
    }

private:
    a_monitor monitor;
    bool set = false;
};

template <class a_kind>
void signal_and_wait(benchmark::State& state)
{
    a_kind flag;
    for (auto _ : state) {
        flag.signal();
        flag.wait();
    }
}

// ---- two threads ----

// A thread's body behind the signature that most start with.
template <void (*body)(void*)>
void* run_to_null(void* arg)
{
    body(arg);
    return nullptr;
}

// Whether the two meet awake is chance: many short runs, of which the report takes the median.
inline void woken_threads(benchmark::internal::Benchmark* benchmark)
{
    benchmark->UseRealTime()->Repetitions(41)->MinTime(0.015);
}

// Two flags, one for each way.
template <class a_kind>
struct a_partner {
    a_kind asked;
    a_kind answered;
    bool more = true;
};

template <class a_kind>
void answer(void* arg)
{
    auto& partner = *static_cast<a_partner<a_kind>*>(arg);
    for (;;) {
        partner.asked.wait();
        if (!partner.more)
            return;
        partner.answered.signal();
    }
}

// One iteration is there and back.
template <class a_kind, class a_thread>
void ping_pong(benchmark::State& state)
{
    a_partner<a_kind> partner;
    a_thread thread;
    if (!thread.template start<answer<a_kind>>(&partner)) {
        state.SkipWithError("no thread");
        return;
    }
    for (auto _ : state) {
        partner.asked.signal();
        partner.answered.wait();
    }
    partner.more = false;
    partner.asked.signal();
    thread.join();
}

template <class a_kind>
void say_started(void* flag)
{
    static_cast<a_kind*>(flag)->signal();
}

// The thread says that it runs, and is joined.
template <class a_kind, class a_thread>
void start_and_join(benchmark::State& state)
{
    for (auto _ : state) {
        a_kind started;
        a_thread thread;
        if (!thread.template start<say_started<a_kind>>(&started)) {
            state.SkipWithError("no thread");
            return;
        }
        started.wait();
        thread.join();
    }
}

#endif
