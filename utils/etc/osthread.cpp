// osthread.cpp: the thread table and its descriptors, and the recursive mutex.
//
// The table is a list through table_next, newest first. ThreadTableMutex guards it; it is held only to link, unlink or
// walk, never across a join or a thread's body, and the pools' sections are taken inside it. A descriptor that has left
// the table is destroyed outside the lock (but for OS_Fini). A process forked at any moment finds a sound list. Not
// signal-safe but for the fork steps.
//
// The last OS_Fini releases descriptors under threads which may be parked on them, or which the layer has started and
// which are just taking theirs or giving them up. All are in flight: counted, and OS_Fini wakes them and waits:
//
//     thread                                OS_Fini
//     count itself                          no start is left
//     a start left? else keep off           somebody counted? then wait
//
// Both sides are sequentially consistent: either the thread keeps off, or OS_Fini waits for it. A thread which finds no
// start left does not count itself at all: threads which come again and again must not keep OS_Fini waiting. It waits
// for a second: the counted thread may be its own, in a handler that exits. Then it leaves everything as it is.
#include "utils/etc/osthread.h"

#include "utils/etc/utcancel.h"
#include "utils/unix/utptmutex.h"
#include "utils/utmem/utmem.h"

namespace {

p_os_thread ThreadTable = nullptr;
a_mutex ThreadTableMutex;
pthread_mutex_t table_mutex_reserve = PTHREAD_MUTEX_INITIALIZER;
uint32 ThreadTableMutex_initialized = 0;  // OS_Init calls that no OS_Fini has matched yet
a_thread_count in_flight;                 // threads inside an_in_flight_guard

class a_table_lock {
public:
    a_table_lock() { OS_MutexGet(&ThreadTableMutex); }
    ~a_table_lock() { OS_MutexGive(&ThreadTableMutex); }
    a_table_lock& operator=(a_table_lock&&) = delete;  // nor copies
};

// Release: a forked child that finds the link finds the descriptor behind it.
void set_link(p_os_thread& link, p_os_thread thread) { __atomic_store_n(&link, thread, __ATOMIC_RELEASE); }

// The link that leads to the thread, or the null one at the table's end. The table is locked.
p_os_thread* find_link(p_os_thread thread)
{
    p_os_thread* link = &ThreadTable;
    while (*link != nullptr && *link != thread)
        link = &(*link)->table_next;
    return link;
}

uint32 starts() { return __atomic_load_n(&ThreadTableMutex_initialized, __ATOMIC_SEQ_CST); }

// Relaxed: a thread finds its own id there only if it stored it itself.
a_thread_id owner_of(const a_mutex* mutex) { return __atomic_load_n(&mutex->owner, __ATOMIC_RELAXED); }
void set_owner(p_mutex mutex, a_thread_id owner) { __atomic_store_n(&mutex->owner, owner, __ATOMIC_RELAXED); }

// What pthread_self gives, without the call: on this platform a thread's id is the address of its control block. An
// entry of a mutex that is held already costs little more than the call.
a_thread_id own_id() { return a_thread_id(__builtin_thread_pointer()); }

inline bool enters_again(p_mutex mutex, a_thread_id me)
{
    if (owner_of(mutex) != me)
        return false;
    mutex->count++;
    return true;
}

inline void enter_first(p_mutex mutex, a_thread_id me)
{
    set_owner(mutex, me);
    mutex->count = 1;
}

}  // namespace

an_os_thread::an_os_thread(a_bool attachable_parm)
    : table_next(nullptr), next(nullptr), parm(nullptr), wait(), tid(os_no_thread), refCount(1), tls(nullptr),
      attachable(attachable_parm)
{
    // Without memory the semaphore stays without a mutex, which add_current_thread looks for.
    ut_pthread_open_semaphore(&wait, 0);
}

an_os_thread::~an_os_thread() { ut_pthread_close_semaphore(&wait); }
void* an_os_thread::operator new(size_t size) noexcept { return ut_alloc(size); }
void an_os_thread::operator delete(void* block) noexcept { ut_free(block); }

// ---- the recursive mutex ----

void OS_MutexInit(p_mutex mutex)
{
    ut_safe_pthread_mutex_init(&mutex->mutex, nullptr);
    set_owner(mutex, 0);
    mutex->count = 0;
}

void OS_MutexFini(p_mutex mutex) { ut_safe_pthread_mutex_destroy(&mutex->mutex); }

a_bool OS_MutexGet(p_mutex mutex)
{
    const a_thread_id me = own_id();
    if (enters_again(mutex, me))
        return FALSE;
    pthread_mutex_lock(mutex->mutex.p_mutex);  // of default attributes: it cannot fail
    enter_first(mutex, me);
    return FALSE;
}

a_bool OS_MutexTryGet(p_mutex mutex)
{
    const a_thread_id me = own_id();
    if (enters_again(mutex, me))
        return TRUE;
    if (pthread_mutex_trylock(mutex->mutex.p_mutex) != 0)
        return FALSE;
    enter_first(mutex, me);
    return TRUE;
}

void OS_MutexGive(p_mutex mutex)
{
    if (--mutex->count != 0)
        return;
    set_owner(mutex, 0);
    pthread_mutex_unlock(mutex->mutex.p_mutex);
}

void os_mutex_init(p_mutex mutex, pthread_mutex_t& reserve)
{
    OS_MutexInit(mutex);
    if (mutex->mutex.p_mutex == nullptr)
        mutex->mutex.p_mutex = &reserve;
}

void os_mutex_fini(p_mutex mutex, const pthread_mutex_t& reserve)
{
    if (mutex->mutex.p_mutex == &reserve)
        mutex->mutex.p_mutex = nullptr;
    OS_MutexFini(mutex);
}

// A mutex that the forking thread itself holds stays held: a walker may fork, and its walk goes on in the child.
void os_mutex_fork_child(p_mutex mutex)
{
    if (owner_of(mutex) == own_id())
        return;
    ut_safe_pthread_mutex_fork_child(&mutex->mutex);
    set_owner(mutex, 0);
    mutex->count = 0;
}

// ---- the table ----

p_os_thread add_current_thread(a_bool attachable)
{
    // While the process exits the pools behind a descriptor may be gone.
    p_os_thread me = TLSMe.IsUsable() ? new an_os_thread(attachable) : nullptr;
    if (me == nullptr)
        return nullptr;
    me->tid = pthread_self();
    if (me->wait.mutex.p_mutex == nullptr || !TLSMe.Set(me)) {
        delete me;
        return nullptr;
    }
    const a_table_lock lock;
    me->table_next = ThreadTable;
    set_link(ThreadTable, me);
    return me;
}

bool os_in_table(p_os_thread thread)
{
    const a_table_lock lock;
    return *find_link(thread) != nullptr;
}

void os_remove_from_table(p_os_thread thread)
{
    const a_table_lock lock;
    p_os_thread* link = find_link(thread);
    if (*link == nullptr)
        return;
    set_link(*link, thread->table_next);
    thread->table_next = nullptr;
}

void remove_current_thread()
{
    p_os_thread me = TLSMe.Get();
    if (me == nullptr)
        return;
    // An attachable descriptor stays for the thread which waits for this one's end.
    if (!me->attachable) {
        os_remove_from_table(me);
        delete me;
    }
    TLSMe.Set(nullptr);
}

p_os_thread OS_Me(void)
{
    p_os_thread me = TLSMe.Get();
    return me != nullptr ? me : add_current_thread(FALSE);
}

p_os_thread OS_Attach_Thread(void)
{
    p_os_thread me = TLSMe.Get();
    if (me == nullptr)
        return add_current_thread(FALSE);
    me->refCount++;
    return me;
}

void OS_Detach_Thread(void)
{
    p_os_thread me = TLSMe.Get();
    if (me != nullptr && --me->refCount == 0)
        remove_current_thread();
}

// Release and acquire: who finds a pointer there finds what was stored behind it.
void OS_SetTLS(p_os_thread thread, void* value) { __atomic_store_n(&thread->tls, value, __ATOMIC_RELEASE); }
void* OS_GetTLS(p_os_thread thread) { return __atomic_load_n(&thread->tls, __ATOMIC_ACQUIRE); }

void OS_ThreadWalk(an_os_walker walker, void* parm)
{
    const a_table_lock lock;
    for (p_os_thread thread = ThreadTable; thread != nullptr; thread = thread->table_next)
        if (walker(thread, parm) != OS_THREAD_CONTINUE)
            return;
}

void OS_Init(void)
{
    const bool first = starts() == 0;
    if (first && ThreadTableMutex.mutex.p_mutex == nullptr)  // one that an OS_Fini had to leave is still there
        os_mutex_init(&ThreadTableMutex, table_mutex_reserve);
    // After the mutex: a thread which waits without a start may see it.
    __atomic_add_fetch(&ThreadTableMutex_initialized, 1u, __ATOMIC_SEQ_CST);
    if (first)
        add_current_thread(FALSE);
}

an_in_flight_guard::an_in_flight_guard() : started(starts() != 0)
{
    if (!started)
        return;
    in_flight.enter();
    started = starts() != 0;
    if (!started)
        in_flight.leave();
}

an_in_flight_guard::~an_in_flight_guard()
{
    if (started)
        in_flight.leave();
}

namespace {

// Not so the mutex of a wake-up that the calling thread was in when its handler called exit.
bool is_free(a_ut_safe_pthread_mutex_t& mutex)
{
    return ut_safe_pthread_mutex_trylock(&mutex) == 0 && ut_safe_pthread_mutex_unlock(&mutex) == 0;
}

// Locks the table for good when nobody is in flight, else wakes who is parked: again and again, since a thread may only
// now be on its way in. A wake-up that has come already keeps its value.
bool lock_deserted_table()
{
    if (!OS_MutexTryGet(&ThreadTableMutex))
        return false;
    if (in_flight.now() == 0)
        return true;
    for (p_os_thread thread = ThreadTable; thread != nullptr; thread = thread->table_next)
        if (!ut_pthread_test_semaphore(&thread->wait) && is_free(thread->wait.mutex))
            OS_Wakeup(thread, nullptr);
    OS_MutexGive(&ThreadTableMutex);
    return false;
}

void release_table()
{
    remove_current_thread();
    while (ThreadTable != nullptr) {
        p_os_thread thread = ThreadTable;
        set_link(ThreadTable, thread->table_next);
        // Nobody can wait for its end any more: its stack goes with it.
        if (thread->attachable && thread->tid != os_no_thread)
            pthread_detach(thread->tid);
        delete thread;
    }
}

}  // namespace

void OS_Fini(void)
{
    if (__atomic_sub_fetch(&ThreadTableMutex_initialized, 1u, __ATOMIC_SEQ_CST) != 0)
        return;
    const an_uncancelled_scope uncancelled;
    const bool kept = unix_shuts_down;
    unix_shuts_down = true;
    if (unix_in_time(lock_deserted_table)) {
        release_table();
        OS_MutexGive(&ThreadTableMutex);
        os_mutex_fini(&ThreadTableMutex, table_mutex_reserve);
        TLSMe.Reinitialize();
    }
    unix_shuts_down = kept;
}

// Descriptors of threads which the child does not have keep their place, with locks that their end can give back.
void os_thread_fork_child()
{
    in_flight.fork_child();
    os_mutex_fork_child(&ThreadTableMutex);
    for (p_os_thread thread = ThreadTable; thread != nullptr; thread = thread->table_next) {
        ut_safe_pthread_mutex_fork_child(&thread->wait.mutex);
        ut_safe_pthread_cond_fork_child(&thread->wait.cv);
        if (thread->tid != pthread_self())
            thread->tid = os_no_thread;
    }
}
