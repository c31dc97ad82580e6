// utptcondvar.cpp: the plain condition-variable wrappers and the pool of safe condition variables.
//
// The pool is that of utptmutex.cpp with two differences: entries are not zero-filled, and the critical
// section is never created on demand: without one, the pool goes on unlocked. Not signal-safe but for the
// fork step.
#include "corvex/ptcondvar.h"

#include <errno.h>
#include <stdlib.h>

#include "utils/unix/utptmutex.h"

namespace {

constexpr uint32 batch = 50;

struct a_free_utpt_cond {
    pthread_cond_t cond;  // first, so that a handle's pointer is the entry's address
    a_free_utpt_cond* next;
};
using p_free_utpt_cond = a_free_utpt_cond*;

uint32 num_to_grab = batch;
uint32 num_in_use = 0;
a_utpt_mutex* critical_mutex_p = nullptr;
p_free_utpt_cond next_free_utpt_cond = nullptr;
bool forked = false;  // in a forked child

// As for the mutex pool.
a_utpt_mutex* ut_safe_pthread_cond_enter()
{
    a_utpt_mutex* section = critical_mutex_p;
    if (section != nullptr)
        section->get();
    return section;
}

void ut_safe_pthread_cond_exit(a_utpt_mutex* section)
{
    if (section != nullptr)
        section->give();
}

// Release: a forked child that finds the head finds the entry complete.
void set_head(p_free_utpt_cond entry) { __atomic_store_n(&next_free_utpt_cond, entry, __ATOMIC_RELEASE); }

void push(p_free_utpt_cond entry)
{
    entry->next = next_free_utpt_cond;
    set_head(entry);
}

void ut_safe_pthread_cond_alloc_now(uint32 num)
{
    for (uint32 i = 0; i < num; i++) {
        p_free_utpt_cond entry = static_cast<p_free_utpt_cond>(malloc(sizeof(a_free_utpt_cond)));
        if (entry == nullptr)
            break;
        pthread_cond_init(&entry->cond, nullptr);
        push(entry);
    }
    num_to_grab = batch;
}

// The condition of a forked child may count waiting threads that only the parent has: to destroy it would wait for them
// for ever, and its next owner's signals might be spent on them.
void forget_waiters(pthread_cond_t* cond)
{
    if (forked)
        pthread_cond_init(cond, nullptr);
}

void ut_safe_pthread_cond_clean_now()
{
    while (next_free_utpt_cond != nullptr) {
        p_free_utpt_cond entry = next_free_utpt_cond;
        set_head(entry->next);
        forget_waiters(&entry->cond);
        pthread_cond_destroy(&entry->cond);
        free(entry);
    }
}

}  // namespace

int ut_pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t* attr) { return pthread_cond_init(cond, attr); }

int ut_pthread_cond_destroy(pthread_cond_t* cond) { return pthread_cond_destroy(cond); }

int ut_pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) { return pthread_cond_wait(cond, mutex); }

int ut_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* abstime)
{
    return pthread_cond_timedwait(cond, mutex, abstime);
}

int ut_pthread_cond_signal(pthread_cond_t* cond) { return pthread_cond_signal(cond); }

int ut_pthread_cond_broadcast(pthread_cond_t* cond) { return pthread_cond_broadcast(cond); }

int ut_safe_pthread_cond_init(a_ut_safe_pthread_cond_t* _cv, const pthread_condattr_t* /*attr*/)
{
    a_utpt_mutex* section = ut_safe_pthread_cond_enter();
    if (next_free_utpt_cond == nullptr)
        ut_safe_pthread_cond_alloc_now(num_to_grab);
    p_free_utpt_cond entry = next_free_utpt_cond;
    _cv->p_cond = entry != nullptr ? &entry->cond : nullptr;
    if (entry != nullptr) {
        set_head(entry->next);
        num_in_use++;
    }
    ut_safe_pthread_cond_exit(section);
    return entry != nullptr ? 0 : ENOMEM;
}

int ut_safe_pthread_cond_destroy(a_ut_safe_pthread_cond_t* _cv)
{
    if (_cv->p_cond == nullptr)
        return 0;
    a_utpt_mutex* section = ut_safe_pthread_cond_enter();
    num_in_use--;
    forget_waiters(_cv->p_cond);
    push(reinterpret_cast<p_free_utpt_cond>(_cv->p_cond));
    if (num_in_use == 0)
        ut_safe_pthread_cond_clean_now();
    ut_safe_pthread_cond_exit(section);
    _cv->p_cond = nullptr;
    return 0;
}

void ut_safe_pthread_cond_alloc(unsigned int num)
{
    a_utpt_mutex* section = ut_safe_pthread_cond_enter();
    ut_safe_pthread_cond_alloc_now(num);
    ut_safe_pthread_cond_exit(section);
}

void ut_safe_pthread_cond_clean(void)
{
    a_utpt_mutex* section = ut_safe_pthread_cond_enter();
    ut_safe_pthread_cond_clean_now();
    ut_safe_pthread_cond_exit(section);
}

// No lock: start-up creates the section before the pool is used.
void ut_safe_pthread_cond_crit_init()
{
    if (critical_mutex_p == nullptr)
        critical_mutex_p = new a_utpt_mutex;
}

void ut_safe_pthread_cond_crit_fini()
{
    a_utpt_mutex* section = critical_mutex_p;
    critical_mutex_p = nullptr;  // first: a process that another thread forks meanwhile must not find it
    delete section;
}

// Signal-safe.
void ut_safe_pthread_cond_pool_fork_child()
{
    forked = true;
    if (critical_mutex_p != nullptr)
        critical_mutex_p->fork_child();
}

// Signal-safe.
void ut_safe_pthread_cond_fork_child(a_ut_safe_pthread_cond_t* _cv)
{
    if (_cv->p_cond != nullptr)
        pthread_cond_init(_cv->p_cond, nullptr);
}
