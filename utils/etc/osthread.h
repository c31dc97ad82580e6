// osthread.h: the parts of the thread table that the thread start and the load sequence use.
#ifndef ETC_OSTHREAD_H
#define ETC_OSTHREAD_H

#include <pthread.h>

#include "corvex/thread.h"

// A thread-local pointer to a T. The key has no destructor routine: a thread that ends leaves its T alone.
template <typename T>
class UTThreadLocalStorage {
public:
    UTThreadLocalStorage() { pthread_key_create(&_tls_key, nullptr); }
    ~UTThreadLocalStorage() { pthread_key_delete(_tls_key); }
    UTThreadLocalStorage(const UTThreadLocalStorage&) = delete;
    UTThreadLocalStorage& operator=(const UTThreadLocalStorage&) = delete;

    // A fresh key, so that no thread finds its old value.
    void Reinitialize()
    {
        pthread_key_delete(_tls_key);
        pthread_key_create(&_tls_key, nullptr);
    }
    T* Get() const { return static_cast<T*>(pthread_getspecific(_tls_key)); }
    void Set(T* value) { pthread_setspecific(_tls_key, value); }

private:
    pthread_key_t _tls_key;
};

extern UTThreadLocalStorage<an_os_thread> TLSMe;  // the frame builds it while the library loads

p_os_thread add_current_thread(a_bool attachable);
void remove_current_thread();
bool os_in_table(p_os_thread thread);
void os_remove_from_table(p_os_thread thread);

// Frees every lock of the layer in a forked child.
void os_thread_fork_child();
void os_mutex_fork_child(p_mutex mutex);

#endif
