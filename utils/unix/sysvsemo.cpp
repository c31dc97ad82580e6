// sysvsemo.cpp: hands out single System V semaphores, out of kernel sets that it makes and removes.
//
// Kernel limits shape it: a set has at most 32000 members, making a full one costs a thousand times what a set of one
// does, SETVAL visits every member, and identifier 0, the first of a fresh namespace, reads as none: such a set is
// removed and asked for again.
//
// What the lists hold of sets that a cleanup by signal or somebody else has removed is freed by the next operation. A
// forked child inherits list and registry; the number of forks behind it tells its own sets from its parent's. For the
// cleanup and the shut-down all are its parent's until its fork handlers have run (unixfork.h). Not signal-safe but for
// the fork step and sysv_list_is_empty.
#include "utils/unix/sysvsemo.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <new>

#include "utils/etc/utenv.h"
#include "utils/unix/utonsig.h"

int64_t c_sysv_semaphore_set::MAX_NSEMS = 0;

namespace {

constexpr int set_flags = IPC_CREAT | 0777;
constexpr int64_t max_cheap_members = 64;  // of a set in which SETVAL is not dear
constexpr int max_value = 32767;           // of a semaphore

// The kernel's own name for the fourth argument of semctl.
union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
    struct seminfo* __buf;
};

c_sysv_sema_set_list* sysv_sema_list_p = nullptr;  // null before start-up and after shut-down
a_thread_count users;                              // that are inside open or close
void* sysv_onsig_handle = nullptr;
bool last_is_fresh = false;  // under the mutex: the member handed out last never was before, and SETVAL is dear

// The number 0 reads as none: such a set is removed and asked for again. So is a refused one, if that is wanted.
int new_kernel_set(int64_t members, bool refused_again)
{
    const int first = semget(IPC_PRIVATE, int(members), set_flags);
    if (first > 0 || (first < 0 && !refused_again))
        return first;
    sysv_remove_kernel_set(first);
    return semget(IPC_PRIVATE, int(members), set_flags);
}

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

// While a cleanup runs there is no list to open from or close in. Sequentially consistent, as the counts beside it.
c_sysv_sema_set_list* current_list()
{
    return sysv_sets_are_barred() ? nullptr : __atomic_load_n(&sysv_sema_list_p, __ATOMIC_SEQ_CST);
}

// A thread inside open or close, for a scope; it holds the list's mutex unless there is no list. Counted before the
// list is looked for: shut-down, which takes the list away first, sees every thread that may still have found it. A
// cleanup that begins now refuses new sets, and the kernel refuses members of those that it has removed.
class a_list_user {
public:
    a_list_user()
    {
        if (list != nullptr)
            list->mutex_get();
    }
    ~a_list_user()
    {
        if (list != nullptr)
            list->mutex_give();
    }
    a_list_user& operator=(a_list_user&&) = delete;  // nor copies

    const a_counted counted{users};
    c_sysv_sema_set_list* const list = current_list();
};

a_bool sysv_set_semval(a_sysv_semaphore* s, int value)
{
    semun arg;
    arg.val = value;
    return semctl(s->ident, s->offset, SETVAL, arg) != -1;
}

// A member that was never handed out has the value 0 and nobody's undo entries: what is added to it is its value then.
a_bool sysv_set_first_semval(a_sysv_semaphore* s, int value)
{
    if (value < 0 || value > max_value || s->offset > USHRT_MAX)
        return sysv_set_semval(s, value);
    struct sembuf add = {static_cast<unsigned short>(s->offset), short(value), 0};
    return value == 0 || semop(s->ident, &add, 1) != -1;
}

}  // namespace

// ---- c_sysv_semaphore_set ----

// The candidate is tried once; when the kernel refuses it, sets have one member: no smaller size is tried.
void c_sysv_semaphore_set::get_max_semaphore_set_size()
{
    const int candidate = candidate_size();
    const a_creation creation;
    if (!creation.allowed())
        return;
    const int probe = new_kernel_set(candidate, false);
    sysv_remove_kernel_set(probe);
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
    if (creation.allowed()) {
        _ident = new_kernel_set(MAX_NSEMS, true);
        if (_ident > 0 && sysv_register(_ident, this))
            return TRUE;
        sysv_remove_kernel_set(_ident);
    }
    _ident = 0;
    close();
    return FALSE;
}

a_bool c_sysv_semaphore_set::allocate_semaphore(a_sysv_semaphore* s)
{
    if (_ident == 0 || is_full() || sysv_is_foreign(_ident))
        return FALSE;
    const int offset = MAX_NSEMS == 1 ? 0 : _bitarray->get_first(FALSE);
    if (offset < 0)
        return FALSE;  // more members were given back than handed out
    if (MAX_NSEMS != 1)
        _bitarray->set(uint32(offset));
    last_is_fresh = MAX_NSEMS > max_cheap_members && offset >= _first_fresh;
    _first_fresh = offset >= _first_fresh ? offset + 1 : _first_fresh;
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

// After a reset the child may hand out members of its parent's set, which the parent has handed out meanwhile.
void c_sysv_semaphore_set::recount()
{
    if (_bitarray != nullptr)
        _num_used = _bitarray->count_bits(TRUE);
    _first_fresh = MAX_NSEMS;
}

// A parent's set is only forgotten.
void c_sysv_semaphore_set::close()
{
    if (is_registered()) {
        if (!sysv_is_foreign(_ident))
            semctl(_ident, int(MAX_NSEMS), IPC_RMID);
        sysv_unregister(_ident);
    }
    delete _bitarray;
    _bitarray = nullptr;
    _ident = 0;
    _num_used = _first_fresh = 0;
}

// ---- c_sysv_sema_set_list ----

// To where it belongs by its members in use.
void c_sysv_sema_set_list::relink(c_sysv_semaphore_set* set)
{
    set->unlink();
    if (set->is_full())
        append(set);
    else
        insert(set);
}

// A fork may have cut another thread's change of the list or of a set in two: the child links and counts all anew.
void c_sysv_sema_set_list::relink_after_fork()
{
    list.next = list.prev = &list;
    for (uint32 slot = 0; slot < sysv_used_slots(); slot++)
        if (c_sysv_semaphore_set* set = sysv_set_in_slot(slot); set != nullptr) {
            set->next = set->prev = set;
            set->recount();
            relink(set);
        }
}

// Frees what is left of sets that are gone from the kernel.
void c_sysv_sema_set_list::drop_removed_sets()
{
    c_sysv_semaphore_set_iter iter(*this);
    for (c_sysv_semaphore_set* set; (set = iter.get()) != nullptr;) {
        iter.next();
        if (!set->is_registered())
            delete set;
    }
}

// Brings the list up to what forks and cleanups have done since the last operation.
void c_sysv_sema_set_list::catch_up()
{
    if (_forks_seen != unix_fork_count()) {
        _forks_seen = unix_fork_count();
        relink_after_fork();
    }
    if (_removals_seen != sysv_removals()) {
        _removals_seen = sysv_removals();
        drop_removed_sets();
    }
}

a_bool c_sysv_sema_set_list::allocate_semaphore(a_sysv_semaphore* s)
{
    catch_up();
    c_sysv_semaphore_set* set = c_sysv_semaphore_set_iter(*this).get();
    if (set == nullptr || !set->allocate_semaphore(s)) {
        set = new c_sysv_semaphore_set;
        if (set == nullptr)
            return FALSE;
        if (!set->open() || !set->allocate_semaphore(s)) {
            delete set;
            return FALSE;
        }
    }
    if (set->is_full() || !set->is_linked())
        relink(set);
    return TRUE;
}

// The registry finds the set, so that closing costs the same however many are open.
a_bool c_sysv_sema_set_list::deallocate_semaphore(a_sysv_semaphore* s)
{
    catch_up();
    c_sysv_semaphore_set* set = sysv_registered_set(s->ident);
    if (set == nullptr || sysv_is_foreign(s->ident) || !set->deallocate_semaphore(s))
        return FALSE;
    if (set->is_empty())
        delete set;
    else
        relink(set);
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
    if (sysv_sema_list_p != nullptr)
        return;
    __atomic_store_n(&sysv_sema_list_p, new c_sysv_sema_set_list, __ATOMIC_SEQ_CST);
    sysv_onsig_handle = ut_onsig_call_add(onsig_cleanup_priority, sysv_sig_handler, nullptr);
}

// Whoever comes from now on finds no list, and who is inside soon leaves. If not, as when exit was called by a handler
// that has interrupted open or close, the list stays, and its mutex, and the sets are removed by the registry. The
// callback stays until all sets are closed: a signal in between finds the rest of them in the registry.
void sysv_list_fini_semaphore()
{
    c_sysv_sema_set_list* list = __atomic_exchange_n(&sysv_sema_list_p, nullptr, __ATOMIC_SEQ_CST);
    if (list == nullptr)
        return;
    if (unix_in_time([] { return users.now() == 0; })) {
        list->close_all_entries();
        delete list;
    } else {
        sysv_bar_and_remove_sets();
    }
    ut_onsig_call_del(sysv_onsig_handle, sysv_sig_handler);
    sysv_onsig_handle = nullptr;
}

// The list's mutex is free, whoever of the parent held it.
void sysv_list_fork_child()
{
    sysv_registry_fork_child();
    users.fork_child();
    if (sysv_sema_list_p != nullptr)
        sysv_sema_list_p->fork_child();
}

a_bool sysv_open_semaphore(a_sysv_semaphore* s, int initial_value)
{
    bool fresh;
    {
        const a_list_user user;
        if (user.list == nullptr || ut_onsig_will_do_cleanup() || !user.list->allocate_semaphore(s))
            return FALSE;
        fresh = last_is_fresh;
    }
    if (fresh ? sysv_set_first_semval(s, initial_value) : sysv_set_semval(s, initial_value))
        return TRUE;
    if (errno == EINVAL || errno == EIDRM)
        sysv_forget(s->ident);  // somebody else has removed the set: without it the next open makes a new one
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

a_bool sysv_list_is_empty(void) { return current_list() != nullptr && sysv_none_registered(); }
