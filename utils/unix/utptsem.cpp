// utptsem.cpp: binary, auto-resetting semaphores.
//
// The flag `set` changes only under `mutex`, which is a leaf lock. Two accesses go without it: test, and the first look
// of a signal. That look races with a wait that is just consuming:
//
//     signaller                        waiter
//     store its value                  clear set
//     look at set: 1? then done        read the value
//
// Were these plain loads and stores, both could pass their own store, and the last value would be lost. So each side
// has a full barrier in between: the look is a compare-and-swap of 1 to 1, and the waiter's is the unlocking of the
// mutex behind the clearing, a locked instruction on this platform. Whichever change of the flag comes second, its
// thread sees what the other did before its own. Not signal-safe.
#include "corvex/ptsem.h"

#include <errno.h>
#include <sys/time.h>

#include "utils/etc/utcancel.h"
#include "utils/unix/utptmutex.h"

namespace {

constexpr int looks_before_sleep = 300;  // some microseconds: less than falling asleep and being woken take
constexpr unsigned ms_per_second = 1000;
constexpr long us_per_second = 1000000;

// Relaxed: read under the mutex, or looked at again.
bool is_set(const a_ut_pthread_semaphore* sem) { return __atomic_load_n(&sem->set, __ATOMIC_RELAXED) != 0; }

// Looks for a signal a little while before its wait takes the mutex: threads that hand work to each other are then
// woken while they still run, for a small part of what a sleep costs; who sleeps all the same has paid twice.
void look_for_signal(const a_ut_pthread_semaphore* sem)
{
    for (int i = 0; i < looks_before_sleep && !is_set(sem); i++)
        __builtin_ia32_pause();
}

// Clears the flag under the mutex, whose unlocking comes next. The thread sanitizer knows the language's rules alone,
// by which a store learns nothing from the look before it: there it is an exchange, by a fifth dearer in all.
void consume(a_ut_pthread_semaphore* sem)
{
#ifdef __SANITIZE_THREAD__
    __atomic_exchange_n(&sem->set, FALSE, __ATOMIC_ACQ_REL);
#else
    __atomic_store_n(&sem->set, FALSE, __ATOMIC_RELAXED);
#endif
}

// A thread which were cancelled in here would leave the mutex locked.
void wait_until_set(a_ut_pthread_semaphore* sem)
{
    const an_uncancelled_scope uncancelled;
    while (!is_set(sem))
        ut_safe_pthread_cond_wait(&sem->cv, &sem->mutex);
}

struct timespec deadline_in(unsigned int timeout_in_ms)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    const long usec = now.tv_usec + long(timeout_in_ms % ms_per_second) * 1000;
    return {now.tv_sec + timeout_in_ms / ms_per_second + usec / us_per_second, usec % us_per_second * 1000};
}

}  // namespace

a_bool ut_pthread_open_semaphore(a_ut_pthread_semaphore* sem, unsigned int initial_value)
{
    sem->set = initial_value != 0;
    sem->mutex.p_mutex = nullptr;
    const int no_cv = ut_safe_pthread_cond_init(&sem->cv, nullptr);
    if (no_cv != 0)
        return a_bool(no_cv);
    const int no_mutex = ut_safe_pthread_mutex_init(&sem->mutex, nullptr);
    if (no_mutex != 0)
        ut_safe_pthread_cond_destroy(&sem->cv);
    return a_bool(no_mutex);
}

void ut_pthread_close_semaphore(a_ut_pthread_semaphore* sem)
{
    __atomic_store_n(&sem->set, FALSE, __ATOMIC_RELAXED);
    ut_safe_pthread_cond_destroy(&sem->cv);
    ut_safe_pthread_mutex_destroy(&sem->mutex);
}

a_bool ut_pthread_signal_semaphore(a_ut_pthread_semaphore* sem)
{
    // A look without a locked instruction first: what it takes for unset goes the long way and loses nothing.
    a_bool signalled = TRUE;
    if (is_set(sem) &&
        __atomic_compare_exchange_n(&sem->set, &signalled, TRUE, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
        return TRUE;
    const a_safe_lock lock(sem->mutex);
    if (!is_set(sem)) {
        __atomic_store_n(&sem->set, TRUE, __ATOMIC_RELEASE);
        ut_safe_pthread_cond_broadcast(&sem->cv);
    }
    return TRUE;
}

a_bool ut_pthread_waiton_semaphore(a_ut_pthread_semaphore* sem)
{
    look_for_signal(sem);
    const a_safe_lock lock(sem->mutex);
    if (!is_set(sem))
        wait_until_set(sem);
    consume(sem);
    return TRUE;
}

a_bool ut_pthread_waiton_semaphore_timed(a_ut_pthread_semaphore* sem, unsigned int timeout_in_ms)
{
    const struct timespec deadline = deadline_in(timeout_in_ms);
    if (timeout_in_ms != 0)
        look_for_signal(sem);
    const a_safe_lock lock(sem->mutex);
    const an_uncancelled_scope uncancelled;
    int rc = 0;
    while (!is_set(sem) && rc != ETIMEDOUT)
        rc = ut_safe_pthread_cond_timedwait(&sem->cv, &sem->mutex, &deadline);
    if (rc == ETIMEDOUT)
        return FALSE;
    consume(sem);
    return TRUE;
}

// Acquire: who sees a signal sees what was stored before it.
a_bool ut_pthread_test_semaphore(a_ut_pthread_semaphore* sem) { return __atomic_load_n(&sem->set, __ATOMIC_ACQUIRE); }

a_bool ut_pthread_reset_semaphore(a_ut_pthread_semaphore* sem)
{
    const a_safe_lock lock(sem->mutex);
    consume(sem);
    return TRUE;
}
