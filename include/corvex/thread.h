/* thread.h: the thread layer, for C99 and C++11: a table with one descriptor per thread that uses it, starting and
 * ending threads, parking and waking them with a value, and a recursive mutex.
 *
 * OS_Init comes before any other OS_ operation on threads and is matched by one OS_Fini. A thread gets its descriptor
 * at its first use (OS_Me, OS_Attach_Thread, OS_Wait, OS_Begin_Thread_Attachable) or when the layer starts it, keeps it
 * while it holds an attach reference, and loses it with the last. A thread which the layer started loses it at its end
 * in any case, also by pthread_exit and cancellation. Another one which ends without detaching leaves its descriptor in
 * the table until the last OS_Fini, which releases all of them.
 *
 * In a forked child every lock of the layer is free, but those that the forking thread holds; it keeps its descriptor,
 * and those of the parent's other threads stay in the table until OS_Fini, for threads which there are not.
 *
 * Out of memory: a mutex that OS_MutexInit could not make must not be used (its `mutex` is null then). A failed
 * allocation is also reported on standard output and in the system log, which closes the program's own openlog.
 *
 * The library must not be unloaded before the threads which it started have ended: join the attachable ones first.
 *
 * Nothing here is signal-safe, nothing here is a cancellation point but OS_WaitOnThreadTermination. Nothing here calls
 * OS_Init: use outside it is an error that is not checked, but for waiting (see OS_Wait) and for a started thread's
 * end. */
#pragma once

#include <pthread.h>

#include "corvex/ptmutex.h"
#include "corvex/ptsem.h"
#include "corvex/types.h"

CORVEX_C_BEGIN

typedef pthread_t a_thread_id;

/* A thread's descriptor, owned by the layer. */
typedef struct an_os_thread {
    struct an_os_thread* table_next; /* the layer's */
    struct an_os_thread* next;       /* for lists of the user's own; null at first, never touched by the layer */
    void* parm;                      /* the value of the last wake-up */
    a_semaphore wait;                /* the thread parks on it */
    a_thread_id tid;                 /* all ones until the thread has stored its id */
    unsigned int refCount;           /* attach references; changed by the thread itself only */
    void* tls;                       /* one word of user data, see OS_SetTLS */
    a_bool attachable;               /* another thread will wait for its end; the descriptor outlives the thread */
#ifdef __cplusplus
    explicit an_os_thread(a_bool attachable_parm);
    ~an_os_thread();
    an_os_thread& operator=(an_os_thread&&) = delete; /* nor copies */
    void* operator new(size_t size) noexcept;
    void operator delete(void* block) noexcept;
#endif
} an_os_thread;
typedef an_os_thread* p_os_thread;
CORVEX_LAYOUT(sizeof(an_os_thread) == 80 && offsetof(an_os_thread, parm) == 16 && offsetof(an_os_thread, wait) == 24 &&
              offsetof(an_os_thread, tid) == 48 && offsetof(an_os_thread, refCount) == 56 &&
              offsetof(an_os_thread, tls) == 64 && offsetof(an_os_thread, attachable) == 72);

/* A recursive mutex of this process. Owned by the caller, between OS_MutexInit and OS_MutexFini. */
typedef struct a_mutex {
    a_mutex_internal mutex;
    a_thread_id owner;  /* 0 when free */
    unsigned int count; /* how often the owner holds it */
} a_mutex;
typedef a_mutex* p_mutex;
CORVEX_LAYOUT(sizeof(a_mutex) == 24 && offsetof(a_mutex, owner) == 8 && offsetof(a_mutex, count) == 16);

typedef enum an_os_walker_rc { OS_THREAD_CONTINUE = 0, OS_THREAD_STOP = 1 } an_os_walker_rc;
typedef an_os_walker_rc (*an_os_walker)(p_os_thread thread, void* parm);

/* The body of a started thread. */
typedef void (*an_os_thread_start_address)(void* arg);

/* ---- the table ---- */

/* Starts the layer and registers the calling thread; later calls only count. The first must be over before another
 * thread uses the layer. */
CORVEX_API void OS_Init(void);

/* Ends what one OS_Init began. The last one releases every descriptor, also those of threads which still run: they
 * must not use them, or the layer, any more, until the next OS_Init. It waits for threads which are parked, which it
 * wakes with null, and for those which it started and which are just ending. Attachable threads which nobody waited for
 * are detached. Where a lock or a thread takes more than a second, as in an exit from a signal handler that interrupted
 * its own thread there, all is left as it is. */
CORVEX_API void OS_Fini(void);

/* The calling thread's descriptor, made when it has none; null when there is no memory or no thread-specific key, and
 * while the process exits. Thread-safe. */
CORVEX_API p_os_thread OS_Me(void);

/* The same, holding one more reference; a descriptor that is made here or by OS_Me begins with one, which one
 * OS_Detach_Thread gives back. */
CORVEX_API p_os_thread OS_Attach_Thread(void);

/* Gives one reference of the calling thread back, and its descriptor with the last one: that is then gone, unless the
 * thread is attachable. Does nothing for a thread without a descriptor. Thread-safe. */
CORVEX_API void OS_Detach_Thread(void);

/* The descriptor's word of user data. Any thread, any descriptor; no lock: the word is written and read at once, and
 * who reads a pointer there sees what its writer stored before. */
CORVEX_API void OS_SetTLS(p_os_thread thread, void* value);
CORVEX_API void* OS_GetTLS(p_os_thread thread);

/* Calls walker(descriptor, parm) for each descriptor, newest first, until one call's result is not
 * OS_THREAD_CONTINUE. The table is locked meanwhile, recursively: the walker may use the layer but must not release
 * the descriptor that it was handed. Thread-safe. */
CORVEX_API void OS_ThreadWalk(an_os_walker walker, void* parm);

/* ---- the recursive mutex ---- */

CORVEX_API void OS_MutexInit(p_mutex mutex);
CORVEX_API void OS_MutexFini(p_mutex mutex);

/* Takes the mutex, waiting for it. The result is always 0 and reports nothing. */
CORVEX_API a_bool OS_MutexGet(p_mutex mutex);

/* Takes it if that needs no waiting; TRUE when the caller now holds it (once more). */
CORVEX_API a_bool OS_MutexTryGet(p_mutex mutex);

/* Gives it back once. Only its owner may; that is not checked. */
CORVEX_API void OS_MutexGive(p_mutex mutex);

/* ---- starting and ending threads ---- */

/* Starts a thread which runs start_address(arg) and registers it before it returns; the caller is registered, too.
 *   stack_bottom  not used
 *   stack_size    bytes; at least 524288 are given; 0: the system's default
 *   name          its first 15 bytes (whole UTF-8 characters) name the thread for debuggers and ps -L; null or
 *                 empty: no name
 *   attachable    TRUE: some thread calls OS_WaitOnThreadTermination for it, once; FALSE: it releases itself
 * Returns its descriptor, or null when the thread cannot be created or its descriptor cannot be allocated; the body
 * then does not run. The descriptor of a thread which is not attachable is gone when that thread ends. Thread-safe. */
CORVEX_API p_os_thread OS_Begin_Thread_Attachable(an_os_thread_start_address start_address, void* stack_bottom,
                                                  unsigned int stack_size, void* arg, const char* name,
                                                  a_bool attachable);

/* Gives one reference back and ends the calling thread. */
CORVEX_API void OS_End_Thread(void) __attribute__((noreturn));

/* The same, waking waiter with parm between the two. */
CORVEX_API void OS_End_Thread_Wakeup(p_os_thread waiter, void* parm) __attribute__((noreturn));

/* Sends SIGKILL to the thread, which ends the whole process. TRUE when the call succeeded, as it also does for a
 * thread which has ended and is not waited for yet. */
CORVEX_API a_bool OS_TerminateThread(p_os_thread thread);

/* Waits for the end of an attachable thread and releases its descriptor; exactly one thread may, once. Returns the
 * join's result, 0 or an errno value; 0 at once for a descriptor that is not in the table. */
CORVEX_API int OS_WaitOnThreadTermination(p_os_thread thread);

/* ---- parking ---- */

/* Parks the calling thread until it is woken, asleep but for the first few microseconds, when it looks for the
 * wake-up by itself; returns the value of the last wake-up. A wake-up that came before is not lost: the call returns
 * at once. Several before one wait count as one, with the last one's value, which brings along all that its waker
 * stored before. OS_WaitEx takes the caller's own descriptor. Null, too, when the last OS_Fini has been or comes
 * meanwhile, and from OS_Wait when there is no descriptor for the thread: no memory, or the process is exiting. */
CORVEX_API void* OS_Wait(void);
CORVEX_API void* OS_WaitEx(p_os_thread me);

/* Wakes the thread with parm, now or at its next wait. Any thread, for any descriptor in the table. */
CORVEX_API void OS_Wakeup(p_os_thread thread, void* parm);

CORVEX_C_END
