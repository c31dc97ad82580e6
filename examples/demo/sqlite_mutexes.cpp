/* sqlite_mutexes.cpp: SQLite's mutex methods. SQLite never passes null to them, and enters only what it made as
 * recursive twice. */
#include "sqlite_mutexes.h"

#include <new>
#include <sqlite3.h>

#include "corvex/ptmutex.h"
#include "corvex/thread.h"

/* SQLite knows the type by its name only. */
struct sqlite3_mutex {
    explicit sqlite3_mutex(bool is_recursive) : recursive(is_recursive)
    {
        if (recursive)
            OS_MutexInit(&nested);
        else
            ut_safe_pthread_mutex_init(&fast, nullptr);
    }
    ~sqlite3_mutex()
    {
        if (recursive)
            OS_MutexFini(&nested);
        else
            ut_safe_pthread_mutex_destroy(&fast);
    }
    sqlite3_mutex(const sqlite3_mutex&) = delete;
    sqlite3_mutex& operator=(const sqlite3_mutex&) = delete;

    /* False when the library had no memory for it. */
    bool is_usable() const { return (recursive ? nested.mutex : fast).p_mutex != nullptr; }

    const bool recursive;
    a_mutex nested = {};        // when recursive
    a_critical_sect fast = {};  // when not
};

namespace {

constexpr int first_static = SQLITE_MUTEX_STATIC_MAIN;
constexpr int last_static = SQLITE_MUTEX_STATIC_VFS3;

/* Made before SQLite starts and freed after its end; between the two only read. */
sqlite3_mutex* static_mutexes[last_static - first_static + 1];

sqlite3_mutex* make(bool recursive)
{
    auto* mutex = new (std::nothrow) sqlite3_mutex(recursive);
    if (!mutex || mutex->is_usable())
        return mutex;
    delete mutex;
    return nullptr;
}

bool make_static_mutexes()
{
    for (sqlite3_mutex*& mutex : static_mutexes)
        if (!(mutex = make(false)))
            return false;
    return true;
}

void free_static_mutexes()
{
    for (sqlite3_mutex*& mutex : static_mutexes) {
        delete mutex;
        mutex = nullptr;
    }
}

// ---- SQLite's methods

int nothing_to_do() { return SQLITE_OK; }

sqlite3_mutex* allocate(int kind)
{
    if (kind == SQLITE_MUTEX_FAST || kind == SQLITE_MUTEX_RECURSIVE)
        return make(kind == SQLITE_MUTEX_RECURSIVE);
    return kind >= first_static && kind <= last_static ? static_mutexes[kind - first_static] : nullptr;
}

void release(sqlite3_mutex* mutex) { delete mutex; }

void enter(sqlite3_mutex* mutex)
{
    if (mutex->recursive)
        OS_MutexGet(&mutex->nested);
    else
        ut_safe_pthread_mutex_lock(&mutex->fast);
}

int try_to_enter(sqlite3_mutex* mutex)
{
    bool entered = mutex->recursive ? OS_MutexTryGet(&mutex->nested) : ut_safe_pthread_mutex_trylock(&mutex->fast) == 0;
    return entered ? SQLITE_OK : SQLITE_BUSY;
}

void leave(sqlite3_mutex* mutex)
{
    if (mutex->recursive)
        OS_MutexGive(&mutex->nested);
    else
        ut_safe_pthread_mutex_unlock(&mutex->fast);
}

/* SQLite copies it. The last two serve its own assertions, which no release of it has. */
constexpr sqlite3_mutex_methods methods = {nothing_to_do, nothing_to_do, allocate, release, enter,
                                           try_to_enter,  leave,         nullptr,  nullptr};

}  // namespace

c_sqlite_on_library_mutexes::c_sqlite_on_library_mutexes()
    : ready(make_static_mutexes() && sqlite3_config(SQLITE_CONFIG_MUTEX, &methods) == SQLITE_OK &&
            sqlite3_initialize() == SQLITE_OK)
{
}

c_sqlite_on_library_mutexes::~c_sqlite_on_library_mutexes()
{
    sqlite3_shutdown();
    free_static_mutexes();
}
