// hist_store.h: the records of the event history, its store, and the invariants that hold between its files.
//
// A queue is a ring of ut_hist_debug_num records; the next write goes to slot `next`:
//
//     not wrapped                              wrapped
//     |#####.........|                         |#####o########|
//      ^    ^next = first free                      ^next = oldest, the next to be overwritten
//      oldest                                        ^next + 1 = where a dump begins
//
// Every record carries a sequence word made from the ring's lap: odd while the record is written, even when
// it is whole, and 2 higher each lap. A reader without the lock takes the word, the fields and the word
// again: two equal even values mean one whole record. All fields are stored with release and loaded with
// acquire order between the two looks at the word: a reader that saw one field of a newer record then also
// sees the newer sequence word. (That spares fences, which ThreadSanitizer does not model, and costs nothing
// on x86.) `next` is published after the record is whole, so the slot being written is always the one that a
// dump leaves out.
//
// The data ring's generation and fill offset share one word, moved before the bytes are copied: a reader that
// copied a byte of a newer block then also sees that its own block is gone.
//
// Locks and their order: a queue's mutex (several in ascending queue order), then at most one timer list's
// mutex. hist_ids_mutex is taken alone. Nothing here allocates after start-up; the store outlives everything
// that reads it.
#ifndef UTHIST_HIST_STORE_H
#define UTHIST_HIST_STORE_H

#include <signal.h>
#include <sys/time.h>

#include "corvex/hist.h"
#include "corvex/ptmutex.h"
#include "utils/unix/unixfork.h"

struct a_ut_hist_dump;

enum a_key : int32 { K_EV = 0, K_BEG = 1, K_END = 2, K_OTHER = 3, K_LAST = 4 };

inline constexpr a_key cl_to_key[UT_HIST_CL_LAST + 1] = {K_OTHER, K_EV, K_OTHER, K_BEG, K_END, K_OTHER};
inline constexpr const char* key_names[K_LAST + 1] = {"EV ", "BEG", "END", "DAT", "???"};
inline constexpr const char* hist_cl_strs[UT_HIST_CL_LAST] = {" N", " -", " +", " >", " <"};

inline constexpr uint32 hist_max_threads = 256;  // thread slots that record
inline constexpr uint32 hist_max_queues = 32;
inline constexpr uint32 hist_max_parms = 8;
inline constexpr uint32 hist_max_timers = 32;  // of one timer list
inline constexpr uint32 hist_no_dur = 0xFFFFFFFF;
inline constexpr size_t cache_line = 64;

// The 24 bytes in front make `sigset`, which is seldom used, fill two cache lines of its own: an event touches the
// first line and the last two.
struct alignas(cache_line) a_ut_hist_event {
    uint32 seq;
    uint32 unused[5];
    struct timeval time_of_day;
    char* file;  // copy mode: this slot's piece of the queue's text block; else borrowed from the caller
    uint32 line;
    uint32 num;
    uint32 thread;
    int32 got_sigs;
    sigset_t sigset;
    int32 prio;  // always 0, as the ring was allocated
    uint32 dur;
    int32 cl;
    a_ut_hist_id id;  // the id's text, held like `file`
    char* ev;         // held like `file`
    int32 pn;
    void* p[hist_max_parms];
    uint32 data_gen;
    uint32 data_idx;
};
static_assert(offsetof(a_ut_hist_event, sigset) == 1 * cache_line);
static_assert(offsetof(a_ut_hist_event, prio) == 3 * cache_line);
static_assert(sizeof(a_ut_hist_event) == 5 * cache_line);

// Position of a ring: how often it has come back to slot 0, and the slot to be written next. One word, so that a reader
// sees both of one moment; together they count the records ever written.
struct a_ring_pos {
    uint32 laps;
    uint32 next;
    constexpr bool wrapped() const { return laps != 0; }
};
inline constexpr uint64 pack_ring(a_ring_pos at) { return uint64(at.laps) << 32 | at.next; }
inline constexpr a_ring_pos unpack_ring(uint64 word) { return {uint32(word >> 32), uint32(word)}; }

// A ring that has wrapped stays wrapped when the count of its laps does: it goes on at a number with the same words.
inline constexpr uint32 next_lap(uint32 laps) { return laps == UINT32_MAX ? 0x80000000 : laps + 1; }
inline constexpr a_ring_pos next_slot(a_ring_pos at, uint32 ring_size)
{
    if (at.next + 1 == ring_size) [[unlikely]]
        return {next_lap(at.laps), 0};
    return unpack_ring(pack_ring(at) + 1);  // one addition to the packed word, wherever it is not unpacked
}

// Sequence words of a record written in a lap.
inline constexpr uint32 seq_writing(uint32 laps) { return 2 * laps + 1; }
inline constexpr uint32 seq_whole(uint32 laps) { return 2 * laps + 2; }

// Position of a data ring: generation in the high half, fill offset in the low half.
struct a_data_pos {
    uint32 data_gen;
    uint32 data_fil;
};
inline constexpr uint64 pack_data(a_data_pos at) { return uint64(at.data_gen) << 32 | at.data_fil; }
inline constexpr a_data_pos unpack_data(uint64 word) { return {uint32(word >> 32), uint32(word)}; }

struct alignas(cache_line) a_ut_hist_event_list {
    a_critical_sect mutex;
    uint64 ring_pos;       // a_ring_pos, packed
    a_ut_hist_event* evs;  // owned
    uint64 data_pos;       // a_data_pos, packed
    char* data_buf;        // owned; null while data capture is off
    char* texts;           // owned; copy mode: the texts of all slots, one after the other, else null
};
static_assert(sizeof(a_ut_hist_event_list) == cache_line);

struct a_ut_hist_timer {
    int32 id;
    int32 id_key;
    uint32 count;
    uint32 min;
    uint32 max;
    uint64 total;
};

struct a_ut_hist_timer_list {
    a_critical_sect mutex;
    int32 missed;
    int32 num;
    a_ut_hist_timer ids[hist_max_timers];
};

struct a_ut_hist_id_data {
    char* file;  // owned, or null
    uint32 line;
    char* desc;  // owned
    a_ut_hist_timer_list by_key[K_LAST];
};

// What the history keeps of one thread slot. Touched only by the slot's thread, or by several when their slots collide,
// so all accesses but those of `own_q` are atomic.
struct alignas(cache_line) a_ut_hist_thread {
    int32 own_q;  // the queue that only this thread writes, 0 when it has none; set at start-up
    int32 last_marker_ii;
    a_ut_hist_loc last_marker_loc;
    int32 recursing[hist_max_queues];  // 1 while the thread is inside ut_hist_add for that queue
};

// A dump runs from `running` to `idle`. A SIGUSR1 that finds one running leaves `wanted`, and the dump that runs writes
// another when it is done. `closed`: there is no store. The state shares one word with the thread whose dump runs (0:
// none), so that no handler finds the one without the other. A thread is known by its control block, which has a large
// alignment and which a fork leaves in its place.
enum a_dump_state : uint64 { DUMP_CLOSED = 0, DUMP_IDLE = 1, DUMP_RUNNING = 2, DUMP_WANTED = 3 };
inline constexpr uint64 dump_state_bits = 3;
inline constexpr uint64 pack_dump(a_dump_state state, uint64 owner = 0) { return owner | state; }

struct alignas(cache_line) a_ut_hist_store {
    // Read by every event, written by start-up and shut-down, and now and then by a registration or a dump.
    a_ut_hist_event_list* hist_evs;  // owned, hist_num_q queues
    a_ut_hist_id_data* hist_ids;     // owned, or null
    int32 hist_num_ids;
    bool hist_initialized;
    bool hist_ok_to_dump;
    int32 sig_handler_installed;
    uint32 fork_count;     // unix_fork_count, on a line that every event reads
    a_ut_hist_dump* dump;  // owned; the buffers of the one dump that may run
    a_critical_sect hist_ids_mutex;
    uint64 dump_state;     // a_dump_state and its owner, packed
    bool closing;          // shut-down is about to free the store
    a_thread_count users;  // inside a dump or a registration, see a_hist_user

    // Written by every event of every thread: a line of its own.
    alignas(cache_line) uint32 hist_count;
    alignas(cache_line) uint32 events_missed;
    uint32 last_missed_thread;

    a_ut_hist_thread threads[hist_max_threads];
};
extern a_ut_hist_store hist;

// Bytes of one text in a slot's piece of the text block: whole blocks, since the recorder stores blocks.
inline constexpr size_t text_block = 16;
inline constexpr size_t text_bytes(int32 max_len) { return (size_t(max_len) + text_block) / text_block * text_block; }

// What a later event needs of an earlier record.
struct an_earlier_event {
    struct timeval time_of_day;
    int32 cl;
};
bool hist_live(const a_ut_hist_loc& loc, an_earlier_event& found);
uint32 hist_elapsed(const struct timeval& from, const struct timeval& to);

void hist_reset_thread(a_ut_hist_thread& thread);
void hist_pass_unfinished(a_ut_hist_event_list& queue);
void hist_store_forget();
bool hist_store_alloc();
void hist_store_free(bool destroy_queue_locks);

// One mutex of the history for a scope; a null one is left alone. A fork in a signal handler that interrupted the
// holder frees the mutex in the child, so there the holder must not unlock it a second time. The count is read once the
// mutex is held: a fork before that leaves it to the child to lock, and so to unlock. (One between the two makes the child
// unlock a free mutex, which does not harm it.)
class a_hist_lock {
public:
    // Not signal-safe: it locks.
    explicit a_hist_lock(a_critical_sect* section) : mutex(section)
    {
        if (mutex != nullptr)
            pthread_mutex_lock(mutex->p_mutex);
        forks = __atomic_load_n(&hist.fork_count, __ATOMIC_RELAXED);
    }
    // Not signal-safe: it unlocks.
    ~a_hist_lock()
    {
        if (mutex != nullptr && !forked())
            pthread_mutex_unlock(mutex->p_mutex);
    }
    // Whether this is a child that a handler has forked meanwhile.
    // Signal-safe.
    bool forked() const { return forks != __atomic_load_n(&hist.fork_count, __ATOMIC_RELAXED); }
    a_hist_lock(const a_hist_lock&) = delete;
    a_hist_lock& operator=(const a_hist_lock&) = delete;

private:
    a_critical_sect* mutex;
    uint32 forks;
};

// A thread that dumps or registers an id, for a scope. Shut-down first sets `closing` and then waits for the users: either
// it sees this one, or this one sees that it closes.
class a_hist_user {
public:
    // Looks first, so that shut-down does not wait for those that come after it.
    // Signal-safe.
    a_hist_user() : counted(store_stands())
    {
        if (counted)
            hist.users.enter();
    }
    // Signal-safe.
    ~a_hist_user()
    {
        if (counted)
            hist.users.leave();
    }
    a_hist_user(const a_hist_user&) = delete;
    a_hist_user& operator=(const a_hist_user&) = delete;

    // Signal-safe.
    bool has_store() const { return counted && store_stands(); }

private:
    // Acquire: who finds the dump open finds the whole store.
    // Signal-safe.
    static bool store_stands()
    {
        return !__atomic_load_n(&hist.closing, __ATOMIC_SEQ_CST) &&
               __atomic_load_n(&hist.dump_state, __ATOMIC_ACQUIRE) != pack_dump(DUMP_CLOSED);
    }

    bool counted;
};

// All queues' mutexes for a scope, taken and given back in ascending order.
class a_hist_lock_all {
public:
    a_hist_lock_all();
    ~a_hist_lock_all();
    a_hist_lock_all(const a_hist_lock_all&) = delete;
    a_hist_lock_all& operator=(const a_hist_lock_all&) = delete;

private:
    uint32 forks[hist_max_queues];  // of each as in a_hist_lock
};

#endif
