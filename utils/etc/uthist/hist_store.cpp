// hist_store.cpp: the table of the store's sections; maps, fills and frees it (see hist_store.h for what holds).
//
// Start-up gets the whole store or leaves the history off; registry and data rings alone may be missing. Not
// signal-safe, but hist_reset_thread, hist_reset_view and hist_store_forget.
#include "utils/etc/uthist/hist_store.h"

#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "utils/unix/utptmutex.h"

constinit a_ut_hist_store hist{};
constinit __attribute__((tls_model("initial-exec"))) thread_local uint32 hist_my_uses = 0;

namespace {

constexpr size_t page = 4096;
constexpr size_t too_many = SIZE_MAX / 2;  // bytes that no mapping has

// Sizes that would overflow become too_many.
size_t times(size_t count, size_t size)
{
    size_t bytes;
    return __builtin_mul_overflow(count, size, &bytes) || bytes > too_many ? too_many : bytes;
}

size_t queues() { return size_t(hist_cfg.hist_num_q); }
size_t records() { return times(queues(), size_t(hist_cfg.ut_hist_debug_num)); }
size_t ids() { return hist_cfg.ut_hist_debug_knum > 0 ? size_t(hist_cfg.ut_hist_debug_knum) : 0; }
size_t slots() { return hist_cfg.dense_slots != 0 ? hist_cfg.dense_slots : hist_handle_slots; }

// A data ring is read by whole words; its queue's share begins on a cache line.
size_t data_ring_bytes()
{
    if (hist_cfg.ut_hist_debug_data == 0 || hist_cfg.ut_hist_debug_data_size <= 0)
        return 0;
    return (size_t(hist_cfg.ut_hist_debug_data_size) + 8 + cache_line - 1) / cache_line * cache_line;
}

// In the order of the mapping; each begins on a cache line. The thread slots come last: the first of them are written
// when the store is made, the others' pages are taken when they are claimed.
enum a_section : uint32 {
    QUEUES,
    RINGS,
    TEXTS,
    DATA,
    REGISTRY,
    TIMERS,
    SETTINGS,
    DUMP,
    TAKEN,
    THREADS,
    VIEWS,
    SECTIONS
};
// The thread slots of the store that was freed last.
void* left_slots = nullptr;
size_t left_bytes = 0;

struct a_layout {
    size_t at[SECTIONS + 1];  // offsets; the last is the end
};

a_layout lay_out(size_t dump_bytes)
{
    const size_t text_stride = hist_cfg.ut_hist_dump_on_fini != 0 ? hist_cfg.text_stride : 0;
    const size_t bytes[SECTIONS] = {
        /* QUEUES */ times(queues(), sizeof(a_ut_hist_event_list)),
        /* RINGS */ times(records(), sizeof(a_ut_hist_event)),
        /* TEXTS */ times(records(), text_stride),
        /* DATA */ times(queues(), data_ring_bytes()),
        /* REGISTRY */ times(ids(), sizeof(a_ut_hist_id_data)),
        /* TIMERS */ times(ids(), K_LAST * sizeof(a_ut_hist_timer_list)),
        /* SETTINGS */ sizeof(a_ut_hist_settings),
        /* DUMP */ dump_bytes,
        /* TAKEN */ (slots() + 63) / 64 * sizeof(uint64),
        /* THREADS */ times(slots(), sizeof(a_ut_hist_thread)),
        /* VIEWS */ times(slots(), hist_view_bytes()),
    };
    a_layout layout = {};
    for (uint32 i = 0; i < SECTIONS; i++) {
        const size_t whole_lines =
            bytes[i] < too_many ? (bytes[i] + cache_line - 1) / cache_line * cache_line : too_many;
        layout.at[i + 1] = layout.at[i] + whole_lines < too_many ? layout.at[i] + whole_lines : too_many;
    }
    return layout;
}

void touch(void* mapping, size_t from, size_t to)
{
    for (size_t at = from; at < to; at += page)
        static_cast<volatile char*>(mapping)[at] = 0;
}

// What an event needs is written once, so that none pays for a first touch; other slots' pages come with their claim.
void* map_pages(const a_layout& layout)
{
    void* const mapping =
        mmap(nullptr, layout.at[SECTIONS], PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;
    const size_t first_slots = slots() < hist_handle_slots ? slots() : size_t(hist_handle_slots);
    touch(mapping, 0, layout.at[THREADS] + first_slots * sizeof(a_ut_hist_thread));
    touch(mapping, layout.at[VIEWS], layout.at[VIEWS] + first_slots * hist_view_bytes());
    return mapping;
}

// False when a lock cannot be had.
bool fill_queues(char* base, const a_layout& layout)
{
    const size_t num = size_t(hist_cfg.ut_hist_debug_num), data_bytes = data_ring_bytes();
    hist.hist_evs = reinterpret_cast<a_ut_hist_event_list*>(base + layout.at[QUEUES]);
    for (size_t q = 0; q < queues(); q++) {
        a_ut_hist_event_list& queue = hist.hist_evs[q];
        queue.evs = reinterpret_cast<a_ut_hist_event*>(base + layout.at[RINGS]) + q * num;
        queue.data_pos = uint64(1) << 32;  // generation 1, nothing stored
        queue.data_buf = data_bytes != 0 ? base + layout.at[DATA] + q * data_bytes : nullptr;
        queue.texts =
            hist_cfg.ut_hist_dump_on_fini != 0 ? base + layout.at[TEXTS] + q * num * hist_cfg.text_stride : nullptr;
        if (ut_safe_pthread_mutex_init(&queue.mutex, nullptr) != 0)
            return false;
    }
    return true;
}

// Those beyond are reset when they are claimed.
void fill_threads(char* base, const a_layout& layout)
{
    hist.taken_slots = reinterpret_cast<uint64*>(base + layout.at[TAKEN]);
    hist.threads = reinterpret_cast<a_ut_hist_thread*>(base + layout.at[THREADS]);
    hist.num_threads = uint32(slots());
    hist.view_stride = hist_view_bytes();
    hist.views = hist.view_stride != 0 ? base + layout.at[VIEWS] : nullptr;
    for (uint32 t = 0; t < hist.num_threads && t < hist_handle_slots; t++) {
        hist.threads[t].own_q =
            hist_cfg.ut_hist_debug_q_by_thr != 0 && t + 1 < uint32(hist_cfg.hist_num_q) ? int32(t + 1) : 0;
        hist_reset_thread(hist.threads[t]);
    }
}

// A registry that cannot be had is off: ids are then texts.
void fill_ids(char* base, const a_layout& layout)
{
    if (ids() == 0 || ut_safe_pthread_mutex_init(&hist.hist_ids_mutex, nullptr) != 0)
        return;
    hist.hist_ids = reinterpret_cast<a_ut_hist_id_data*>(base + layout.at[REGISTRY]);
    hist.timers = reinterpret_cast<a_ut_hist_timer_list*>(base + layout.at[TIMERS]);
}

// A thread that is ended in the middle of its event, or leaves it by a jump, leaves its lock locked; nobody holds it
// any more, and the pool gives its mutex to somebody else.
void give_back(a_critical_sect& section)
{
    if (section.p_mutex != nullptr && pthread_mutex_trylock(section.p_mutex) == 0)
        pthread_mutex_unlock(section.p_mutex);
    else
        ut_safe_pthread_mutex_fork_child(&section);
    ut_safe_pthread_mutex_destroy(&section);
}

void free_ids()
{
    a_ut_hist_id_data* const registry = hist.hist_ids;
    const int32 num_ids = hist.hist_num_ids;
    hist.hist_num_ids = 0;
    hist.hist_ids = nullptr;
    if (registry == nullptr)
        return;
    for (int32 i = 0; i < num_ids; i++) {
        for (int32 key = 0; key < K_LAST; key++)
            give_back(hist_by_key(i, key).mutex);
        registry[i].file.release();
        registry[i].desc.release();
    }
    give_back(hist.hist_ids_mutex);
}

}  // namespace

// Start-up begins with no store: one that option x- kept is let go of before the settings that tell its size change.
// Signal-safe.
void hist_store_forget()
{
    __atomic_store_n(&hist.hist_initialized, false, __ATOMIC_RELAXED);
    __atomic_store_n(&hist.dump_state, pack_dump(DUMP_CLOSED), __ATOMIC_RELEASE);
    hist.hist_evs = nullptr;
    hist.hist_ids = nullptr;
    hist.hist_num_ids = 0;
    hist.mapping = nullptr;
}

// Maps the store that the settings describe; false when memory is short, with nothing kept.
bool hist_store_alloc(size_t (*dump_bytes)())
{
    const int32 knum = hist_cfg.ut_hist_debug_knum, data = hist_cfg.ut_hist_debug_data;
    a_layout layout = lay_out(dump_bytes());
    hist.wanted_bytes = layout.at[SECTIONS];
    while ((hist.mapping = map_pages(layout)) == nullptr && (ids() != 0 || data_ring_bytes() != 0)) {
        const size_t registry = times(ids(), sizeof(a_ut_hist_id_data) + K_LAST * sizeof(a_ut_hist_timer_list));
        const bool data_is_larger = times(queues(), data_ring_bytes()) > registry;
        (data_is_larger ? hist_cfg.ut_hist_debug_data : hist_cfg.ut_hist_debug_knum) = 0;
        layout = lay_out(dump_bytes());
    }
    hist.no_memory = hist.mapping == nullptr;
    if (hist.no_memory)
        return false;
    hist.mapped_bytes = layout.at[SECTIONS];
    hist.slots_at = layout.at[TAKEN] / page * page;
    char* const base = static_cast<char*>(hist.mapping);
    if (!fill_queues(base, layout)) {
        hist_store_free(true);
        hist.no_memory = true;
        return false;
    }
    fill_threads(base, layout);
    fill_ids(base, layout);
    hist.dump = reinterpret_cast<a_ut_hist_dump*>(base + layout.at[DUMP]);
    hist.cfg = static_cast<a_ut_hist_settings*>(memcpy(base + layout.at[SETTINGS], &hist_cfg, sizeof hist_cfg));
    hist.start++;
    hist_cfg.ut_hist_debug_knum = knum;  // the next start-up tries again
    hist_cfg.ut_hist_debug_data = data;
    return true;
}

// Gives the store back, but for its thread slots: a thread that saw the history running may be about to claim one, or
// to set its mark there, and it cannot be waited for. They stay until the next store goes. The queue locks stay in
// their pool's hands when destroy_queue_locks is false. What names the store goes first: a process that another thread
// forks meanwhile must not find it there.
void hist_store_free(bool destroy_queue_locks)
{
    free_ids();
    a_ut_hist_event_list* const evs = hist.hist_evs;
    hist.hist_evs = nullptr;
    for (size_t q = 0; destroy_queue_locks && q < queues(); q++)
        give_back(evs[q].mutex);
    char* const mapping = static_cast<char*>(hist.mapping);
    hist.mapping = nullptr;
    munmap(mapping, hist.slots_at);
    hist_store_unload();
    left_slots = mapping + hist.slots_at;
    left_bytes = hist.mapped_bytes - hist.slots_at;
}

// What the last shut-down left. Nobody can be in the library any more when it goes.
void hist_store_unload()
{
    if (left_slots != nullptr)
        munmap(left_slots, left_bytes);
    left_slots = nullptr;
}

// A thread that has recorded nothing yet: no last marker, inside no queue. Relaxed: only the slot's own thread looks.
// Signal-safe.
void hist_reset_thread(a_ut_hist_thread& thread)
{
    __atomic_store_n(&thread.last_marker_ii, -1, __ATOMIC_RELAXED);
    __atomic_store_n(&thread.last_marker_loc.q, -1, __ATOMIC_RELAXED);
    __atomic_store_n(&thread.last_marker_loc.n, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&thread.last_marker_loc.num, 0u, __ATOMIC_RELAXED);
    for (uint8_t& recursing : thread.recursing)
        __atomic_store_n(&recursing, uint8_t(0), __ATOMIC_RELAXED);
}

// With texts only in copy mode.
size_t hist_view_bytes()
{
    if (!hist_cfg.tables)
        return 0;
    const size_t id_bytes = hist_cfg.ev_text_at - hist_cfg.id_text_at,
                 ev_bytes = hist_cfg.text_stride - hist_cfg.ev_text_at;
    const size_t texts = hist_cfg.ut_hist_dump_on_fini != 0 ? ev_bytes + (1 + hist_max_spans) * id_bytes : 0;
    return (sizeof(a_hist_view) + texts + cache_line - 1) / cache_line * cache_line;
}

// Release: see hist_threads.h. Signal-safe.
void hist_reset_view(uint32 t)
{
    if (hist.views == nullptr)
        return;
    a_hist_view& v = hist_view_of(t);
    __atomic_store_n(&v.newest, nullptr, __ATOMIC_RELEASE);
    __atomic_store_n(&v.tid, uint32(gettid()), __ATOMIC_RELEASE);
    __atomic_store_n(&v.events, uint64(0), __ATOMIC_RELEASE);
    hist_set_open(v, 0);
    char name[sizeof v.name] = "";
    prctl(PR_GET_NAME, name);
    for (size_t i = 0; i < sizeof name; i++)
        __atomic_store_n(&v.name[i], name[i], __ATOMIC_RELEASE);
}
