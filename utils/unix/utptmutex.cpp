// utptmutex.cpp: the plain mutex wrappers and the pool of safe mutexes.
//
// Every entry is on the free list or behind exactly one handle; its mutex is initialised once and stays so
// until the entry is freed. The critical section guards the list and the counts, is a leaf, and is created on
// demand. The list's stores are ordered so that it is sound at every moment: a process forked in the middle
// of an operation of another thread may miss an entry, but never finds one that is being freed. Not
// signal-safe but for the fork steps.
#include "utils/unix/utptmutex.h"

#include <errno.h>
#include <stdlib.h>

namespace {

constexpr uint32 batch = 50;

struct a_free_utpt_mutex {
    pthread_mutex_t mutex;  // first, so that a handle's pointer is the entry's address
    a_free_utpt_mutex* next;
};
using p_free_utpt_mutex = a_free_utpt_mutex*;

uint32 num_to_grab = batch;
uint32 num_in_use = 0;
a_utpt_mutex* critical_mutex_p = nullptr;
p_free_utpt_mutex next_free_utpt_mutex = nullptr;
bool forked = false;  // in a forked child

// Gives the critical section that exit has to leave; null when there is none, for want of memory: the pool then goes on
// unlocked.
a_utpt_mutex* ut_safe_pthread_mutex_enter()
{
    if (critical_mutex_p == nullptr)
        ut_safe_pthread_mutex_crit_init();
    a_utpt_mutex* section = critical_mutex_p;
    if (section != nullptr)
        section->get();
    return section;
}

void ut_safe_pthread_mutex_exit(a_utpt_mutex* section)
{
    if (section != nullptr)
        section->give();
}

// Release: a forked child that finds the head finds the entry complete.
void set_head(p_free_utpt_mutex entry) { __atomic_store_n(&next_free_utpt_mutex, entry, __ATOMIC_RELEASE); }

void push(p_free_utpt_mutex entry)
{
    entry->next = next_free_utpt_mutex;
    set_head(entry);
}

void ut_safe_pthread_mutex_alloc_now(uint32 num)
{
    for (uint32 i = 0; i < num; i++) {
        p_free_utpt_mutex entry = static_cast<p_free_utpt_mutex>(calloc(1, sizeof(a_free_utpt_mutex)));
        if (entry == nullptr)
            break;
        pthread_mutex_init(&entry->mutex, nullptr);
        push(entry);
    }
    num_to_grab = batch;
}

void ut_safe_pthread_mutex_clean_now()
{
    while (next_free_utpt_mutex != nullptr) {
        p_free_utpt_mutex entry = next_free_utpt_mutex;
        set_head(entry->next);
        pthread_mutex_destroy(&entry->mutex);
        free(entry);
    }
}

}  // namespace

int ut_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr)
{
    return pthread_mutex_init(mutex, attr);
}

int ut_pthread_mutex_destroy(pthread_mutex_t* mutex) { return pthread_mutex_destroy(mutex); }

int ut_pthread_mutex_lock(pthread_mutex_t* mutex) { return pthread_mutex_lock(mutex); }

int ut_pthread_mutex_trylock(pthread_mutex_t* mutex) { return pthread_mutex_trylock(mutex); }

int ut_pthread_mutex_unlock(pthread_mutex_t* mutex) { return pthread_mutex_unlock(mutex); }

int ut_safe_pthread_mutex_init(a_ut_safe_pthread_mutex_t* _mx, const pthread_mutexattr_t* /*attr*/)
{
    a_utpt_mutex* section = ut_safe_pthread_mutex_enter();
    if (next_free_utpt_mutex == nullptr)
        ut_safe_pthread_mutex_alloc_now(num_to_grab);
    p_free_utpt_mutex entry = next_free_utpt_mutex;
    _mx->p_mutex = entry != nullptr ? &entry->mutex : nullptr;
    if (entry != nullptr) {
        set_head(entry->next);
        num_in_use++;
    }
    ut_safe_pthread_mutex_exit(section);
    return entry != nullptr ? 0 : ENOMEM;
}

int ut_safe_pthread_mutex_destroy(a_ut_safe_pthread_mutex_t* _mx)
{
    if (_mx->p_mutex == nullptr)
        return 0;
    a_utpt_mutex* section = ut_safe_pthread_mutex_enter();
    // In a forked child a thread of the parent may have held it.
    if (forked)
        pthread_mutex_init(_mx->p_mutex, nullptr);
    num_in_use--;
    push(reinterpret_cast<p_free_utpt_mutex>(_mx->p_mutex));
    if (num_in_use == 0)
        ut_safe_pthread_mutex_clean_now();
    ut_safe_pthread_mutex_exit(section);
    _mx->p_mutex = nullptr;
    return 0;
}

int ut_safe_pthread_mutex_lock(a_ut_safe_pthread_mutex_t* _mx) { return pthread_mutex_lock(_mx->p_mutex); }

int ut_safe_pthread_mutex_trylock(a_ut_safe_pthread_mutex_t* _mx) { return pthread_mutex_trylock(_mx->p_mutex); }

int ut_safe_pthread_mutex_unlock(a_ut_safe_pthread_mutex_t* _mx) { return pthread_mutex_unlock(_mx->p_mutex); }

void ut_safe_pthread_mutex_alloc(unsigned int num)
{
    a_utpt_mutex* section = ut_safe_pthread_mutex_enter();
    ut_safe_pthread_mutex_alloc_now(num);
    ut_safe_pthread_mutex_exit(section);
}

void ut_safe_pthread_mutex_clean(void)
{
    a_utpt_mutex* section = ut_safe_pthread_mutex_enter();
    ut_safe_pthread_mutex_clean_now();
    ut_safe_pthread_mutex_exit(section);
}

// No lock: start-up creates the section before the pool is used.
void ut_safe_pthread_mutex_crit_init()
{
    if (critical_mutex_p == nullptr)
        critical_mutex_p = new a_utpt_mutex;
}

void ut_safe_pthread_mutex_crit_fini()
{
    a_utpt_mutex* section = critical_mutex_p;
    critical_mutex_p = nullptr;  // first: a process that another thread forks meanwhile must not find it
    delete section;
}

// Signal-safe.
void ut_safe_pthread_mutex_pool_fork_child()
{
    forked = true;
    if (critical_mutex_p != nullptr)
        critical_mutex_p->fork_child();
}

// Signal-safe.
void ut_safe_pthread_mutex_fork_child(a_ut_safe_pthread_mutex_t* _mx)
{
    if (_mx->p_mutex != nullptr)
        pthread_mutex_init(_mx->p_mutex, nullptr);
}
