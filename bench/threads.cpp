// threads.cpp: the thread layer beside what it stands on: its recursive mutex, its semaphore, two threads that wake each
// other, and starting and joining one.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <mutex>

#include "corvex/ptsem.h"
#include "corvex/thread.h"

namespace {

void start_layer(const benchmark::State&) { OS_Init(); }
void end_layer(const benchmark::State&) { OS_Fini(); }

// ---- the recursive mutex: the same operations on each kind ----

class a_layer_mutex {
public:
    a_layer_mutex() { OS_MutexInit(&mutex); }
    ~a_layer_mutex() { OS_MutexFini(&mutex); }
    void lock() { OS_MutexGet(&mutex); }
    void unlock() { OS_MutexGive(&mutex); }

private:
    a_mutex mutex;
};

class a_pthread_mutex {
public:
    a_pthread_mutex()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~a_pthread_mutex() { pthread_mutex_destroy(&mutex); }
    void lock() { pthread_mutex_lock(&mutex); }
    void unlock() { pthread_mutex_unlock(&mutex); }

private:
    pthread_mutex_t mutex;
};

template <class a_kind>
void take(benchmark::State& state)
{
    a_kind mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
}
BENCHMARK(take<a_layer_mutex>)->Name("recursive/layer");
BENCHMARK(take<a_pthread_mutex>)->Name("recursive/pthread");
BENCHMARK(take<std::recursive_mutex>)->Name("recursive/std");

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
BENCHMARK(enter_again<a_layer_mutex>)->Name("reentry/layer");
BENCHMARK(enter_again<a_pthread_mutex>)->Name("reentry/pthread");
BENCHMARK(enter_again<std::recursive_mutex>)->Name("reentry/std");

// ---- the semaphore, and a flag under a mutex and a condition variable, as one writes it by hand ----

class a_hand_flag {
public:
    void signal()
    {
        pthread_mutex_lock(&mutex);
        set = true;
        pthread_cond_signal(&changed);
        pthread_mutex_unlock(&mutex);
    }
    void wait()
    {
        pthread_mutex_lock(&mutex);
        while (!set)
            pthread_cond_wait(&changed, &mutex);
        set = false;
        pthread_mutex_unlock(&mutex);
    }

private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    bool set = false;
};

void semaphore(benchmark::State& state)
{
    a_semaphore sem;
    ut_pthread_open_semaphore(&sem, 0);
    for (auto _ : state) {
        ut_pthread_signal_semaphore(&sem);
        ut_pthread_waiton_semaphore(&sem);
    }
    ut_pthread_close_semaphore(&sem);
}
BENCHMARK(semaphore)->Name("semaphore/layer");

void semaphore_by_hand(benchmark::State& state)
{
    a_hand_flag flag;
    for (auto _ : state) {
        flag.signal();
        flag.wait();
    }
}
BENCHMARK(semaphore_by_hand)->Name("semaphore/hand");

void signal_set(benchmark::State& state)
{
    a_semaphore sem;
    ut_pthread_open_semaphore(&sem, 1);
    for (auto _ : state)
        ut_pthread_signal_semaphore(&sem);
    ut_pthread_close_semaphore(&sem);
}
BENCHMARK(signal_set)->Name("semaphore/set");

void fence(benchmark::State& state)
{
    for (auto _ : state)
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
}
BENCHMARK(fence)->Name("semaphore/fence");

// ---- two threads that wake each other in turn: one iteration is there and back ----

// The partner's wake-ups carry the descriptor to answer to; null ends it.
void answer_parked(void*)
{
    while (void* asker = OS_Wait())
        OS_Wakeup(static_cast<p_os_thread>(asker), nullptr);
}

void ping_pong(benchmark::State& state)
{
    p_os_thread partner = OS_Begin_Thread_Attachable(answer_parked, nullptr, 0, nullptr, nullptr, TRUE);
    if (!partner) {
        state.SkipWithError("no thread");
        return;
    }
    p_os_thread me = OS_Me();
    for (auto _ : state) {
        OS_Wakeup(partner, me);
        OS_Wait();
    }
    OS_Wakeup(partner, nullptr);
    OS_WaitOnThreadTermination(partner);
}

// Two flags, one for each way.
struct a_hand_partner {
    a_hand_flag asked;
    a_hand_flag answered;
    bool more = true;
};

void* answer_by_hand(void* arg)
{
    auto& partner = *static_cast<a_hand_partner*>(arg);
    for (;;) {
        partner.asked.wait();
        if (!partner.more)
            return nullptr;
        partner.answered.signal();
    }
}

void ping_pong_by_hand(benchmark::State& state)
{
    a_hand_partner partner;
    pthread_t id;
    if (pthread_create(&id, nullptr, answer_by_hand, &partner) != 0) {
        state.SkipWithError("no thread");
        return;
    }
    for (auto _ : state) {
        partner.asked.signal();
        partner.answered.wait();
    }
    partner.more = false;
    partner.asked.signal();
    pthread_join(id, nullptr);
}

// Whether the two meet awake is chance: many short runs, of which the report takes the median.
void woken_threads(benchmark::internal::Benchmark* benchmark)
{
    benchmark->UseRealTime()->Repetitions(41)->MinTime(0.015)->Setup(start_layer)->Teardown(end_layer);
}
BENCHMARK(ping_pong)->Name("park/two/layer")->Apply(woken_threads);
BENCHMARK(ping_pong_by_hand)->Name("park/two/hand")->Apply(woken_threads);

// ---- starting a thread, which says that it runs, and joining it ----

void start_and_join(benchmark::State& state)
{
    for (auto _ : state) {
        p_os_thread thread = OS_Begin_Thread_Attachable([](void*) {}, nullptr, 0, nullptr, nullptr, TRUE);
        if (!thread) {
            state.SkipWithError("no thread");
            return;
        }
        OS_WaitOnThreadTermination(thread);
    }
}

void* say_started(void* flag)
{
    static_cast<a_hand_flag*>(flag)->signal();
    return nullptr;
}

void start_and_join_by_hand(benchmark::State& state)
{
    for (auto _ : state) {
        a_hand_flag started;
        pthread_t id;
        if (pthread_create(&id, nullptr, say_started, &started) != 0) {
            state.SkipWithError("no thread");
            return;
        }
        started.wait();
        pthread_join(id, nullptr);
    }
}
BENCHMARK(start_and_join)->Name("start/two/layer")->Apply(woken_threads);
BENCHMARK(start_and_join_by_hand)->Name("start/two/hand")->Apply(woken_threads);

}  // namespace
