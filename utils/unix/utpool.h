// utpool.h: the small lock class of the pools, and the pool behind the safe mutexes and the safe condition variables.
//
// Every entry is on the free list or behind exactly one handle; its object is initialised once, with default
// attributes, and stays so until the entry is freed. The critical section guards the list and the counts, and is a
// leaf; without one, for want of memory, the pool goes on unlocked. The list's stores are ordered so that it is sound
// at every moment: a process forked in the middle of an operation of another thread may miss an entry, but never finds
// one that is being freed. Not signal-safe but for the fork step.
#pragma once

#include <pthread.h>
#include <stdlib.h>

#include <type_traits>

#include "utils/unix/utending.h"
#include "utils/utmem/utmem.h"

// One POSIX mutex with default attributes.
class a_utpt_mutex {
public:
    a_utpt_mutex() { pthread_mutex_init(&mutex, nullptr); }
    ~a_utpt_mutex() { pthread_mutex_destroy(&mutex); }
    a_utpt_mutex& operator=(a_utpt_mutex&&) = delete;  // nor copies

    void get() { pthread_mutex_lock(&mutex); }
    void give() { pthread_mutex_unlock(&mutex); }
    int try_get() { return pthread_mutex_trylock(&mutex); }
    // In a forked child: free, whoever of the parent held it. Signal-safe.
    void fork_child() { pthread_mutex_init(&mutex, nullptr); }

    void* operator new(size_t size) noexcept { return ut_alloc(size); }
    void operator delete(void* block) noexcept { ut_free(block); }

private:
    pthread_mutex_t mutex;
};

inline void init_object(pthread_mutex_t* mutex) { pthread_mutex_init(mutex, nullptr); }
inline void init_object(pthread_cond_t* cond) { pthread_cond_init(cond, nullptr); }
inline void destroy_object(pthread_mutex_t* mutex) { pthread_mutex_destroy(mutex); }
inline void destroy_object(pthread_cond_t* cond) { pthread_cond_destroy(cond); }

template <typename an_object>
class a_pool {
public:
    // Null: there is no memory, or a shut-down did not get the section.
    an_object* take()
    {
        const a_guard guard(*this);
        if (!guard.entered)
            return nullptr;
        if (next_free == nullptr)
            alloc_now(num_to_grab);
        an_entry* entry = next_free;
        if (entry == nullptr)
            return nullptr;
        set_head(entry->next);
        num_in_use++;
        return &entry->object;
    }

    // Null is left alone, and so is what a shut-down cannot give back.
    void give_back(an_object* object)
    {
        if (object == nullptr)
            return;
        const a_guard guard(*this);
        if (!guard.entered)
            return;
        renew(object);
        num_in_use--;
        push(reinterpret_cast<an_entry*>(object));
        if (num_in_use == 0)
            clean_now();
    }

    void alloc(uint32 num)
    {
        const a_guard guard(*this);
        if (guard.entered)
            alloc_now(num);
    }

    void clean()
    {
        const a_guard guard(*this);
        if (guard.entered)
            clean_now();
    }

    // No lock: start-up creates the section before the pool is used.
    void crit_init()
    {
        if (critical_mutex_p == nullptr)
            critical_mutex_p = new a_utpt_mutex;
    }

    void crit_fini()
    {
        a_utpt_mutex* section = critical_mutex_p;
        if (section == nullptr || !enter(*section))
            return;
        critical_mutex_p = nullptr;  // first: a process that another thread forks meanwhile must not find it
        section->give();
        delete section;
    }

    void fork_child()
    {
        forked = true;
        if (critical_mutex_p != nullptr)
            critical_mutex_p->fork_child();
    }

private:
    // Their entries are zero-filled, and their section is created on demand.
    static constexpr bool of_mutexes = std::is_same_v<an_object, pthread_mutex_t>;
    static constexpr uint32 batch = 50;

    struct an_entry {
        an_object object;  // first, so that a handle's pointer is the entry's address
        an_entry* next;
    };

    // The section for a scope.
    class a_guard {
    public:
        explicit a_guard(a_pool& pool)
        {
            if (of_mutexes)
                pool.crit_init();
            section = pool.critical_mutex_p;
            entered = section == nullptr || pool.enter(*section);
        }
        ~a_guard()
        {
            if (section != nullptr && entered)
                section->give();
        }
        a_guard& operator=(a_guard&&) = delete;  // nor copies

        bool entered;

    private:
        a_utpt_mutex* section;
    };

    // A shut-down that once waited in vain for the section only tries from then on: the holder never goes on, and
    // hundreds of entries may still be given back.
    bool enter(a_utpt_mutex& section)
    {
        if (!unix_shuts_down) {
            section.get();
            return true;
        }
        abandoned = !unix_in_time([&section] { return section.try_get() == 0; }, abandoned ? 0 : 1000);
        return !abandoned;
    }

    void alloc_now(uint32 num)
    {
        for (uint32 i = 0; i < num; i++) {
            constexpr size_t size = sizeof(an_entry);
            an_entry* entry = static_cast<an_entry*>(of_mutexes ? calloc(1, size) : malloc(size));
            if (entry == nullptr)
                break;
            init_object(&entry->object);
            push(entry);
        }
        num_to_grab = batch;
    }

    void clean_now()
    {
        while (next_free != nullptr) {
            an_entry* entry = next_free;
            set_head(entry->next);
            renew(&entry->object);
            destroy_object(&entry->object);
            free(entry);
        }
    }

    // In a forked child a mutex may be held, and a condition may count waiting threads, which only the parent has: to
    // destroy it would wait for them for ever, and its next owner's signals might be spent on them. In a shut-down its
    // own thread may hold it, in what a handler that exits has interrupted.
    void renew(an_object* object)
    {
        if (forked || unix_shuts_down)
            init_object(object);
    }

    // Release: a forked child that finds the head finds the entry complete.
    void set_head(an_entry* entry) { __atomic_store_n(&next_free, entry, __ATOMIC_RELEASE); }

    void push(an_entry* entry)
    {
        entry->next = next_free;
        set_head(entry);
    }

    uint32 num_to_grab = batch;
    uint32 num_in_use = 0;
    a_utpt_mutex* critical_mutex_p = nullptr;
    an_entry* next_free = nullptr;
    bool forked = false;     // in a forked child
    bool abandoned = false;  // the section, by a shut-down
};
