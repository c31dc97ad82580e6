// sysvsemo.h: the building blocks of the System V semaphores: the occupancy map, one kernel set, and the list of sets. All
// of it is used under the list's mutex; sysvsemo.cpp says how the cleanup by signal gets on without it.
#ifndef UNIX_SYSVSEMO_H
#define UNIX_SYSVSEMO_H

#include "corvex/sysvsem.h"
#include "utils/contain/utlist.h"
#include "utils/unix/utptmutex.h"

// A map of bits, bit i in word i / 32 from the least significant on. A set bit means that the member is in use. Without
// memory for its words it has no bits.
class c_bit_array {
public:
    c_bit_array(uint32 num_bits, a_bool cleared);
    ~c_bit_array();
    c_bit_array(const c_bit_array&) = delete;
    c_bit_array& operator=(const c_bit_array&) = delete;

    int get_first(a_bool setbit);       // lowest index whose bit is like that, -1 for none
    int get_last(a_bool setbit) const;  // highest
    int count_bits(a_bool setbit) const;
    uint32 get_size() const { return _size; }
    a_bool is_set(unsigned int bit_number) const;                           // FALSE beyond the end
    a_bool is_cleared(uint32 bit_number) const;                             // FALSE beyond the end
    a_bool set(uint32 bit_number) { return set_bit(bit_number, TRUE); }     // both give the bit's previous value and
    a_bool clear(uint32 bit_number) { return set_bit(bit_number, FALSE); }  // ignore an index beyond the end
    void set_all();
    void clear_all();

private:
    a_bool set_bit(uint32 bit_number, a_bool to_true);
    unsigned int count_bits(uint32 word, a_bool setbit) const;
    uint32 matching(uint32 word, a_bool setbit) const;

    uint32* _bitarray;
    uint32 _size;
    uint32 _num_elem;
    uint32 _first_clear;  // no word before this one has a cleared bit
};

// One kernel set. _ident is 0 while no set is open.
class c_sysv_semaphore_set : public c_utils_link {
public:
    c_sysv_semaphore_set();
    ~c_sysv_semaphore_set() override;

    a_bool open();
    a_bool allocate_semaphore(a_sysv_semaphore* s);
    a_bool deallocate_semaphore(a_sysv_semaphore* s);
    a_bool is_full() const { return _num_used >= MAX_NSEMS; }
    a_bool is_empty() const { return _num_used == 0; }
    a_bool is_foreign() const;  // the parent's, in a forked child
    void close();
    void recount();                // the members in use, from the map
    void forget() { _ident = 0; }  // the kernel set is gone already
    int32 ident() const { return _ident; }

    static int64_t MAX_NSEMS;  // members of every set of the process; 0 until the first set is constructed

private:
    static void get_max_semaphore_set_size();

    int32 _ident;
    int64_t _num_used;
    c_bit_array* _bitarray;  // null while no set is open, and for sets of one
    uint32 _forks;           // which process of a family opened it, as unix_fork_count counts them
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
    void forget_lost_set(int32 ident);
    void close_all_entries();
    void mutex_get() { _mutex.get(); }
    void mutex_give() { _mutex.give(); }
    // Signal-safe.
    void fork_child() { _mutex.fork_child(); }

private:
    void catch_up();
    void relink_after_fork();
    void drop_removed_sets();
    a_bool allocate_in_new_set(a_sysv_semaphore* s);

    a_utpt_mutex _mutex;
};

void sysv_list_init_semaphore();
void sysv_list_fini_semaphore();
void sysv_list_fork_child();
void sysv_sig_handler(int sig, void* dummy_arg, a_bool chained, a_bool chaining, a_bool cleanup, void* siginfo,
                      void* context);

#endif
