// hist_store.cpp: allocates, frees and looks into the store (see hist_store.h for its invariants).
//
// Start-up either gets the whole store or gives back what it got. Every page is written here once, so that no
// event pays for a first touch. Signal-safe: hist_live, hist_elapsed, hist_reset_thread.
#include "utils/etc/uthist/hist_store.h"

#include <string.h>

#include "utils/etc/uthist/hist_config.h"
#include "utils/etc/uthist/hist_text.h"
#include "utils/utmem/utmem.h"

constinit a_ut_hist_store hist{};

namespace {

// Zero-filled memory for `count` elements, its pages touched, that shares no cache line with any other; null when there is
// none or the product is too large. The allocation behind it stands in the word before it.
// Not signal-safe: it allocates.
void* store_alloc(size_t count, size_t size)
{
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes) || __builtin_add_overflow(bytes, 3 * cache_line, &bytes))
        return nullptr;
    char* block = static_cast<char*>(ut_calloc(bytes));
    if (block == nullptr)
        return nullptr;
    // A compiler may clear them by taking zero pages, which are mapped by their first write only.
    constexpr size_t page = 4096;
    for (size_t at = 0; at < bytes; at += page)
        static_cast<volatile char*>(block)[at] = 0;
    static_cast<volatile char*>(block)[bytes - 1] = 0;
    char* lines = block + 2 * cache_line - a_ptrint(block) % cache_line;
    reinterpret_cast<void**>(lines)[-1] = block;
    return lines;
}

// Not signal-safe: it frees.
void store_free(void* lines)
{
    if (lines != nullptr)
        ut_free(static_cast<void**>(lines)[-1]);
}

// Not signal-safe: used while nobody records.
void lay_out_texts()
{
    const size_t file = text_bytes(hist_cfg.hist_max_file_len), id = text_bytes(hist_cfg.hist_max_id_len);
    const uint32 max_file = uint32(hist_cfg.hist_max_file_len);
    hist_cfg.file_fits = max_file < 2 * text_block ? (1u << max_file) - 1 : UINT32_MAX;
    hist_cfg.id_text_at = file;
    hist_cfg.ev_text_at = file + id;
    hist_cfg.text_stride = file + id + text_bytes(hist_cfg.hist_max_ev_len);
}

// Points every slot's three texts into the queue's text block; they stay there while the store lives.
// Not signal-safe: used while nobody records.
void bind_texts(a_ut_hist_event_list& queue)
{
    char* text = queue.texts;
    for (int32 n = 0; n < hist_cfg.ut_hist_debug_num; n++) {
        a_ut_hist_event& r = queue.evs[n];
        r.file = text;
        r.id = text + hist_cfg.id_text_at;
        r.ev = text + hist_cfg.ev_text_at;
        text += hist_cfg.text_stride;
    }
}

// A data ring is read by whole words.
// Signal-safe.
size_t data_ring_bytes() { return size_t(hist_cfg.ut_hist_debug_data_size) + 8; }

// Not signal-safe: it allocates.
bool alloc_queue(a_ut_hist_event_list& queue)
{
    if (ut_safe_pthread_mutex_init(&queue.mutex, nullptr) != 0)
        return false;
    const size_t num = size_t(hist_cfg.ut_hist_debug_num);
    queue.evs = static_cast<a_ut_hist_event*>(store_alloc(num, sizeof(a_ut_hist_event)));
    if (queue.evs == nullptr)
        return false;
    queue.data_pos = pack_data({1, 0});
    // A data ring that cannot be had is just not there: the records then keep address and length only.
    if (hist.dump->data != nullptr)
        queue.data_buf = static_cast<char*>(store_alloc(data_ring_bytes(), 1));
    if (hist_cfg.ut_hist_dump_on_fini == 0)
        return true;
    queue.texts = static_cast<char*>(store_alloc(num, hist_cfg.text_stride));
    if (queue.texts == nullptr)
        return false;
    bind_texts(queue);
    return true;
}

// Not signal-safe: it frees.
void free_queue(a_ut_hist_event_list& queue, bool destroy_lock)
{
    if (destroy_lock)
        ut_safe_pthread_mutex_destroy(&queue.mutex);
    store_free(queue.texts);
    store_free(queue.evs);
    store_free(queue.data_buf);
}

// Not signal-safe: it allocates.
bool alloc_queues()
{
    const size_t num_q = size_t(hist_cfg.hist_num_q);
    hist.hist_evs = static_cast<a_ut_hist_event_list*>(store_alloc(num_q, sizeof(a_ut_hist_event_list)));
    if (hist.hist_evs == nullptr)
        return false;
    for (size_t q = 0; q < num_q; q++)
        if (!alloc_queue(hist.hist_evs[q]))
            return false;
    return true;
}

// The registry that cannot be had is off: ids are then texts.
// Not signal-safe: it allocates.
void alloc_ids()
{
    if (hist_cfg.ut_hist_debug_knum <= 0)
        return;
    void* ids = store_alloc(size_t(hist_cfg.ut_hist_debug_knum), sizeof(a_ut_hist_id_data));
    if (ids != nullptr && ut_safe_pthread_mutex_init(&hist.hist_ids_mutex, nullptr) == 0)
        hist.hist_ids = static_cast<a_ut_hist_id_data*>(ids);
    else
        store_free(ids);
}

// Takes a pointer out of the store before what it names is freed: a process that another thread forks meanwhile must not
// find it there.
// Signal-safe.
template <class T>
T* take_out(T*& from)
{
    return __atomic_exchange_n(&from, nullptr, __ATOMIC_RELAXED);
}

// Not signal-safe: it frees.
void free_ids()
{
    const int32 num_ids = hist.hist_num_ids;
    hist.hist_num_ids = 0;
    a_ut_hist_id_data* ids = take_out(hist.hist_ids);
    if (ids == nullptr)
        return;
    for (int32 i = 0; i < num_ids; i++) {
        for (a_ut_hist_timer_list& list : ids[i].by_key)
            ut_safe_pthread_mutex_destroy(&list.mutex);
        ut_free(ids[i].file);
        ut_free(ids[i].desc);
    }
    store_free(ids);
    ut_safe_pthread_mutex_destroy(&hist.hist_ids_mutex);
}

// The queue of a thread slot, 0 for those that share it.
// Signal-safe.
int32 own_queue(uint32 t)
{
    return hist_cfg.ut_hist_debug_q_by_thr != 0 && t + 1 < uint32(hist_cfg.hist_num_q) ? int32(t + 1) : 0;
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
    hist.dump = nullptr;
}

// Allocates the store that the settings describe and resets the state of all threads; false when memory is short, with
// nothing kept.
// Not signal-safe: it allocates.
bool hist_store_alloc()
{
    lay_out_texts();
    for (uint32 t = 0; t < hist_max_threads; t++) {
        hist.threads[t].own_q = own_queue(t);
        hist_reset_thread(hist.threads[t]);
    }
    hist.dump = hist_dump_alloc();
    // Without room to copy a block to, nothing could be dumped from data rings: there are none then.
    if (hist.dump != nullptr && hist_cfg.ut_hist_debug_data != 0 && hist_cfg.ut_hist_debug_data_size > 0)
        hist.dump->data = static_cast<char*>(store_alloc(data_ring_bytes(), 1));
    if (hist.dump == nullptr || !alloc_queues()) {
        hist_store_free(true);
        return false;
    }
    alloc_ids();
    return true;
}

// Gives the whole store back. The queue locks stay in their pool's hands when destroy_queue_locks is false.
// Not signal-safe: it frees.
void hist_store_free(bool destroy_queue_locks)
{
    free_ids();
    a_ut_hist_event_list* queues = take_out(hist.hist_evs);
    if (queues != nullptr)
        for (int32 q = 0; q < hist_cfg.hist_num_q; q++)
            free_queue(queues[q], destroy_queue_locks);
    store_free(queues);
    a_ut_hist_dump* dump = take_out(hist.dump);
    if (dump != nullptr)
        store_free(dump->data);
    ut_free(dump);
}

// A thread that has recorded nothing yet: no last marker, inside no queue. Relaxed: only the slot's own thread looks.
// Signal-safe.
void hist_reset_thread(a_ut_hist_thread& thread)
{
    __atomic_store_n(&thread.last_marker_ii, -1, __ATOMIC_RELAXED);
    __atomic_store_n(&thread.last_marker_loc.q, -1, __ATOMIC_RELAXED);
    __atomic_store_n(&thread.last_marker_loc.n, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&thread.last_marker_loc.num, 0u, __ATOMIC_RELAXED);
    for (int32& recursing : thread.recursing)
        __atomic_store_n(&recursing, 0, __ATOMIC_RELAXED);
}

// Moves a forked child's ring past a record that the fork cut in two. When its thread lives on in the child, since a
// handler forked, it gives the record up. Start-up in another thread may not have got to this queue.
// Signal-safe.
void hist_pass_unfinished(a_ut_hist_event_list& queue)
{
    if (queue.evs == nullptr)
        return;
    const a_ring_pos at = unpack_ring(__atomic_load_n(&queue.ring_pos, __ATOMIC_RELAXED));
    if (__atomic_load_n(&queue.evs[at.next].seq, __ATOMIC_RELAXED) % 2 != 0)
        __atomic_store_n(&queue.ring_pos, pack_ring(next_slot(at, uint32(hist_cfg.ut_hist_debug_num))),
                         __ATOMIC_RELEASE);
}

// Whether `loc` names a record that still stands in its ring; if so, gives what a later event needs of it. A record
// that is overwritten meanwhile is stale.
// Signal-safe.
bool hist_live(const a_ut_hist_loc& loc, an_earlier_event& found)
{
    if (loc.q < 0 || loc.q >= hist_cfg.hist_num_q || loc.n >= uint32(hist_cfg.ut_hist_debug_num))
        return false;
    const a_ut_hist_event& r = hist.hist_evs[loc.q].evs[loc.n];
    const uint32 seq = __atomic_load_n(&r.seq, __ATOMIC_ACQUIRE);
    if (__atomic_load_n(&r.num, __ATOMIC_ACQUIRE) != loc.num || seq % 2 != 0)
        return false;
    found.time_of_day.tv_sec = __atomic_load_n(&r.time_of_day.tv_sec, __ATOMIC_ACQUIRE);
    found.time_of_day.tv_usec = __atomic_load_n(&r.time_of_day.tv_usec, __ATOMIC_ACQUIRE);
    found.cl = __atomic_load_n(&r.cl, __ATOMIC_ACQUIRE);
    // Relaxed: the acquire loads above keep this one behind them.
    return __atomic_load_n(&r.seq, __ATOMIC_RELAXED) == seq;
}

// Microseconds from one time to another, modulo 2^32: beyond 71.6 minutes and for a clock that steps back it wraps.
// Signal-safe.
uint32 hist_elapsed(const struct timeval& from, const struct timeval& to)
{
    return uint32((uint64(to.tv_sec) - uint64(from.tv_sec)) * 1000000 + uint64(to.tv_usec) - uint64(from.tv_usec));
}

// Not signal-safe: it locks.
a_hist_lock_all::a_hist_lock_all()
{
    for (int32 q = 0; q < hist_cfg.hist_num_q; q++) {
        ut_safe_pthread_mutex_lock(&hist.hist_evs[q].mutex);
        forks[q] = __atomic_load_n(&hist.fork_count, __ATOMIC_RELAXED);
    }
}

// Not signal-safe: it unlocks.
a_hist_lock_all::~a_hist_lock_all()
{
    for (int32 q = 0; q < hist_cfg.hist_num_q; q++)
        if (forks[q] == __atomic_load_n(&hist.fork_count, __ATOMIC_RELAXED))
            ut_safe_pthread_mutex_unlock(&hist.hist_evs[q].mutex);
}
