// thread_peers.cpp: the recursive mutexes, flags and threads of other libraries, as they come by default: GLib, APR,
// NSPR, libuv, the C library's <threads.h> and the C++ standard library.
#include <apr_general.h>
#include <apr_pools.h>
#include <apr_thread_cond.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>
#include <benchmark/benchmark.h>
#include <glib.h>
#include <prcvar.h>
#include <prlock.h>
#include <prmon.h>
#include <prthread.h>
#include <threads.h>
#include <uv.h>

#include <condition_variable>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>

#include "bench/threads.h"

namespace {

// ---- GLib ----

class a_glib_mutex {
public:
    a_glib_mutex() { g_rec_mutex_init(&mutex); }
    ~a_glib_mutex() { g_rec_mutex_clear(&mutex); }
    void lock() { g_rec_mutex_lock(&mutex); }
    void unlock() { g_rec_mutex_unlock(&mutex); }

private:
    GRecMutex mutex;
};

class a_glib_monitor {
public:
    a_glib_monitor() { g_mutex_init(&mutex), g_cond_init(&changed); }
    ~a_glib_monitor() { g_cond_clear(&changed), g_mutex_clear(&mutex); }
    void lock() { g_mutex_lock(&mutex); }
    void unlock() { g_mutex_unlock(&mutex); }
    void notify() { g_cond_signal(&changed); }
    void await() { g_cond_wait(&changed, &mutex); }

private:
    GMutex mutex;
    GCond changed;
};

class a_glib_thread {
public:
    template <void (*body)(void*)>
    bool start(void* arg)
    {
        return (thread = g_thread_try_new(nullptr, run_to_null<body>, arg, nullptr)) != nullptr;
    }
    void join() { g_thread_join(thread); }

private:
    GThread* thread;
};

// ---- APR: all that it makes lives in a pool ----

class an_apr_pool {
public:
    an_apr_pool() { apr_pool_create(&pool, nullptr); }
    ~an_apr_pool() { apr_pool_destroy(pool); }
    an_apr_pool(const an_apr_pool&) = delete;
    an_apr_pool& operator=(const an_apr_pool&) = delete;

protected:
    apr_pool_t* pool;
};

class an_apr_mutex : an_apr_pool {
public:
    an_apr_mutex() { apr_thread_mutex_create(&mutex, APR_THREAD_MUTEX_NESTED, pool); }
    void lock() { apr_thread_mutex_lock(mutex); }
    void unlock() { apr_thread_mutex_unlock(mutex); }

private:
    apr_thread_mutex_t* mutex;
};

class an_apr_monitor : an_apr_pool {
public:
    an_apr_monitor()
    {
        apr_thread_mutex_create(&mutex, APR_THREAD_MUTEX_DEFAULT, pool);
        apr_thread_cond_create(&changed, pool);
    }
    void lock() { apr_thread_mutex_lock(mutex); }
    void unlock() { apr_thread_mutex_unlock(mutex); }
    void notify() { apr_thread_cond_signal(changed); }
    void await() { apr_thread_cond_wait(changed, mutex); }

private:
    apr_thread_mutex_t* mutex;
    apr_thread_cond_t* changed;
};

class an_apr_thread : an_apr_pool {
public:
    template <void (*body)(void*)>
    bool start(void* arg)
    {
        return apr_thread_create(&thread, nullptr, run<body>, arg, pool) == APR_SUCCESS;
    }
    void join()
    {
        apr_status_t result;
        apr_thread_join(&result, thread);
    }

private:
    template <void (*body)(void*)>
    static void* run(apr_thread_t*, void* arg)
    {
        return run_to_null<body>(arg);
    }
    apr_thread_t* thread;
};

// ---- NSPR ----

class an_nspr_mutex {
public:
    an_nspr_mutex() : monitor(PR_NewMonitor()) {}
    ~an_nspr_mutex() { PR_DestroyMonitor(monitor); }
    an_nspr_mutex(const an_nspr_mutex&) = delete;
    an_nspr_mutex& operator=(const an_nspr_mutex&) = delete;
    void lock() { PR_EnterMonitor(monitor); }
    void unlock() { PR_ExitMonitor(monitor); }

private:
    PRMonitor* monitor;
};

class an_nspr_monitor {
public:
    an_nspr_monitor() : mutex(PR_NewLock()), changed(PR_NewCondVar(mutex)) {}
    ~an_nspr_monitor() { PR_DestroyCondVar(changed), PR_DestroyLock(mutex); }
    an_nspr_monitor(const an_nspr_monitor&) = delete;
    an_nspr_monitor& operator=(const an_nspr_monitor&) = delete;
    void lock() { PR_Lock(mutex); }
    void unlock() { PR_Unlock(mutex); }
    void notify() { PR_NotifyCondVar(changed); }
    void await() { PR_WaitCondVar(changed, PR_INTERVAL_NO_TIMEOUT); }

private:
    PRLock* mutex;
    PRCondVar* changed;
};

class an_nspr_thread {
public:
    template <void (*body)(void*)>
    bool start(void* arg)
    {
        thread =
            PR_CreateThread(PR_USER_THREAD, body, arg, PR_PRIORITY_NORMAL, PR_GLOBAL_THREAD, PR_JOINABLE_THREAD, 0);
        return thread != nullptr;
    }
    void join() { PR_JoinThread(thread); }

private:
    PRThread* thread;
};

// ---- libuv ----

class a_uv_mutex {
public:
    a_uv_mutex() { uv_mutex_init_recursive(&mutex); }
    ~a_uv_mutex() { uv_mutex_destroy(&mutex); }
    void lock() { uv_mutex_lock(&mutex); }
    void unlock() { uv_mutex_unlock(&mutex); }

private:
    uv_mutex_t mutex;
};

class a_uv_monitor {
public:
    a_uv_monitor() { uv_mutex_init(&mutex), uv_cond_init(&changed); }
    ~a_uv_monitor() { uv_cond_destroy(&changed), uv_mutex_destroy(&mutex); }
    void lock() { uv_mutex_lock(&mutex); }
    void unlock() { uv_mutex_unlock(&mutex); }
    void notify() { uv_cond_signal(&changed); }
    void await() { uv_cond_wait(&changed, &mutex); }

private:
    uv_mutex_t mutex;
    uv_cond_t changed;
};

class a_uv_semaphore {
public:
    a_uv_semaphore() { uv_sem_init(&sem, 0); }
    ~a_uv_semaphore() { uv_sem_destroy(&sem); }
    void signal() { uv_sem_post(&sem); }
    void wait() { uv_sem_wait(&sem); }

private:
    uv_sem_t sem;
};

class a_uv_thread {
public:
    template <void (*body)(void*)>
    bool start(void* arg)
    {
        return uv_thread_create(&thread, body, arg) == 0;
    }
    void join() { uv_thread_join(&thread); }

private:
    uv_thread_t thread;
};

// ---- the C library's ----

class a_c11_mutex {
public:
    a_c11_mutex() { mtx_init(&mutex, mtx_recursive); }
    ~a_c11_mutex() { mtx_destroy(&mutex); }
    void lock() { mtx_lock(&mutex); }
    void unlock() { mtx_unlock(&mutex); }

private:
    mtx_t mutex;
};

class a_c11_monitor {
public:
    a_c11_monitor() { mtx_init(&mutex, mtx_plain), cnd_init(&changed); }
    ~a_c11_monitor() { cnd_destroy(&changed), mtx_destroy(&mutex); }
    void lock() { mtx_lock(&mutex); }
    void unlock() { mtx_unlock(&mutex); }
    void notify() { cnd_signal(&changed); }
    void await() { cnd_wait(&changed, &mutex); }

private:
    mtx_t mutex;
    cnd_t changed;
};

class a_c11_thread {
public:
    template <void (*body)(void*)>
    bool start(void* arg)
    {
        return thrd_create(&thread, run<body>, arg) == thrd_success;
    }
    void join() { thrd_join(thread, nullptr); }

private:
    template <void (*body)(void*)>
    static int run(void* arg)
    {
        body(arg);
        return 0;
    }
    thrd_t thread;
};

// ---- the C++ standard library's ----

class a_std_monitor {
public:
    void lock() { mutex.lock(); }
    void unlock() { mutex.unlock(); }
    void notify() { changed.notify_one(); }
    void await()
    {
        std::unique_lock held(mutex, std::adopt_lock);
        changed.wait(held);
        held.release();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
};

class a_std_semaphore {
public:
    void signal() { sem.release(); }
    void wait() { sem.acquire(); }

private:
    std::binary_semaphore sem{0};
};

// It throws when there is no thread, which ends the benchmarks.
class a_std_thread {
public:
    template <void (*body)(void*)>
    bool start(void* arg)
    {
        thread = std::thread(body, arg);
        return true;
    }
    void join() { thread.join(); }

private:
    std::thread thread;
};

// ---- all of them ----

template <class a_flag_kind, class a_thread>
void add_flag(const std::string& name)
{
    using benchmark::RegisterBenchmark;
    RegisterBenchmark(("semaphore/" + name).c_str(), signal_and_wait<a_flag_kind>);
    RegisterBenchmark(("park/two/" + name).c_str(), ping_pong<a_flag_kind, a_thread>)->Apply(woken_threads);
    RegisterBenchmark(("start/two/" + name).c_str(), start_and_join<a_flag_kind, a_thread>)->Apply(woken_threads);
}

template <class a_recursive_mutex, class a_monitor, class a_thread>
void add_peer(const std::string& name)
{
    benchmark::RegisterBenchmark(("recursive/" + name).c_str(), take<a_recursive_mutex>);
    benchmark::RegisterBenchmark(("reentry/" + name).c_str(), enter_again<a_recursive_mutex>);
    add_flag<a_flag<a_monitor>, a_thread>(name);
}

[[maybe_unused]] const bool added = [] {
    apr_initialize();
    add_peer<a_glib_mutex, a_glib_monitor, a_glib_thread>("glib");
    add_peer<an_apr_mutex, an_apr_monitor, an_apr_thread>("apr");
    add_peer<an_nspr_mutex, an_nspr_monitor, an_nspr_thread>("nspr");
    add_peer<a_uv_mutex, a_uv_monitor, a_uv_thread>("uv");
    add_flag<a_uv_semaphore, a_uv_thread>("uv_sem");
    add_peer<a_c11_mutex, a_c11_monitor, a_c11_thread>("c11");
    add_peer<std::recursive_mutex, a_std_monitor, a_std_thread>("std");
    add_flag<a_std_semaphore, a_std_thread>("std_sem");
    return true;
}();

}  // namespace
