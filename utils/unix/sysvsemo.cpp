// sysvsemo.cpp: hands out single System V semaphores and removes every kernel set that it created.
//
// Kernel limits shape it: a set has at most 32000 members, creating a full one costs a thousand times what a set of one
// does, and identifier 0, the first of a fresh namespace, reads as none: a set that came back as 0 is removed and asked
// for again.
//
// Lock: the list's mutex, a leaf. It guards the list, the sets and the registry's slots.
//
// The cleanup by signal takes no lock, allocates and frees nothing. It works on the registry, a table of the
// identifiers of all open sets: each is removed from the kernel first and cleared from the table then, so whoever walks
// the table to its end, even beside another walker, knows that all it found are gone. What the lists hold of removed
// sets is freed by the next ordinary operation. A set that is just being made is not in the table yet: its maker blocks
// all signals and counts itself in `creators` from before semget until the set is registered; the cleanup forbids new
// ones and waits for those that are on the way. They cannot be on the thread that the signal interrupted, so the wait
// ends soon; it is bounded all the same. Nothing can deadlock: nobody waits for a lock; nothing can leak: every set is
// registered, or not there, whenever a signal can come.
//
// A forked child inherits list and registry; the number of forks behind it tells its own sets from its parent's. For the
// cleanup and the shut-down all are its parent's until its fork handlers have run (unixfork.h).
#include "utils/unix/sysvsemo.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <new>

#include "corvex/forkprotection.h"
#include "utils/etc/utenv.h"
#include "utils/unix/unixfork.h"
#include "utils/unix/utcore.h"

int64_t c_sysv_semaphore_set::MAX_NSEMS = 0;

namespace {

constexpr uint32 bits_per_word = 32;
constexpr int set_flags = IPC_CREAT | 0777;
constexpr int cleanup_priority = 1000;  // of the cleanup in the on-signal chain
constexpr uint32 num_slots = 32768;     // as many sets as the kernel numbers, unless it was booted to number more
constexpr int max_waits = 5000;         // for creators, a millisecond each

// The kernel's own name for the fourth argument of semctl.
union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
    struct seminfo* __buf;
};

// ---- the registry ----

// An entry: the process of the family that opened the set in the high half, the identifier (0: free) in the low half.
constexpr uint64 entry_of(uint32 forks, int32 ident) { return uint64(forks) << 32 | uint32(ident); }
constexpr int32 ident_of(uint64 entry) { return int32(uint32(entry)); }
constexpr uint32 forks_of(uint64 entry) { return uint32(entry >> 32); }

uint64 registry[num_slots];
c_sysv_semaphore_set* registered_sets[num_slots];  // stored before, and valid while, the entry is there
// How far from its home slot any entry was put; 0 where the kernel numbers sets below 32768.
uint32 max_displacement = 0;
uint32 used_slots = 0;  // no entry from this slot on
int32 num_registered = 0;

a_thread_count creators;   // that are making a kernel set
a_thread_count cleaners;   // that are inside the cleanup
uint32 cleanups = 0;       // cleanups that have ended
uint32 cleanups_seen = 0;  // those that the list has caught up with
uint32 forks_seen = 0;     // the same for forks

constexpr uint32 slot_of(int32 ident, uint32 displacement) { return (uint32(ident) + displacement) % num_slots; }

// Acquire: who sees an entry sees its set.
// Signal-safe.
uint64 entry_at(uint32 slot) { return __atomic_load_n(&registry[slot], __ATOMIC_ACQUIRE); }

// The slot of a set, num_slots when it has none.
// Signal-safe.
uint32 find_slot(int32 ident)
{
    for (uint32 displacement = 0; displacement <= max_displacement; displacement++)
        if (ident_of(entry_at(slot_of(ident, displacement))) == ident)
            return slot_of(ident, displacement);
    return num_slots;
}

// Relaxed count: it only answers sysv_list_is_empty. The entry may be cleared by another walker at the same time; one of them counts.
// Signal-safe.
void clear_entry(uint32 slot, uint64 entry)
{
    if (entry != 0 &&
        __atomic_compare_exchange_n(&registry[slot], &entry, uint64(0), false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
        __atomic_sub_fetch(&num_registered, 1, __ATOMIC_RELAXED);
}

// Drops a set that the kernel does not have any more.
// Not signal-safe: under the list's mutex.
void forget_set(uint32 slot)
{
    c_sysv_semaphore_set* set = registered_sets[slot];
    clear_entry(slot, entry_at(slot));
    set->forget();
    delete set;
}

// Signal-safe.
bool is_gone(int32 ident)
{
    struct semid_ds unused;
    semun arg;
    arg.buf = &unused;
    return semctl(ident, 0, IPC_STAT, arg) == -1 && (errno == EINVAL || errno == EIDRM);
}

// False when the table is full. The kernel gives numbers out again, and a home slot with them: what a forked child's
// parent has removed, or somebody else, still stands here and gives way.
// Not signal-safe: under the list's mutex.
bool register_set(int32 ident, uint32 forks, c_sysv_semaphore_set* set)
{
    if (find_slot(ident) != num_slots)
        forget_set(find_slot(ident));
    for (uint32 displacement = 0; displacement < num_slots; displacement++) {
        const uint32 slot = slot_of(ident, displacement);
        if (entry_at(slot) != 0 && is_gone(ident_of(entry_at(slot))))
            forget_set(slot);
        if (entry_at(slot) != 0)
            continue;
        registered_sets[slot] = set;
        max_displacement = displacement > max_displacement ? displacement : max_displacement;
        if (slot >= used_slots)
            __atomic_store_n(&used_slots, slot + 1, __ATOMIC_RELEASE);
        __atomic_add_fetch(&num_registered, 1, __ATOMIC_RELAXED);
        __atomic_store_n(&registry[slot], entry_of(forks, ident), __ATOMIC_RELEASE);
        return true;
    }
    return false;
}

// Signal-safe.
bool is_foreign(uint32 forks) { return UnixForkProtection_IsChild() && forks != unix_fork_count(); }

// Signal-safe.
void remove_kernel_set(int32 ident) { semctl(ident, 0, IPC_RMID); }

// Signal-safe.
void remove_registered_sets()
{
    const uint32 end = __atomic_load_n(&used_slots, __ATOMIC_ACQUIRE);
    for (uint32 slot = 0; slot < end; slot++) {
        const uint64 entry = entry_at(slot);
        if (entry == 0 || is_foreign(forks_of(entry)))
            continue;
        remove_kernel_set(ident_of(entry));
        clear_entry(slot, entry);
    }
}

// ---- making kernel sets ----

// All signals are blocked while one of these exists.
class a_signal_free_scope {
public:
    a_signal_free_scope()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &kept);
    }
    ~a_signal_free_scope() { pthread_sigmask(SIG_SETMASK, &kept, nullptr); }
    a_signal_free_scope(const a_signal_free_scope&) = delete;
    a_signal_free_scope& operator=(const a_signal_free_scope&) = delete;

private:
    sigset_t kept;
};

// The cleanup waits while one of these exists: either it sees this creator, or the creator sees it.
class a_creation {
public:
    a_creation() : counted(creators) {}

    bool allowed() const { return cleaners.now() == 0 && !ut_onsig_will_do_cleanup(); }

private:
    a_signal_free_scope signal_free;
    a_counted counted;
};

int new_kernel_set(int64_t members) { return semget(IPC_PRIVATE, int(members), set_flags); }

// What TBX_MAX_NSEMS or else the kernel says a set may hold.
int candidate_size()
{
    const char* wanted = ut_getenv2("TBX_MAX_NSEMS");
    if (wanted != nullptr && atoi(wanted) > 0)
        return atoi(wanted);
    struct seminfo info = {};
    semun arg;
    arg.__buf = &info;
    return semctl(0, 0, SEM_INFO, arg) >= 0 && info.semmsl > 0 ? info.semmsl : 1;
}

// ---- the list ----

c_sysv_sema_set_list* sysv_sema_list_p = nullptr;  // null before start-up and after shut-down
a_thread_count users;                              // that are inside open or close
void* sysv_onsig_handle = nullptr;

// Acquire: who sees the list sees it constructed.
// Signal-safe.
c_sysv_sema_set_list* list_of_process() { return __atomic_load_n(&sysv_sema_list_p, __ATOMIC_ACQUIRE); }

// While a cleanup runs there is no list to open from or close in.
// Signal-safe.
c_sysv_sema_set_list* current_list() { return cleaners.now() == 0 ? list_of_process() : nullptr; }

// A thread inside open or close, for a scope; it holds the list's mutex unless there is no list. Counted before the
// list is looked for, so that shut-down, which takes the list away first, sees every thread that may still have found
// it.
class a_list_user {
public:
    a_list_user() : counted(users)
    {
        c_sysv_sema_set_list* found = current_list();
        if (found == nullptr)
            return;
        found->mutex_get();
        if (current_list() == found)
            list = found;
        else
            found->mutex_give();
    }
    ~a_list_user()
    {
        if (list != nullptr)
            list->mutex_give();
    }
    a_list_user(const a_list_user&) = delete;
    a_list_user& operator=(const a_list_user&) = delete;

    c_sysv_sema_set_list* list = nullptr;

private:
    a_counted counted;
};

a_bool sysv_set_semval(a_sysv_semaphore* s, int value)
{
    semun arg;
    arg.val = value;
    return semctl(s->ident, s->offset, SETVAL, arg) != -1;
}

void forget_lost_set(int32 ident)
{
    const a_list_user user;
    if (user.list != nullptr)
        user.list->forget_lost_set(ident);
}

// Waits, bounded, until a count has come down to zero. By a plain system call: poll is a cancellation point, and a
// thread must not vanish in the middle of the cleanup.
// Signal-safe.
void wait_for_none(const a_thread_count& count)
{
    for (int i = 0; i < max_waits && count.now() > 0; i++)
        syscall(SYS_poll, nullptr, 0, 1);
}

}  // namespace

// ---- c_bit_array ----

c_bit_array::c_bit_array(uint32 num_bits, a_bool cleared)
    : _bitarray(nullptr), _size(num_bits), _num_elem(0), _first_clear(0)
{
    if (num_bits == 0)
        return;
    _num_elem = (num_bits + bits_per_word - 1) / bits_per_word;
    _bitarray = static_cast<uint32*>(ut_malloc(_num_elem * sizeof(uint32)));
    if (_bitarray == nullptr)
        _size = _num_elem = 0;
    else if (cleared)
        clear_all();
}

c_bit_array::~c_bit_array()
{
    ut_free(_bitarray);
    _bitarray = nullptr;
    _size = _num_elem = 0;
}

// The bits of a word that are like that, none beyond the end.
uint32 c_bit_array::matching(uint32 word, a_bool setbit) const
{
    const uint32 bits = setbit ? _bitarray[word] : ~_bitarray[word];
    const uint32 valid = _size - word * bits_per_word;
    return valid >= bits_per_word ? bits : bits & ((1u << valid) - 1);
}

int c_bit_array::get_first(a_bool setbit)
{
    for (uint32 word = setbit ? 0 : _first_clear; word < _num_elem; word++) {
        const uint32 bits = matching(word, setbit);
        if (!setbit)
            _first_clear = word;
        if (bits != 0)
            return int(word * bits_per_word) + __builtin_ctz(bits);
    }
    return -1;
}

int c_bit_array::get_last(a_bool setbit) const
{
    for (uint32 word = _num_elem; word-- > 0;)
        if (matching(word, setbit) != 0)
            return int(word * bits_per_word) + 31 - __builtin_clz(matching(word, setbit));
    return -1;
}

unsigned int c_bit_array::count_bits(uint32 word, a_bool setbit) const
{
    return unsigned(__builtin_popcount(matching(word, setbit)));
}

int c_bit_array::count_bits(a_bool setbit) const
{
    unsigned count = 0;
    for (uint32 word = 0; word < _num_elem; word++)
        count += count_bits(word, setbit);
    return int(count);
}

a_bool c_bit_array::is_set(unsigned int bit_number) const
{
    return bit_number < _size && (_bitarray[bit_number / bits_per_word] >> bit_number % bits_per_word & 1) != 0;
}

a_bool c_bit_array::is_cleared(uint32 bit_number) const { return bit_number < _size && !is_set(bit_number); }

a_bool c_bit_array::set_bit(uint32 bit_number, a_bool to_true)
{
    if (bit_number >= _size)
        return FALSE;
    const a_bool old_value = is_set(bit_number);
    const uint32 word = bit_number / bits_per_word, bit = 1u << bit_number % bits_per_word;
    if (to_true)
        _bitarray[word] |= bit;
    else
        _bitarray[word] &= ~bit;
    if (!to_true && word < _first_clear)
        _first_clear = word;
    return old_value;
}

void c_bit_array::set_all()
{
    if (_num_elem == 0)
        return;
    memset(_bitarray, 0xFF, _num_elem * sizeof(uint32));
    _first_clear = _num_elem;
}

void c_bit_array::clear_all()
{
    if (_num_elem == 0)
        return;
    memset(_bitarray, 0, _num_elem * sizeof(uint32));
    _first_clear = 0;
}

// ---- c_sysv_semaphore_set ----

c_sysv_semaphore_set::c_sysv_semaphore_set() : _ident(0), _num_used(0), _bitarray(nullptr), _forks(unix_fork_count())
{
    if (MAX_NSEMS == 0)
        get_max_semaphore_set_size();
}

c_sysv_semaphore_set::~c_sysv_semaphore_set() { c_sysv_semaphore_set::close(); }

a_bool c_sysv_semaphore_set::is_foreign() const { return ::is_foreign(_forks); }

// The candidate is tried once; when the kernel refuses it, sets have one member: no smaller size is tried.
void c_sysv_semaphore_set::get_max_semaphore_set_size()
{
    const int candidate = candidate_size();
    const a_creation creation;
    if (!creation.allowed())
        return;
    int probe = new_kernel_set(candidate);
    if (probe == 0) {
        remove_kernel_set(probe);
        probe = new_kernel_set(candidate);
    }
    if (probe >= 0)
        remove_kernel_set(probe);
    MAX_NSEMS = probe > 0 ? candidate : 1;
}

// The map comes first: a set is complete when it is registered, since a fork may find it there at any moment.
a_bool c_sysv_semaphore_set::open()
{
    if (MAX_NSEMS == 0)
        return FALSE;
    if (MAX_NSEMS != 1) {
        _bitarray = new (std::nothrow) c_bit_array(uint32(MAX_NSEMS), TRUE);
        if (_bitarray == nullptr || _bitarray->get_size() == 0)
            return FALSE;
    }
    const a_creation creation;
    if (!creation.allowed())
        return FALSE;
    _forks = unix_fork_count();  // here, where no handler can fork any more
    _ident = new_kernel_set(MAX_NSEMS);
    if (_ident <= 0) {
        remove_kernel_set(_ident);
        _ident = new_kernel_set(MAX_NSEMS);
    }
    if (_ident > 0 && register_set(_ident, _forks, this))
        return TRUE;
    if (_ident >= 0)
        remove_kernel_set(_ident);
    _ident = 0;
    return FALSE;
}

a_bool c_sysv_semaphore_set::allocate_semaphore(a_sysv_semaphore* s)
{
    if (_ident == 0 || is_full() || is_foreign())
        return FALSE;
    const int offset = MAX_NSEMS == 1 ? 0 : _bitarray->get_first(FALSE);
    if (offset < 0)
        return FALSE;  // more members were given back than handed out
    if (MAX_NSEMS != 1)
        _bitarray->set(uint32(offset));
    *s = {_ident, offset};
    _num_used++;
    return TRUE;
}

a_bool c_sysv_semaphore_set::deallocate_semaphore(a_sysv_semaphore* s)
{
    if (s->ident != _ident || (MAX_NSEMS == 1 && s->offset != 0))
        return FALSE;
    if (MAX_NSEMS != 1)
        _bitarray->clear(uint32(s->offset));
    _num_used--;
    return TRUE;
}

void c_sysv_semaphore_set::recount()
{
    if (_bitarray != nullptr)
        _num_used = _bitarray->count_bits(TRUE);
}

// A parent's set is only forgotten.
void c_sysv_semaphore_set::close()
{
    if (_ident > 0) {
        const uint32 slot = find_slot(_ident);
        if (!is_foreign())
            semctl(_ident, int(MAX_NSEMS), IPC_RMID);
        if (slot != num_slots)
            clear_entry(slot, entry_at(slot));
    }
    delete _bitarray;
    _bitarray = nullptr;
    _ident = 0;
    _num_used = 0;
}

// ---- c_sysv_sema_set_list ----

// A fork may have cut another thread's change of the list or of a set in two: the child links and counts all anew.
void c_sysv_sema_set_list::relink_after_fork()
{
    int32 registered = 0;
    list.next = list.prev = &list;
    for (uint32 slot = 0; slot < used_slots; slot++) {
        if (entry_at(slot) == 0)
            continue;
        registered++;
        c_sysv_semaphore_set* set = registered_sets[slot];
        set->next = set->prev = set;
        set->recount();
        if (set->is_full())
            append(set);
        else
            insert(set);
    }
    __atomic_store_n(&num_registered, registered, __ATOMIC_RELAXED);
}

// Somebody else has removed the set from the kernel: without it the next open makes a new one.
void c_sysv_sema_set_list::forget_lost_set(int32 ident)
{
    catch_up();
    const uint32 slot = find_slot(ident);
    if (slot != num_slots)
        forget_set(slot);
}

// Frees what is left of sets that a cleanup by signal has removed from the kernel.
void c_sysv_sema_set_list::drop_removed_sets()
{
    c_sysv_semaphore_set_iter iter(*this);
    for (c_sysv_semaphore_set* set; (set = iter.get()) != nullptr;) {
        iter.next();
        if (find_slot(set->ident()) != num_slots)
            continue;
        set->forget();
        delete set;
    }
}

// Brings the list up to what forks and cleanups have done since the last operation.
void c_sysv_sema_set_list::catch_up()
{
    if (forks_seen != unix_fork_count()) {
        forks_seen = unix_fork_count();
        relink_after_fork();
    }
    const uint32 ended = __atomic_load_n(&cleanups, __ATOMIC_ACQUIRE);
    if (cleanups_seen != ended) {
        cleanups_seen = ended;
        drop_removed_sets();
    }
}

a_bool c_sysv_sema_set_list::allocate_semaphore(a_sysv_semaphore* s)
{
    catch_up();
    c_sysv_semaphore_set_iter iter(*this);
    c_sysv_semaphore_set* set = iter.get();
    if (set == nullptr || !set->allocate_semaphore(s))
        return allocate_in_new_set(s);
    if (set->is_full()) {
        set->unlink();
        append(set);
    }
    return TRUE;
}

a_bool c_sysv_sema_set_list::allocate_in_new_set(a_sysv_semaphore* s)
{
    c_sysv_semaphore_set* set = new c_sysv_semaphore_set;
    if (set == nullptr)
        return FALSE;
    if (!set->open() || !set->allocate_semaphore(s)) {
        delete set;
        return FALSE;
    }
    if (set->is_full())
        append(set);
    else
        insert(set);
    return TRUE;
}

// The registry finds the set, so that closing costs the same however many are open.
a_bool c_sysv_sema_set_list::deallocate_semaphore(a_sysv_semaphore* s)
{
    catch_up();
    const uint32 slot = find_slot(s->ident);
    if (slot == num_slots || registered_sets[slot]->is_foreign() || !registered_sets[slot]->deallocate_semaphore(s))
        return FALSE;
    c_sysv_semaphore_set* set = registered_sets[slot];
    set->unlink();
    if (set->is_empty())
        delete set;
    else
        insert(set);
    return TRUE;
}

void c_sysv_sema_set_list::close_all_entries()
{
    catch_up();
    while (c_sysv_semaphore_set* set = get_first())
        delete set;
}

// ---- the library's part ----

void sysv_list_init_semaphore()
{
    if (list_of_process() != nullptr)
        return;
    __atomic_store_n(&sysv_sema_list_p, new c_sysv_sema_set_list, __ATOMIC_RELEASE);
    sysv_onsig_handle = ut_onsig_call_add(cleanup_priority, sysv_sig_handler, nullptr);
}

// The callback stays until all sets are closed: a signal in between finds the rest of them in the registry. Threads may
// still be inside open or close: they find no list, and the list waits for them, or is left to them when they do not
// leave.
void sysv_list_fini_semaphore()
{
    c_sysv_sema_set_list* list = list_of_process();
    if (list == nullptr)
        return;
    list->mutex_get();
    __atomic_store_n(&sysv_sema_list_p, nullptr, __ATOMIC_SEQ_CST);
    list->close_all_entries();
    list->mutex_give();
    ut_onsig_call_del(sysv_onsig_handle, sysv_sig_handler);
    sysv_onsig_handle = nullptr;
    wait_for_none(users);
    if (users.now() == 0)
        delete list;
}

// The list's mutex is free, whoever of the parent held it.
// Signal-safe.
void sysv_list_fork_child()
{
    creators.fork_child();
    cleaners.fork_child();
    users.fork_child();
    if (list_of_process() != nullptr)
        list_of_process()->fork_child();
}

// The cleanup by signal, see the head of this file.
// Signal-safe.
void sysv_sig_handler(int, void*, a_bool, a_bool, a_bool cleanup, void*, void*)
{
    if (!cleanup || !unix_is_home_process())
        return;
    const int kept = errno;
    const a_counted cleaner(cleaners);
    wait_for_none(creators);
    remove_registered_sets();
    __atomic_add_fetch(&cleanups, 1u, __ATOMIC_RELEASE);
    errno = kept;
}

a_bool sysv_open_semaphore(a_sysv_semaphore* s, int initial_value)
{
    {
        const a_list_user user;
        if (user.list == nullptr || ut_onsig_will_do_cleanup() || !user.list->allocate_semaphore(s))
            return FALSE;
    }
    if (sysv_set_semval(s, initial_value))
        return TRUE;
    if (errno == EINVAL || errno == EIDRM)
        forget_lost_set(s->ident);
    else
        sysv_close_semaphore(s);
    return FALSE;
}

void sysv_close_semaphore(a_sysv_semaphore* s)
{
    if (s == nullptr || s->ident <= 0)
        return;
    const a_list_user user;
    if (user.list != nullptr)
        user.list->deallocate_semaphore(s);
}

// Relaxed: the answer may be old at once.
// Signal-safe.
a_bool sysv_list_is_empty(void)
{
    return current_list() != nullptr && __atomic_load_n(&num_registered, __ATOMIC_RELAXED) == 0;
}
