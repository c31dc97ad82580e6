// hist_store.cpp: the table of the store's sections; maps, fills and frees it (see hist_store.h for what holds).
//
// Start-up gets the whole store or leaves the history off; registry and data rings alone may be missing. Not
// signal-safe, but hist_reset_thread, hist_reset_view and hist_store_forget.
#include "utils/etc/uthist/hist_store.h"

#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "utils/etc/utclock.h"
#include "utils/etc/uthist/hist_file.h"
#include "utils/unix/unixcrash.h"
#include "utils/unix/utptmutex.h"

constinit a_ut_hist_store hist{};

// In a section of data that has values: debuggers without symbols do not look at the others.
__attribute__((section(".data"))) a_ut_hist_image* ut_hist_image_now = nullptr;
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

constexpr size_t id_text_bytes = 256;  // of the registry's texts that are longer than their places, for each id

// What stays of the store that was freed last.
void* left_slots = nullptr;
size_t left_bytes = 0;

// In the order of the mapping; each begins on a cache line. What stays when the store is freed comes last; of the
// thread slots the first are written when the store is made, the others' pages are taken when they are claimed.
a_layout lay_out(size_t dump_bytes)
{
    struct {
        size_t entry, entries;
    } const wanted[UT_HIST_SECTIONS] = {
        /* UT_HIST_QUEUES */ {sizeof(a_ut_hist_event_list), queues()},
        /* UT_HIST_RINGS */ {sizeof(a_ut_hist_event), records()},
        /* UT_HIST_TEXTS */ {hist_cfg.text_stride, hist_cfg.copies ? records() : 0},
        /* UT_HIST_DATA */ {1, times(queues(), data_ring_bytes())},
        /* UT_HIST_REGISTRY */ {sizeof(a_ut_hist_id_data), ids()},
        /* UT_HIST_ID_TEXTS */ {1, times(ids(), id_text_bytes)},
        /* UT_HIST_TIMERS */ {sizeof(a_ut_hist_timer_list), times(ids(), K_LAST)},
        /* UT_HIST_ZONE */ {sizeof(a_ut_hist_zone_change), ut_zone_changes},
        /* UT_HIST_SETTINGS */ {sizeof(a_ut_hist_settings), 1},
        /* UT_HIST_DUMP */ {dump_bytes, 1},
        /* UT_HIST_ANCHORS */ {sizeof(a_hist_anchor), hist_cfg.tsc ? queues() : 0},
        /* UT_HIST_LIVE */ {sizeof(a_ut_hist_live), 1},
        /* UT_HIST_TAKEN */ {sizeof(uint64), (slots() + 63) / 64},
        /* UT_HIST_THREADS */ {sizeof(a_ut_hist_thread), slots()},
        /* UT_HIST_VIEWS */ {hist_view_bytes(), hist_cfg.tables ? slots() : 0},
    };
    a_layout layout = {};
    layout.end = UT_HIST_IMAGE_HEADER;
    for (uint32 i = 0; i < UT_HIST_SECTIONS; i++) {
        const size_t bytes = times(wanted[i].entry, wanted[i].entries);
        layout.sections[i] = {layout.end, bytes, wanted[i].entry, wanted[i].entries};
        const size_t end = layout.end + (bytes + cache_line - 1) / cache_line * cache_line;
        layout.end = end < too_many ? end : too_many;
    }
    return layout;
}

template <typename T>
T* at(char* base, const a_layout& layout, uint32 section)
{
    return reinterpret_cast<T*>(base + layout.sections[section].at);
}

// What an event needs is made present, so that none pays for a first touch; other slots' pages come with their claim.
a_hist_used used_pages(const a_layout& layout)
{
    const size_t first_slots = slots() < hist_handle_slots ? slots() : size_t(hist_handle_slots);
    const size_t threads = layout.sections[UT_HIST_THREADS].at, views = layout.sections[UT_HIST_VIEWS].at;
    return {{{0, threads + first_slots * sizeof(a_ut_hist_thread)}, {views, views + first_slots * hist_view_bytes()}}};
}

void* map_memory(const a_layout& layout)
{
    void* const mapping = mmap(nullptr, layout.end, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;
    hist_touch(mapping, used_pages(layout));
    return mapping;
}

// Null where no history file is asked for, or none can be had.
void* map_file(const a_layout& layout)
{
    void* const mapping = hist_file_map(layout.end, used_pages(layout));
    if (mapping == nullptr)
        return nullptr;
    hist.words = static_cast<a_hist_words*>(hist_file_wiped_page());
    *hist.words = {0, true};
    return mapping;
}

// False when a lock cannot be had.
bool fill_queues(char* base, const a_layout& layout)
{
    const size_t num = size_t(hist_cfg.ut_hist_debug_num), data_bytes = data_ring_bytes();
    hist.hist_evs = at<a_ut_hist_event_list>(base, layout, UT_HIST_QUEUES);
    for (size_t q = 0; q < queues(); q++) {
        a_ut_hist_event_list& queue = hist.hist_evs[q];
        queue.evs = at<a_ut_hist_event>(base, layout, UT_HIST_RINGS) + q * num;
        queue.data_pos = uint64(1) << 32;  // generation 1, nothing stored
        queue.data_buf = data_bytes != 0 ? at<char>(base, layout, UT_HIST_DATA) + q * data_bytes : nullptr;
        queue.texts =
            hist_cfg.copies ? at<char>(base, layout, UT_HIST_TEXTS) + q * num * hist_cfg.text_stride : nullptr;
        if (ut_safe_pthread_mutex_init(&queue.mutex, nullptr) != 0)
            return false;
    }
    return true;
}

// Those beyond are reset when they are claimed.
void fill_threads(char* base, const a_layout& layout)
{
    hist.taken_slots = at<uint64>(base, layout, UT_HIST_TAKEN);
    hist.threads = at<a_ut_hist_thread>(base, layout, UT_HIST_THREADS);
    hist.num_threads = uint32(slots());
    hist.view_stride = hist_view_bytes();
    hist.views = hist.view_stride != 0 ? at<char>(base, layout, UT_HIST_VIEWS) : nullptr;
    for (uint32 t = 0; t < hist.num_threads && t < hist_handle_slots; t++) {
        hist.threads[t].own_q =
            hist_cfg.ut_hist_debug_q_by_thr != 0 && t + 1 < uint32(hist_cfg.hist_num_q) ? int32(t + 1) : 0;
        hist_reset_thread(hist.threads[t]);
    }
}

// What was lost before stays counted.
void fill_live(a_ut_hist_live& live)
{
    live.state = UT_HIST_IMAGE_RUNS;
    if (hist.live != nullptr) {
        live.events_missed = hist.live->events_missed;
        live.last_missed_thread = hist.live->last_missed_thread;
    }
    hist.live = &live;
}

// A registry that cannot be had is off: ids are then texts.
void fill_ids(char* base, const a_layout& layout)
{
    if (ids() == 0 || ut_safe_pthread_mutex_init(&hist.hist_ids_mutex, nullptr) != 0)
        return;
    hist.hist_ids = at<a_ut_hist_id_data>(base, layout, UT_HIST_REGISTRY);
    hist.timers = at<a_ut_hist_timer_list>(base, layout, UT_HIST_TIMERS);
    hist.id_texts = at<char>(base, layout, UT_HIST_ID_TEXTS);
    hist.id_texts_end = hist.id_texts + layout.sections[UT_HIST_ID_TEXTS].bytes;
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

// Signal-safe.
void forget_image()
{
    unix_set_crash_copy(nullptr);
    __atomic_store_n(&ut_hist_image_now, nullptr, __ATOMIC_RELEASE);
    hist.image = nullptr;
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
        hist_release_id_texts(registry[i]);
    }
    give_back(hist.hist_ids_mutex);
}

}  // namespace

a_layout hist_layout(size_t dump_bytes) { return lay_out(dump_bytes); }

// Start-up begins with no store: one that option x- kept is let go of before the settings that tell its size change.
// Signal-safe.
void hist_store_forget()
{
    hist_file_forget();
    hist.words = &hist.plain;
    hist_set_running(false);
    __atomic_store_n(&hist.dump_state, pack_dump(DUMP_CLOSED), __ATOMIC_RELEASE);
    hist.hist_evs = nullptr;
    hist.hist_ids = nullptr;
    hist.hist_num_ids = 0;
    hist.mapping = nullptr;
    forget_image();
}

// Maps the store that the settings describe; false when memory is short, with nothing kept.
bool hist_store_alloc(size_t (*dump_bytes)())
{
    const int32 knum = hist_cfg.ut_hist_debug_knum, data = hist_cfg.ut_hist_debug_data;
    a_layout layout = lay_out(dump_bytes());
    hist.wanted_bytes = layout.end;
    hist.mapping = map_file(layout);
    while (hist.mapping == nullptr && (hist.mapping = map_memory(layout)) == nullptr &&
           (ids() != 0 || data_ring_bytes() != 0)) {
        const size_t registry = times(ids(), sizeof(a_ut_hist_id_data) + K_LAST * sizeof(a_ut_hist_timer_list));
        const bool data_is_larger = times(queues(), data_ring_bytes()) > registry;
        (data_is_larger ? hist_cfg.ut_hist_debug_data : hist_cfg.ut_hist_debug_knum) = 0;
        layout = lay_out(dump_bytes());
    }
    hist.no_memory = hist.mapping == nullptr;
    if (hist.no_memory)
        return false;
    hist.mapped_bytes = layout.end;
    hist.slots_at = layout.sections[UT_HIST_LIVE].at / page * page;
    char* const base = static_cast<char*>(hist.mapping);
    hist.num_queues = uint32(queues());
    hist.ring_size = uint32(hist_cfg.ut_hist_debug_num);
    fill_live(*at<a_ut_hist_live>(base, layout, UT_HIST_LIVE));
    if (!fill_queues(base, layout)) {
        hist_store_free(true);
        hist_file_end();
        hist.no_memory = true;
        return false;
    }
    hist.anchors = hist_cfg.tsc ? at<a_hist_anchor>(base, layout, UT_HIST_ANCHORS) : nullptr;
    fill_threads(base, layout);
    fill_ids(base, layout);
    hist.dump = at<a_ut_hist_dump>(base, layout, UT_HIST_DUMP);
    void* const settings = at<void>(base, layout, UT_HIST_SETTINGS);
    hist.cfg = static_cast<a_ut_hist_settings*>(memcpy(settings, &hist_cfg, sizeof hist_cfg));
    hist.image = reinterpret_cast<a_ut_hist_image*>(base);
    hist.image->image_bytes = layout.end;
    memcpy(hist.image->sections, layout.sections, sizeof layout.sections);
    hist.start++;
    hist_cfg.ut_hist_debug_knum = knum;  // the next start-up tries again
    hist_cfg.ut_hist_debug_data = data;
    return true;
}

// Gives the store back, but for its live words and thread slots: a thread that saw the history running may be about to
// claim one, to set its mark there or to count a loss, and it cannot be waited for. They stay until the next store
// goes. The queue locks stay in their pool's hands when destroy_queue_locks is false. What names the store goes first:
// a process that another thread forks meanwhile must not find it there.
void hist_store_free(bool destroy_queue_locks)
{
    free_ids();
    a_ut_hist_event_list* const evs = hist.hist_evs;
    hist.hist_evs = nullptr;
    for (size_t q = 0; destroy_queue_locks && q < queues(); q++)
        give_back(evs[q].mutex);
    char* const mapping = static_cast<char*>(hist.mapping);
    hist.mapping = nullptr;
    forget_image();
    munmap(mapping, hist.slots_at);
    hist_store_unload();
    left_slots = mapping + hist.slots_at;
    left_bytes = hist.mapped_bytes - hist.slots_at;
}

// Texts outside the store are the only ones to be freed.
void hist_release_id_texts(a_ut_hist_id_data& entry)
{
    const char* const store = static_cast<const char*>(hist.mapping);
    char** const texts[] = {&entry.file, &entry.desc};
    for (char** const text : texts) {
        if (*text < store || *text >= store + hist.mapped_bytes)
            ut_free(*text);
        *text = nullptr;
    }
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

size_t hist_view_bytes()
{
    if (!hist_cfg.tables)
        return 0;
    const size_t spans = hist_max_spans * (hist_cfg.ev_text_at - hist_cfg.id_text_at),
                 kept = hist_cfg.copies ? hist_cfg.text_stride - hist_cfg.id_text_at : 0;
    return (sizeof(a_hist_view) + spans + kept + cache_line - 1) / cache_line * cache_line;
}

// Release: see hist_threads.h. Signal-safe.
void hist_reset_view(uint32 t)
{
    if (hist.views == nullptr)
        return;
    a_hist_view& v = hist_view_of(t);
    char* const begin = reinterpret_cast<char*>(&v);
    // Relaxed: the same byte again, so that no event is the first to touch a page.
    for (char* byte = begin + page - a_ptrint(begin) % page; byte < begin + hist.view_stride; byte += page)
        __atomic_store_n(byte, __atomic_load_n(byte, __ATOMIC_RELAXED), __ATOMIC_RELAXED);
    __atomic_store_n(&v.newest, nullptr, __ATOMIC_RELEASE);
    __atomic_store_n(&v.tid, uint32(gettid()), __ATOMIC_RELEASE);
    __atomic_store_n(&v.events, uint64(0), __ATOMIC_RELEASE);
    hist_set_open(v, 0);
    char name[sizeof v.name] = "";
    prctl(PR_GET_NAME, name);
    for (size_t i = 0; i < sizeof name; i++)
        __atomic_store_n(&v.name[i], name[i], __ATOMIC_RELEASE);
}
