// hist_store.h: the records of the event history, its store, and the invariants that hold between its files.
//
// The store is one mapping, made by start-up and laid out from one table of sections (hist_store.cpp): queues, rings of
// records, texts, data rings, registry, timers, the settings, a dump's buffers, thread slots. Nothing is allocated
// after start-up but the texts of registered ids for which the store has no room. Before the sections stands a header
// for readers from outside (hist_image.h), who find there all that a dump needs. All its pages are present from the
// start, but for thread slots beyond the first 256, which become so when they are claimed. With UT_HIST_EXT=file the
// mapping is that of a file (hist_file.h). What stands in it points only into it, into the pools of mutexes, or, in
// pointer mode, to texts of the program.
//
// Locks and their order: a queue's lock (hist_lock.h; several in ascending queue order), then at most one timer list's
// mutex. hist_ids_mutex is taken alone. Not signal-safe, but what says so.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include "corvex/hist_image.h"
#include "utils/etc/uthist/hist_config.h"
#include "utils/unix/unixfork.h"
#include "utils/unix/utptmutex.h"

enum a_key : int32 { K_EV = 0, K_BEG = 1, K_END = 2, K_OTHER = 3, K_LAST = 4 };

inline constexpr a_key cl_to_key[UT_HIST_CL_LAST + 1] = {K_OTHER, K_EV, K_OTHER, K_BEG, K_END, K_OTHER};
inline constexpr const char* key_names[K_LAST + 1] = {"EV ", "BEG", "END", "DAT", "???"};
inline constexpr const char* hist_cl_strs[UT_HIST_CL_LAST] = {" N", " -", " +", " >", " <"};

inline constexpr uint32 hist_max_parms = 8;
inline constexpr uint32 hist_max_timers = UT_HIST_TIMERS_OF_LIST;
inline constexpr uint32 hist_max_spans = UT_HIST_SPANS;
inline constexpr uint32 hist_no_dur = 0xFFFFFFFF;

// The 24 bytes in front of a record's time make `sigset`, which is seldom used, fill two cache lines of its own: an
// event touches the first line and the last two. hist_ring.h says what the sequence word means.
static_assert(alignof(a_ut_hist_event) == cache_line && alignof(a_ut_hist_event_list) == cache_line);

// An anchor of a queue (hist_tsc.h). All zero: the next event makes the first one.
struct alignas(cache_line) a_hist_anchor {
    uint64 counter;  // at the anchor
    uint64 limit;    // counts from there on for which it holds
    uint64 rate;     // microseconds a count, times 2^40
    uint64 part;     // of the base, below a microsecond, times 2^40
    int64_t base;    // the anchor's time, microseconds since 1970
    int64_t last;    // the last time given
    uint64 refused;  // the last rate that could not be believed; 0 when the last one could
};

// A dump runs from `running` to `idle`. A SIGUSR1 that finds one running leaves `wanted`, and the dump that runs writes
// another when it is done; one that finds none running, but a thread that waits for its turn, leaves it to that.
// `closed`: there is no store. The state shares one word with the thread whose dump runs (0: none), so that no handler
// finds the one without the other. A thread is known by its control block, which has a large alignment and which a fork
// leaves in its place.
enum a_dump_state : uint64 { DUMP_CLOSED = 0, DUMP_IDLE = 1, DUMP_RUNNING = 2, DUMP_WANTED = 3 };
inline constexpr uint64 dump_state_bits = 3;
inline constexpr uint64 pack_dump(a_dump_state state, uint64 owner = 0) { return owner | state; }

// The number of the start-up that runs, 0 while none does, and whether the store is this process's own. With a history
// file the words lie in a page that a forked child finds wiped: until its fork step has given it a store of its own,
// and for ever where none runs, it neither records nor dumps.
struct a_hist_words {
    uint32 running;
    bool own;
};

struct alignas(cache_line) a_ut_hist_store {
    // Read by every event, written by start-up and shut-down, and now and then by a registration or a dump.
    a_hist_words* words = &plain;    // these, or those in the page that is wiped
    a_ut_hist_event_list* hist_evs;  // hist_num_q queues
    a_ut_hist_id_data* hist_ids;     // or null
    a_ut_hist_timer_list* timers;    // K_LAST lists for each id
    a_ut_hist_thread* threads;
    char* views;             // of the thread slots, or null (hist_threads.h)
    a_hist_anchor* anchors;  // of the queues, or null (hist_tsc.h)
    uint32 start;            // the number of this start-up, 0 before the first
    uint32 num_threads;      // slots
    int32 hist_num_ids;
    bool hist_initialized;  // what words->running says to the process whose own the store is
    bool hist_ok_to_dump;
    bool closing;  // shut-down is about to free the store
    a_hist_words plain = {0, true};
    // Of the settings what events need.
    uint32 num_queues, ring_size;                // records of a queue
    size_t view_stride, text_stride;             // bytes of a view, of a record's texts
    uint32 id_text_at, max_file_len, file_fits;  // bit i: a file text that ends at character i is kept whole
    uint64 dump_state;                           // a_dump_state and its owner, packed

    // The rest of the store.
    alignas(cache_line) a_thread_count users;  // inside a dump or a registration, see a_hist_user
    a_thread_count waiting;                    // for their turn to dump
    a_ut_hist_dump* dump;                      // the buffers of the one dump that may run
    a_ut_hist_image* image;                    // the store's header
    a_ut_hist_live* live;                      // stays, as the thread slots do, when the store is freed
    const a_ut_hist_settings* cfg;             // what dumps need of the settings, as they were at start-up
    uint64* taken_slots;                       // a bit for each thread slot
    char *id_texts, *id_texts_end;             // what is left for the registry's long texts
    size_t wanted_bytes;                       // of the store that the last start-up asked for
    bool no_memory;                            // and did not get
    void* mapping;
    size_t mapped_bytes;
    a_critical_sect hist_ids_mutex;
    int32 sig_handler_installed;
    size_t slots_at;  // in it, the first page of what stays: `live` and the thread slots

    // Written by every event of every thread: a line of its own.
    alignas(cache_line) uint32 hist_count;
};
extern a_ut_hist_store hist;

// Acquire: who sees the history running sees its whole store. Signal-safe.
inline uint32 hist_running() { return __atomic_load_n(&hist.words->running, __ATOMIC_ACQUIRE); }
inline bool hist_runs() { return hist_running() != 0; }

// Release, for those. Signal-safe.
inline void hist_set_running(bool runs)
{
    __atomic_store_n(&hist.hist_initialized, runs, __ATOMIC_RELEASE);
    __atomic_store_n(&hist.words->running, runs ? hist.start : 0, __ATOMIC_RELEASE);
}

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

// The store's sections; `end`: the bytes of the whole.
struct a_layout {
    a_ut_hist_image_section sections[UT_HIST_SECTIONS];
    size_t end;
};

a_layout hist_layout(size_t dump_bytes);           // that the present settings make
void hist_reset_thread(a_ut_hist_thread& thread);  // Signal-safe.
size_t hist_view_bytes();                          // of one view with its texts; 0 without tables
void hist_reset_view(uint32 t);                    // begins the calling thread's view. Signal-safe.
void hist_release_id_texts(a_ut_hist_id_data& entry);
void hist_store_forget();  // Signal-safe.
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
        // Relaxed: only a forked child's fork step changes it.
        return !__atomic_load_n(&hist.closing, __ATOMIC_SEQ_CST) &&
               __atomic_load_n(&hist.words->own, __ATOMIC_RELAXED) &&
               __atomic_load_n(&hist.dump_state, __ATOMIC_ACQUIRE) != pack_dump(DUMP_CLOSED);
    }

    bool counted;
};
