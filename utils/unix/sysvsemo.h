// sysvsemo.h: the System V semaphores: one kernel set, and the list of sets. Sets and list are used under the list's
// mutex, a leaf, or by a shut-down that has found nobody inside; sysvregistry.h says how the cleanup by signal gets on
// without it. Not signal-safe but for the fork step.
#pragma once

#include "corvex/sysvsem.h"
#include "utils/contain/utlist.h"
#include "utils/unix/sysvbits.h"
#include "utils/unix/sysvregistry.h"
#include "utils/unix/utptmutex.h"

// One kernel set. _ident is 0 while no set is open.
class c_sysv_semaphore_set : public c_utils_link {
public:
    c_sysv_semaphore_set()
    {
        if (MAX_NSEMS == 0)
            get_max_semaphore_set_size();
    }
    ~c_sysv_semaphore_set() override { close(); }
    c_sysv_semaphore_set& operator=(c_sysv_semaphore_set&&) = delete;  // nor copies

    a_bool open();
    a_bool allocate_semaphore(a_sysv_semaphore* s);
    a_bool deallocate_semaphore(a_sysv_semaphore* s);
    a_bool is_full() const { return _num_used >= MAX_NSEMS; }
    a_bool is_empty() const { return _num_used == 0; }
    void close();
    void recount();  // in a forked child, which a thread of the parent may have left in the middle of a change
    a_bool is_registered() const { return sysv_registered_set(_ident) == this; }  // else the kernel set is gone

    static int64_t MAX_NSEMS;  // members of every set of the process; 0 until the first set is constructed

private:
    static void get_max_semaphore_set_size();

    int32 _ident = 0;
    int64_t _num_used = 0;
    c_bit_array* _bitarray = nullptr;  // null while no set is open, and for sets of one
    int64_t _first_fresh = 0;          // no member from this one on was ever handed out
};

class c_sysv_semaphore_set_list : public c_utils_list_base {
public:
    void insert(c_sysv_semaphore_set* set) { base_insert(set); }
    void append(c_sysv_semaphore_set* set) { base_append(set); }
    void insert_after(c_sysv_semaphore_set* where, c_sysv_semaphore_set* set) { base_insert_after(where, set); }
    void insert_before(c_sysv_semaphore_set* where, c_sysv_semaphore_set* set) { base_insert_before(where, set); }
    c_sysv_semaphore_set* get_first() { return static_cast<c_sysv_semaphore_set*>(base_get_first()); }
    c_sysv_semaphore_set* get_last() { return static_cast<c_sysv_semaphore_set*>(base_get_last()); }
    c_sysv_semaphore_set* next(c_sysv_semaphore_set* set) { return static_cast<c_sysv_semaphore_set*>(base_next(set)); }
};

class c_sysv_semaphore_set_iter : public c_utils_iter_base {
public:
    explicit c_sysv_semaphore_set_iter(c_sysv_semaphore_set_list& of) : c_utils_iter_base(of) {}
    void init(c_sysv_semaphore_set_list& of) { base_init(of); }
    c_sysv_semaphore_set* get() const { return static_cast<c_sysv_semaphore_set*>(base_get()); }
};

// The list of the process. Sets with a free member come before full ones, so only the first is asked for one.
class c_sysv_sema_set_list : public c_sysv_semaphore_set_list {
public:
    a_bool allocate_semaphore(a_sysv_semaphore* s);
    a_bool deallocate_semaphore(a_sysv_semaphore* s);
    void close_all_entries();
    void mutex_get() { _mutex.get(); }
    void mutex_give() { _mutex.give(); }
    void fork_child() { _mutex.fork_child(); }

private:
    void catch_up();
    void relink_after_fork();
    void drop_removed_sets();
    void relink(c_sysv_semaphore_set* set);

    uint32 _forks_seen = unix_fork_count();
    uint32 _removals_seen = sysv_removals();
    a_utpt_mutex _mutex;
};

void sysv_list_init_semaphore();
void sysv_list_fini_semaphore();
void sysv_list_fork_child();
