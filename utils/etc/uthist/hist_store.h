// hist_store.h: the records of the event history, its store, and the invariants that hold between its files.
//
// The store is one mapping, made by start-up and laid out from one table of sections (hist_store.cpp): queues, rings of
// records, texts, data rings, registry, timers, the settings, a dump's buffers, thread slots. Nothing is allocated
// after start-up but the texts of registered ids that are longer than their place. All its pages are present from the
// start, but for thread slots beyond the first 256, which become so when they are claimed. What stands in it points
// only into it, into the pools of mutexes, or, in pointer mode, to texts of the program.
//
// Locks and their order: a queue's mutex (several in ascending queue order), then at most one timer list's mutex.
// hist_ids_mutex is taken alone. Not signal-safe, but what says so.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include "utils/etc/uthist/hist_config.h"
#include "utils/unix/unixfork.h"
#include "utils/unix/utptmutex.h"

enum a_key : int32 { K_EV = 0, K_BEG = 1, K_END = 2, K_OTHER = 3, K_LAST = 4 };

inline constexpr a_key cl_to_key[UT_HIST_CL_LAST + 1] = {K_OTHER, K_EV, K_OTHER, K_BEG, K_END, K_OTHER};
inline constexpr const char* key_names[K_LAST + 1] = {"EV ", "BEG", "END", "DAT", "???"};
inline constexpr const char* hist_cl_strs[UT_HIST_CL_LAST] = {" N", " -", " +", " >", " <"};

inline constexpr uint32 hist_max_parms = 8;
inline constexpr uint32 hist_max_timers = 32;  // of one timer list
inline constexpr uint32 hist_no_dur = 0xFFFFFFFF;

// The 24 bytes in front make `sigset`, which is seldom used, fill two cache lines of its own: an event touches the
// first line and the last two. hist_ring.h says what the sequence word means.
struct alignas(cache_line) a_ut_hist_event {
    uint32 seq;
    uint32 newest;  // 1 while no later event of its thread is in the queue; kept with thread tables only
    uint32 unused[4];
    struct timeval time_of_day;
    char* file;  // copy mode: this slot's piece of the queue's text block; else borrowed from the caller
    uint32 line;
    uint32 num;
    uint32 thread;
    int32 got_sigs;
    sigset_t sigset;
    int32 prio;  // always 0, as the ring was mapped
    uint32 dur;
    int32 cl;
    a_ut_hist_id id;  // the id's text, held like `file`; pointer mode: or a number that is no address, see hist_texts.h
    char* ev;         // held like `file`
    int32 pn;
    void* p[hist_max_parms];
    uint32 data_gen;
    uint32 data_idx;
};
static_assert(offsetof(a_ut_hist_event, sigset) == 1 * cache_line);
static_assert(offsetof(a_ut_hist_event, prio) == 3 * cache_line);
static_assert(sizeof(a_ut_hist_event) == 5 * cache_line);

struct alignas(cache_line) a_ut_hist_event_list {
    a_critical_sect mutex;
    uint64 ring_pos;  // a_ring_pos, packed
    a_ut_hist_event* evs;
    uint64 data_pos;  // a_data_pos, packed
    char* data_buf;   // null while data capture is off
    char* texts;      // copy mode: the texts of all slots, one after the other, else null
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

// A text of a registered id: in its place, or outside when it is longer; the place then holds its beginning.
template <size_t size>
struct a_hist_kept_text {
    char* text;  // null for none; owned where it lies outside
    char place[size];

    // Not signal-safe: it frees.
    void release()
    {
        if (text != place)
            ut_free(text);
        text = nullptr;
    }
};

struct a_ut_hist_id_data {
    a_hist_kept_text<56> desc;
    a_hist_kept_text<44> file;
    uint32 line;  // the statistics, by_key, stand in a section of their own: hist_by_key
};

// What the history keeps of one thread slot. Touched only by the slot's thread, or by several when their slots collide,
// so all accesses but those of `own_q` are atomic. Of `owner` see hist_slots.h.
struct alignas(cache_line) a_ut_hist_thread {
    uint64 owner;
    int32 own_q;  // the queue that only this thread writes, 0 when it has none; set at start-up
    int32 last_marker_ii;
    a_ut_hist_loc last_marker_loc;
    uint8_t recursing[hist_max_queues];  // 1 while the thread is inside ut_hist_add for that queue
};
static_assert(sizeof(a_ut_hist_thread) == cache_line);

inline constexpr uint32 hist_max_spans = 16;

// A BEG without its END, in the view of a thread (hist_threads.h).
struct a_hist_span {
    a_ut_hist_loc* loc;  // null where none was given; only compared
    a_ut_hist_id id;     // as the caller gave it; only compared
    const char* text;    // of the id, in pointer mode
    struct timeval begun;
};

struct alignas(cache_line) a_hist_view {
    // Changed by every event of the thread.
    uint64 events;
    a_ut_hist_event* newest;  // its record; null before the first
    uint32 newest_num;        // found there, while the record stands
    uint32 tid;               // kernel thread id; 0 before the slot is claimed
    // The newest event when its record has been overwritten, kept by the thread that did. In pointer mode the texts.
    uint32 kept_seq, kept_num;
    struct timeval kept_time;
    const char *kept_id, *kept_ev;
    // Changed by begins and ends: the low half counts the open spans, also those for which there is no room; the high
    // half steps whenever one is closed.
    alignas(cache_line) uint64 open;
    char name[16];  // when the thread claimed the slot
    a_hist_span spans[hist_max_spans];
};

// A dump runs from `running` to `idle`. A SIGUSR1 that finds one running leaves `wanted`, and the dump that runs writes
// another when it is done; one that finds none running, but a thread that waits for its turn, leaves it to that.
// `closed`: there is no store. The state shares one word with the thread whose dump runs (0: none), so that no handler
// finds the one without the other. A thread is known by its control block, which has a large alignment and which a fork
// leaves in its place.
enum a_dump_state : uint64 { DUMP_CLOSED = 0, DUMP_IDLE = 1, DUMP_RUNNING = 2, DUMP_WANTED = 3 };
inline constexpr uint64 dump_state_bits = 3;
inline constexpr uint64 pack_dump(a_dump_state state, uint64 owner = 0) { return owner | state; }

struct alignas(cache_line) a_ut_hist_store {
    // Read by every event, written by start-up and shut-down, and now and then by a registration or a dump.
    a_ut_hist_event_list* hist_evs;  // hist_num_q queues
    a_ut_hist_id_data* hist_ids;     // or null
    a_ut_hist_timer_list* timers;    // K_LAST lists for each id
    a_ut_hist_thread* threads;
    char* views;         // of the thread slots, or null (hist_threads.h)
    uint32 start;        // the number of this start-up, 0 before the first
    uint32 num_threads;  // slots
    int32 hist_num_ids;
    bool hist_initialized;
    bool hist_ok_to_dump;
    bool closing;  // shut-down is about to free the store
    int32 sig_handler_installed;
    a_critical_sect hist_ids_mutex;
    uint64 dump_state;  // a_dump_state and its owner, packed

    // The rest of the store.
    alignas(cache_line) a_thread_count users;  // inside a dump or a registration, see a_hist_user
    a_thread_count waiting;                    // for their turn to dump
    a_ut_hist_dump* dump;                      // the buffers of the one dump that may run
    const a_ut_hist_settings* cfg;             // what dumps need of the settings, as they were at start-up
    uint64* taken_slots;                       // a bit for each thread slot
    size_t wanted_bytes;                       // of the store that the last start-up asked for
    bool no_memory;                            // and did not get
    void* mapping;
    size_t mapped_bytes;
    size_t view_stride;
    size_t slots_at;  // in it, the first page that thread slots stand in

    // Written by every event of every thread: a line of its own.
    alignas(cache_line) uint32 hist_count;
    alignas(cache_line) uint32 events_missed;
    uint32 last_missed_thread;
};
extern a_ut_hist_store hist;

// Signal-safe.
inline a_hist_view& hist_view_of(uint32 t)
{
    return *reinterpret_cast<a_hist_view*>(hist.views + t * hist.view_stride);
}

// Relaxed: only the slot's thread changes it. Signal-safe.
inline uint32 hist_open_spans(const a_hist_view& v) { return uint32(__atomic_load_n(&v.open, __ATOMIC_RELAXED)); }

// Closes all spans but so many. Release: before what fills their places again. Signal-safe.
inline void hist_set_open(a_hist_view& v, uint32 open)
{
    const uint64 steps = __atomic_load_n(&v.open, __ATOMIC_RELAXED) >> 32;
    __atomic_store_n(&v.open, (steps + 1) << 32 | open, __ATOMIC_RELEASE);
}

// The statistics of a registered id as the earlier event: the list of the key of that event's class. Signal-safe.
inline a_ut_hist_timer_list& hist_by_key(int32 id, int32 key) { return hist.timers[id * K_LAST + key]; }

// Microseconds from one time to another, modulo 2^32: beyond 71.6 minutes and for a clock that steps back it wraps.
// Signal-safe.
inline uint32 hist_elapsed(const struct timeval& from, const struct timeval& to)
{
    return uint32((uint64(to.tv_sec) - uint64(from.tv_sec)) * 1000000 + uint64(to.tv_usec) - uint64(from.tv_usec));
}

void hist_reset_thread(a_ut_hist_thread& thread);  // Signal-safe.
size_t hist_view_bytes();                          // of one view with its texts; 0 without tables
void hist_reset_view(uint32 t);                    // begins the calling thread's view. Signal-safe.
void hist_store_forget();                          // Signal-safe.
bool hist_store_alloc(size_t (*dump_bytes)());
void hist_store_free(bool destroy_queue_locks);
void hist_store_unload();

// A thread that dumps, registers an id or gives up its slot, for a scope. Shut-down first sets `closing` and then waits
// for the users: either it sees this one, or this one sees that it closes. Its own thread's scopes, which it
// interrupted for good, it leaves out. initial-exec: no first touch allocates.
extern constinit __attribute__((tls_model("initial-exec"))) thread_local uint32 hist_my_uses;
class a_hist_user {
public:
    // Looks first, so that shut-down does not wait for those that come after it. Signal-safe.
    a_hist_user() : counted(store_stands())
    {
        if (!counted)
            return;
        hist_my_uses++;
        hist.users.enter();
    }
    // Signal-safe.
    ~a_hist_user()
    {
        if (!counted)
            return;
        hist.users.leave();
        hist_my_uses--;
    }
    a_hist_user(a_hist_user&&) = delete;

    // Signal-safe.
    bool has_store() const { return counted && store_stands(); }

private:
    // Acquire: who finds the dump open finds the whole store. Signal-safe.
    static bool store_stands()
    {
        return !__atomic_load_n(&hist.closing, __ATOMIC_SEQ_CST) &&
               __atomic_load_n(&hist.dump_state, __ATOMIC_ACQUIRE) != pack_dump(DUMP_CLOSED);
    }

    bool counted;
};
