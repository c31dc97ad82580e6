// osthread.h: the parts of the thread table that the thread start and the load sequence use.
#pragma once

#include <pthread.h>

#include "corvex/thread.h"
#include "utils/unix/unixfork.h"

// A thread-local pointer to a T. The key has no destructor routine: a thread which ends leaves its T alone.
template <typename T>
class UTThreadLocalStorage {
public:
    UTThreadLocalStorage() : _tls_key(fresh_key()) {}
    // Threads may go on while the process exits: they find no key, not one that is another's by now.
    ~UTThreadLocalStorage() { pthread_key_delete(__atomic_exchange_n(&_tls_key, no_key, __ATOMIC_RELAXED)); }
    UTThreadLocalStorage& operator=(UTThreadLocalStorage&&) = delete;  // nor copies

    // A fresh key, so that no thread finds its old value.
    void Reinitialize()
    {
        pthread_key_delete(_tls_key);
        __atomic_store_n(&_tls_key, fresh_key(), __ATOMIC_RELAXED);
    }
    T* Get() const { return static_cast<T*>(pthread_getspecific(key())); }
    bool IsUsable() const { return key() != no_key; }
    bool Set(T* value) { return pthread_setspecific(key(), value) == 0; }  // false: there is no memory

private:
    static constexpr pthread_key_t no_key = ~pthread_key_t(0);  // a number that no key has: every call with it fails
    static pthread_key_t fresh_key()
    {
        pthread_key_t key;
        return pthread_key_create(&key, nullptr) == 0 ? key : no_key;
    }
    // Relaxed: it changes only at the last OS_Fini, when no other thread uses the layer, and at exit.
    pthread_key_t key() const { return __atomic_load_n(&_tls_key, __ATOMIC_RELAXED); }

    pthread_key_t _tls_key;
};

extern UTThreadLocalStorage<an_os_thread> TLSMe;  // the frame builds it while the library loads

p_os_thread add_current_thread(a_bool attachable);
void remove_current_thread();
bool os_in_table(p_os_thread thread);
void os_remove_from_table(p_os_thread thread);

inline constexpr a_thread_id os_no_thread = ~a_thread_id(0);  // the id of a thread which there is not (yet)

// A scope in which a thread touches its descriptor without having just asked for it: parked on it, or taking it or
// giving it up at its begin and end. The last OS_Fini waits for it; while `started` is false the thread must keep off.
class an_in_flight_guard {
public:
    an_in_flight_guard();
    ~an_in_flight_guard();
    an_in_flight_guard& operator=(an_in_flight_guard&&) = delete;  // nor copies

    bool started;
};

// osthrsup.cpp, the calls below the layer's start of threads: each starts one with system contention scope, joinable
// when attachable, with a stack of at least min_stack_size when a size is asked for. Returns its id; os_no_thread, and
// the error number through pErrorCode unless that is null, when it cannot be created.
using an_os_start_routine = void* (*)(void* arglist);
a_thread_id os_beginthread_with_attrib(an_os_start_routine start_address, void* stack_bottom, unsigned int stack_size,
                                       void* arglist, int attachable, uint32* pErrorCode);
a_thread_id os_beginthread_attachable(an_os_start_routine start_address, void* stack_bottom, unsigned int stack_size,
                                      void* arglist, uint32* pErrorCode);
a_thread_id os_beginthread(an_os_start_routine start_address, void* stack_bottom, unsigned int stack_size,
                           void* arglist, uint32* pErrorCode);
[[noreturn]] void os_endthread();

void Perform_Version_Check(uint32 version, int line);

// A mutex of the layer itself, which must work also when there is no memory: then it is the reserve.
void os_mutex_init(p_mutex mutex, pthread_mutex_t& reserve);
void os_mutex_fini(p_mutex mutex, const pthread_mutex_t& reserve);

// Frees every lock of the layer in a forked child, but those that the forking thread itself holds.
void os_thread_fork_child();
void os_ident_fork_child();
void os_mutex_fork_child(p_mutex mutex);
