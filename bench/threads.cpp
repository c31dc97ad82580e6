// threads.cpp: the thread layer beside what it stands on: its recursive mutex, its semaphore, two threads that wake
// each other, and starting and joining one, with a signal stack too.
#include "bench/threads.h"

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>

#include "corvex/onsig.h"
#include "corvex/ptsem.h"
#include "corvex/thread.h"

namespace {

// ---- by hand ----

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

class a_hand_monitor {
public:
    void lock() { pthread_mutex_lock(&mutex); }
    void unlock() { pthread_mutex_unlock(&mutex); }
    void notify() { pthread_cond_signal(&changed); }
    void await() { pthread_cond_wait(&changed, &mutex); }

private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
};
using a_hand_flag = a_flag<a_hand_monitor>;

class a_hand_thread {
public:
    template <void (*body)(void*)>
    bool start(void* arg)
    {
        return pthread_create(&id, nullptr, run_to_null<body>, arg) == 0;
    }
    void join() { pthread_join(id, nullptr); }

private:
    pthread_t id;
};

BENCHMARK(take<a_pthread_mutex>)->Name("recursive/pthread");
BENCHMARK(enter_again<a_pthread_mutex>)->Name("reentry/pthread");
BENCHMARK(signal_and_wait<a_hand_flag>)->Name("semaphore/hand");
BENCHMARK(ping_pong<a_hand_flag, a_hand_thread>)->Name("park/two/hand")->Apply(woken_threads);
BENCHMARK(start_and_join<a_hand_flag, a_hand_thread>)->Name("start/two/hand")->Apply(woken_threads);

// ---- the layer ----

class a_layer_mutex {
public:
    a_layer_mutex() { OS_MutexInit(&mutex); }
    ~a_layer_mutex() { OS_MutexFini(&mutex); }
    void lock() { OS_MutexGet(&mutex); }
    void unlock() { OS_MutexGive(&mutex); }

private:
    a_mutex mutex;
};
BENCHMARK(take<a_layer_mutex>)->Name("recursive/layer");
BENCHMARK(enter_again<a_layer_mutex>)->Name("reentry/layer");

class a_layer_semaphore {
public:
    a_layer_semaphore() { ut_pthread_open_semaphore(&sem, 0); }
    ~a_layer_semaphore() { ut_pthread_close_semaphore(&sem); }
    void signal() { ut_pthread_signal_semaphore(&sem); }
    void wait() { ut_pthread_waiton_semaphore(&sem); }

private:
    a_semaphore sem;
};
BENCHMARK(signal_and_wait<a_layer_semaphore>)->Name("semaphore/layer");
BENCHMARK(ping_pong<a_layer_semaphore, a_hand_thread>)->Name("semaphore/two/layer")->Apply(woken_threads);

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

void start_layer(const benchmark::State&) { OS_Init(); }
void end_layer(const benchmark::State&) { OS_Fini(); }

// The partner's wake-ups carry the descriptor to answer to; null ends it.
void answer_parked(void*)
{
    while (void* asker = OS_Wait())
        OS_Wakeup(static_cast<p_os_thread>(asker), nullptr);
}

void ping_pong_parked(benchmark::State& state)
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
BENCHMARK(ping_pong_parked)->Name("park/two/layer")->Apply(woken_threads)->Setup(start_layer)->Teardown(end_layer);

// The layer's own start waits until the thread says that it runs.
void start_and_join_layer(benchmark::State& state)
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
BENCHMARK(start_and_join_layer)->Name("start/two/layer")->Apply(woken_threads)->Setup(start_layer)->Teardown(end_layer);

// Each installation reads the settings anew while only the crash signals are installed: so reports, and with them the
// signal stacks of threads, can be switched off again for the other benchmarks. The five handlers stay.
void report_crashes(const char* destination)
{
    setenv("ZT_INSTALL_SIG_HANDLERS", "crash", 1);
    setenv("ZT_CRASH_REPORT", destination, 1);
    ut_onsig_install_signal_handlers(FALSE);
}

bool threads_have_stacks()
{
    stack_t has = {nullptr, SS_DISABLE, 0};
    const auto look = [](void* found) { sigaltstack(nullptr, static_cast<stack_t*>(found)); };
    OS_WaitOnThreadTermination(OS_Begin_Thread_Attachable(look, nullptr, 0, &has, nullptr, TRUE));
    return (has.ss_flags & SS_DISABLE) == 0;
}

void start_and_join_with_stack(benchmark::State& state)
{
    if (threads_have_stacks())
        start_and_join_layer(state);
    else
        state.SkipWithError("no signal stack: run it without sysv/");
}

void start_reporting_layer(const benchmark::State& state)
{
    start_layer(state);
    report_crashes("stderr");
}

void end_reporting_layer(const benchmark::State& state)
{
    report_crashes("off");
    end_layer(state);
}

BENCHMARK(start_and_join_with_stack)
    ->Name("start/two/stacks")
    ->Apply(woken_threads)
    ->Setup(start_reporting_layer)
    ->Teardown(end_reporting_layer);

}  // namespace
