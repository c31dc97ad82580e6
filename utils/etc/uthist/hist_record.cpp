// hist_record.cpp: ut_hist_add, the one way into the history.
//
// It takes at most the queue's lock and, inside it, one timer list's lock at a time. With
// UT_HIST_ID_SIGHANDLER it takes none, so the whole path up to a registered id's statistics is signal-safe
// then.
//
// Several threads may share a slot under the literal rule and then write one unlocked queue together, against
// its single-writer rule. Their records may be torn, but `next` and the data position are read once and
// checked, so that no store leaves the ring.
#include <emmintrin.h>
#include <pthread.h>
#include <string.h>

#include <atomic>

#include "utils/etc/utcancel.h"
#include "utils/etc/uthist/hist_config.h"
#include "utils/etc/uthist/hist_log.h"
#include "utils/etc/uthist/hist_slots.h"
#include "utils/etc/uthist/hist_stats.h"

namespace {

struct a_named_id {
    int32 ii;          // registry index, -1 for none
    const char* text;  // null for none
};

// The arguments of one event. All that reads it is inlined, so that it never stands in memory.
struct an_event {
    const char* file;
    uint32 line;
    a_ut_hist_loc* loc;
    int32 cl;
    a_named_id id;
    const char* ev;
    int32 pn;
    void *p1, *p2, *p3, *p4, *p5, *p6, *p7, *p8;
};

// The three special ids are the highest values.
// Signal-safe.
inline bool is_special(a_ut_hist_id id) { return __builtin_expect(a_ptrint(id) >= a_ptrint(UT_HIST_ID_SIGHANDLER), 0); }

// Which queue an event goes to. Queue 0 has several writers, who lock it; every other has one, who does not.
// Signal-safe.
inline int32 queue_of(a_ut_hist_id id, const a_ut_hist_thread& thread)
{
    if (is_special(id) && id == UT_HIST_ID_SIGHANDLER)
        return 1;
    if (is_special(id) && id == UT_HIST_ID_Q2)
        return hist_cfg.ut_hist_debug_q_by_thr != 0 ? 0 : 2;
    return thread.own_q;
}

// Only for a thread whose mark is set: shut-down frees the registry under all others. Without a registry no index counts.
// Signal-safe.
inline a_named_id name_of(a_ut_hist_id id)
{
    if (is_special(id))
        return {-1, id == UT_HIST_ID_SIGHANDLER ? "SigHandler" : id == UT_HIST_ID_Q2 ? "Q2" : nullptr};
    // Acquire: an entry below the count is complete.
    if (a_ptrint(id) < uint32(__atomic_load_n(&hist.hist_num_ids, __ATOMIC_ACQUIRE)))
        return {int32(a_ptrint(id)), hist.hist_ids[a_ptrint(id)].desc};
    return {-1, static_cast<const char*>(id)};
}

// Texts are copied by blocks of 16 characters, as the C library's string functions do: a block is read whole when it
// cannot reach into another page, wherever the text ends in it. The sanitizers must not look at that.
#define READS_WHOLE_BLOCKS __attribute__((no_sanitize("address", "thread")))
constexpr size_t page = 4096;

// What stands for a text that is not there; two whole blocks each.
alignas(2 * text_block) constexpr char no_file[2 * text_block] = "<no_file>";
alignas(2 * text_block) constexpr char no_id[2 * text_block] = "-";
alignas(2 * text_block) constexpr char no_ev[2 * text_block] = "?";

// Bit i is set where byte i of the block is NUL.
// Signal-safe.
inline uint32 nuls_of(__m128i block) { return uint32(_mm_movemask_epi8(_mm_cmpeq_epi8(block, _mm_setzero_si128()))); }

// A block of a text that may end before it: at the end of a page byte by byte.
// Signal-safe.
READS_WHOLE_BLOCKS inline __m128i load_block(const char* src)
{
    if (__builtin_expect(a_ptrint(src) % page <= page - text_block, 1))
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    char bytes[text_block] = {};
    for (size_t i = 0; i < text_block && src[i] != '\0'; i++)
        bytes[i] = src[i];
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// Signal-safe.
inline void store_words(char* dst, __m128i block)
{
    uint64* words = reinterpret_cast<uint64*>(dst);
    __atomic_store_n(words, uint64(_mm_cvtsi128_si64(block)), __ATOMIC_RELEASE);
    __atomic_store_n(words + 1, uint64(_mm_cvtsi128_si64(_mm_unpackhi_epi64(block, block))), __ATOMIC_RELEASE);
}

// Copies a text block by block until one holds its NUL.
// Signal-safe.
READS_WHOLE_BLOCKS __attribute__((noinline)) void store_long_text(char* dst, const char* src, size_t max)
{
    for (size_t at = 0; at < max; at += text_block) {
        const __m128i block = load_block(src + at);
        store_words(dst + at, block);
        if (nuls_of(block) != 0)
            break;
    }
}

using an_unaligned_word [[gnu::may_alias, gnu::aligned(1)]] = uint64;

// Copies a block of a text whose bytes may all be read: by words, which costs less than a block's way through a vector.
// Signal-safe.
READS_WHOLE_BLOCKS inline void copy_block(char* dst, const char* src)
{
    const an_unaligned_word* from = reinterpret_cast<const an_unaligned_word*>(src);
    uint64* to = reinterpret_cast<uint64*>(dst);
    __atomic_store_n(to, from[0], __ATOMIC_RELEASE);
    __atomic_store_n(to + 1, from[1], __ATOMIC_RELEASE);
}

// Signal-safe.
inline bool two_blocks_readable(const char* text) { return a_ptrint(text) % page <= page - 2 * text_block; }

// Copies at least what a reader looks at: up to the text's NUL or to character max, where the reader puts one. So a text
// of at most two blocks is copied without a look at its end.
// Signal-safe.
READS_WHOLE_BLOCKS inline void store_text(char* dst, const char* src, size_t max)
{
    if (max >= 2 * text_block || !two_blocks_readable(src)) [[unlikely]] {
        store_long_text(dst, src, max);
        return;
    }
    copy_block(dst, src);
    if (max >= text_block) [[likely]]
        copy_block(dst + text_block, src + text_block);
}

// Of a path too long the end tells more than the beginning.
// Signal-safe.
__attribute__((noinline)) void store_path_end(char* dst, const char* file)
{
    const size_t len = strlen(file), max = size_t(hist_cfg.hist_max_file_len);
    store_text(dst, len < max ? file : file + len - (max - 1), max);
}

// Bit i is set where one of two blocks, as one, has a NUL at character i.
// Signal-safe.
READS_WHOLE_BLOCKS inline uint32 nuls_of_two(const char* text)
{
    const __m128i* const blocks = reinterpret_cast<const __m128i*>(text);
    return nuls_of(_mm_loadu_si128(blocks)) | nuls_of(_mm_loadu_si128(blocks + 1)) << text_block;
}

// The two blocks of a short name may reach into the id's text, which is stored after it.
// Signal-safe.
inline void store_file(char* dst, const char* file)
{
    if (file == nullptr) [[unlikely]] {
        store_text(dst, no_file, size_t(hist_cfg.hist_max_file_len));
    } else if (two_blocks_readable(file) && (nuls_of_two(file) & hist_cfg.file_fits) != 0) [[likely]] {
        copy_block(dst, file);
        copy_block(dst + text_block, file + text_block);
    } else {
        store_path_end(dst, file);
    }
}

// Signal-safe.
inline void store_texts(char* dst, const char* file, const char* id, const char* ev)
{
    if (id == nullptr) [[unlikely]]
        id = no_id;
    if (ev == nullptr) [[unlikely]]
        ev = no_ev;
    store_file(dst, file);
    store_text(dst + hist_cfg.id_text_at, id, size_t(hist_cfg.hist_max_id_len));
    store_text(dst + hist_cfg.ev_text_at, ev, size_t(hist_cfg.hist_max_ev_len));
}

// Copies a data block, whole words where the ring is aligned. Release, so that a reader of any of these bytes sees the
// ring's position that was stored before them.
// Signal-safe.
void store_block(char* dst, const char* src, size_t len)
{
    while (len > 0 && (a_ptrint(dst) & 7) != 0) {
        __atomic_store_n(dst++, *src++, __ATOMIC_RELEASE);
        len--;
    }
    for (; len >= 8; len -= 8, dst += 8, src += 8) {
        uint64 word;
        memcpy(&word, src, 8);
        __atomic_store_n(reinterpret_cast<uint64*>(dst), word, __ATOMIC_RELEASE);
    }
    while (len-- > 0)
        __atomic_store_n(dst++, *src++, __ATOMIC_RELEASE);
}

// Stores the block of a data event and notes in the record where it lies; generation 0 where there is none. Only
// records of this class are asked for it. The position moves first, see hist_store.h.
// Signal-safe.
__attribute__((noinline)) void record_data(a_ut_hist_event_list& queue, a_ut_hist_event& r, const void* block,
                                           int64_t length)
{
    __atomic_store_n(&r.data_gen, 0u, __ATOMIC_RELEASE);
    __atomic_store_n(&r.data_idx, 0u, __ATOMIC_RELEASE);
    if (block == nullptr || length <= 0 || queue.data_buf == nullptr)
        return;
    const uint32 size = uint32(hist_cfg.ut_hist_debug_data_size);
    const uint32 len = uint64(length) > size ? size : uint32(length);
    // Relaxed: only this writer moves the position.
    a_data_pos at = unpack_data(__atomic_load_n(&queue.data_pos, __ATOMIC_RELAXED));
    if (size - len < at.data_fil)
        at = {at.data_gen + 1, 0};
    __atomic_store_n(&r.data_gen, at.data_gen, __ATOMIC_RELEASE);
    __atomic_store_n(&r.data_idx, at.data_fil, __ATOMIC_RELEASE);
    __atomic_store_n(&queue.data_pos, pack_data({at.data_gen, at.data_fil + len}), __ATOMIC_RELAXED);
    store_block(queue.data_buf + at.data_fil, static_cast<const char*>(block), len);
}

// The thread's blocked signals, recorded always or never: without them got_sigs stays 0, as the ring was allocated. The
// kernel knows 64 signals: the first word holds them all.
// Signal-safe.
__attribute__((noinline)) void store_sigmask(a_ut_hist_event& r)
{
    sigset_t mask;
    sigemptyset(&mask);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    unsigned long word;
    memcpy(&word, &mask, sizeof word);
    __atomic_store_n(reinterpret_cast<unsigned long*>(&r.sigset), word, __ATOMIC_RELEASE);
    __atomic_store_n(&r.got_sigs, 1, __ATOMIC_RELEASE);
}

// Signal-safe.
inline void store_pointers(a_ut_hist_event& r, const char* file, const char* id, const char* ev)
{
    __atomic_store_n(&r.file, const_cast<char*>(file), __ATOMIC_RELEASE);
    __atomic_store_n(&r.id, a_ut_hist_id(const_cast<char*>(id)), __ATOMIC_RELEASE);
    __atomic_store_n(&r.ev, const_cast<char*>(ev), __ATOMIC_RELEASE);
}

// Parameters that do not count are not looked at; the second half is stored only when one of them does (all count when
// pn is negative).
// Signal-safe.
inline void store_parms(a_ut_hist_event& r, const an_event& event)
{
    __atomic_store_n(&r.p[0], event.p1, __ATOMIC_RELEASE);
    __atomic_store_n(&r.p[1], event.p2, __ATOMIC_RELEASE);
    __atomic_store_n(&r.p[2], event.p3, __ATOMIC_RELEASE);
    __atomic_store_n(&r.p[3], event.p4, __ATOMIC_RELEASE);
    if (uint32(event.pn) <= 4) [[likely]]
        return;
    __atomic_store_n(&r.p[4], event.p5, __ATOMIC_RELEASE);
    __atomic_store_n(&r.p[5], event.p6, __ATOMIC_RELEASE);
    __atomic_store_n(&r.p[6], event.p7, __ATOMIC_RELEASE);
    __atomic_store_n(&r.p[7], event.p8, __ATOMIC_RELEASE);
}

// Signal-safe.
a_ut_hist_loc load_loc(const a_ut_hist_loc* loc)
{
    // Relaxed: a location shared by several threads may mix two of them; the number found in the slot decides.
    return {__atomic_load_n(&loc->q, __ATOMIC_RELAXED), __atomic_load_n(&loc->n, __ATOMIC_RELAXED),
            __atomic_load_n(&loc->num, __ATOMIC_RELAXED)};
}

// Signal-safe.
void store_loc(a_ut_hist_loc* loc, const a_ut_hist_loc& value)
{
    __atomic_store_n(&loc->q, value.q, __ATOMIC_RELAXED);
    __atomic_store_n(&loc->n, value.n, __ATOMIC_RELAXED);
    __atomic_store_n(&loc->num, value.num, __ATOMIC_RELAXED);
}

// Times the event against the record that the caller's location names and against the thread's last marker; a pair that
// the location has just counted is not counted again. Returns the duration column.
// Not signal-safe: for a registered id it locks timer lists. For any other it is.
__attribute__((noinline)) uint32 record_times(a_ut_hist_loc* loc, int32 cl, int32 ii, uint32 t, a_ut_hist_loc here,
                                              const struct timeval now)
{
    uint32 dur = hist_no_dur;
    int32 just_ii = -1, just_cl = UT_HIST_CL_NULL;
    an_earlier_event earlier;
    if (loc != nullptr) {
        if (hist_live(load_loc(loc), earlier)) {
            dur = hist_elapsed(earlier.time_of_day, now);
            if (ii >= 0) {
                ut_hist_add_time(ii, earlier.cl, ii, cl, dur);
                just_ii = ii;
                just_cl = earlier.cl;
            }
        }
        store_loc(loc, here);
    }
    if (ii < 0)
        return dur;
    a_ut_hist_thread& thread = hist.threads[t];
    const int32 last_ii = __atomic_load_n(&thread.last_marker_ii, __ATOMIC_RELAXED);
    if (last_ii >= 0 && hist_live(load_loc(&thread.last_marker_loc), earlier) &&
        !(last_ii == just_ii && earlier.cl == just_cl))
        ut_hist_add_time(last_ii, earlier.cl, ii, cl, hist_elapsed(earlier.time_of_day, now));
    __atomic_store_n(&thread.last_marker_ii, ii, __ATOMIC_RELAXED);
    store_loc(&thread.last_marker_loc, here);
    return dur;
}

// Moves the ring past slot `at.next`. Release: who sees it moved on sees the record behind it, whole.
// Signal-safe.
inline void advance(a_ut_hist_event_list& queue, a_ring_pos at)
{
    __atomic_store_n(&queue.ring_pos, pack_ring(next_slot(at, uint32(hist_cfg.ut_hist_debug_num))), __ATOMIC_RELEASE);
}

// For an event during which a signal handler forked: in the child the ring may have gone on behind its slot, and what the
// handler recorded may stand there by now, its data blocks under the rest of this one's. No row made of both is read from
// now on, and no block: the generation goes on beyond all that were given out, those of older events too. (A fork before the
// slot is marked lets the handler's first record go with this one; one after this look, in the event's last instructions,
// takes the ring back over what the handler recorded. If it recorded more events than the ring holds, a dump by signal
// before this shows what this event has written over.)
// Signal-safe.
__attribute__((noinline, cold)) void give_up(a_ut_hist_event_list& queue, a_ut_hist_event& r, a_ring_pos at, int32 cl)
{
    constexpr uint32 far = 0x100000;
    __atomic_store_n(&r.seq, seq_writing(at.laps), __ATOMIC_RELAXED);
    if (cl != UT_HIST_CL_DATA)
        return;
    const a_data_pos pos = unpack_data(__atomic_load_n(&queue.data_pos, __ATOMIC_RELAXED));
    __atomic_store_n(&queue.data_pos, pack_data({pos.data_gen + far, 0}), __ATOMIC_RELEASE);
}

// Fills the queue's next slot and publishes it. Returns the slot.
// Not signal-safe: see record_times.
inline uint32 record(const an_event& event, a_ut_hist_event_list& queue, int32 q, uint32 t, const a_hist_lock& lock)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    // The clock waits for all loads before it, a locked instruction for all stores: so both come before what finds and
    // fills the slot. Relaxed: the count orders nothing, it only has to be unique.
    const uint32 num = __atomic_add_fetch(&hist.hist_count, 1u, __ATOMIC_RELAXED);
    // Relaxed: only writers of this queue move it, and they are serialised or alone.
    const a_ring_pos at = unpack_ring(__atomic_load_n(&queue.ring_pos, __ATOMIC_RELAXED));
    a_ut_hist_event& r = queue.evs[at.next];
    __atomic_store_n(&r.seq, seq_writing(at.laps), __ATOMIC_RELAXED);

    __atomic_store_n(&r.time_of_day.tv_sec, now.tv_sec, __ATOMIC_RELEASE);
    __atomic_store_n(&r.time_of_day.tv_usec, now.tv_usec, __ATOMIC_RELEASE);
    if (hist_cfg.ut_hist_dump_on_fini != 0)
        store_texts(queue.texts + at.next * hist_cfg.text_stride, event.file, event.id.text, event.ev);
    else
        store_pointers(r, event.file, event.id.text, event.ev);
    __atomic_store_n(&r.line, event.line, __ATOMIC_RELEASE);
    __atomic_store_n(&r.num, num, __ATOMIC_RELEASE);
    __atomic_store_n(&r.thread, t, __ATOMIC_RELEASE);
    if (hist_cfg.ut_hist_inc_sigmask != 0) [[unlikely]]
        store_sigmask(r);
    __atomic_store_n(&r.cl, event.cl, __ATOMIC_RELEASE);
    __atomic_store_n(&r.pn, event.pn, __ATOMIC_RELEASE);
    store_parms(r, event);
    if (event.cl == UT_HIST_CL_DATA) [[unlikely]]
        record_data(queue, r, event.p1, int64_t(a_ptrint(event.p2)));
    uint32 dur = hist_no_dur;
    // The others are the straight way, since they can least afford a jump.
    if (event.loc != nullptr || event.id.ii >= 0) [[unlikely]]
        dur = record_times(event.loc, event.cl, event.id.ii, t, {q, at.next, num}, now);
    __atomic_store_n(&r.dur, dur, __ATOMIC_RELEASE);
    // Release: who sees the even word sees the record behind it.
    __atomic_store_n(&r.seq, seq_whole(at.laps), __ATOMIC_RELEASE);
    if (lock.forked()) [[unlikely]]
        give_up(queue, r, at, event.cl);
    else
        advance(queue, at);
    return at.next;
}

// Records under the queue's lock, if it has one.
// Not signal-safe: it may lock. With UT_HIST_ID_SIGHANDLER it is.
inline uint32 record_locked(const an_event& event, int32 q, uint32 t)
{
    a_ut_hist_event_list& queue = hist.hist_evs[q];
    const a_hist_lock lock(q == 0 ? &queue.mutex : nullptr);
    if (q == 0 && hist_cfg.ut_hist_dump_on_sig >= 2) [[unlikely]]
        hist_install_signal_handler_once();
    return record(event, queue, q, t, lock);
}

// The two messages of a recording go straight to the present errout stream: they open nothing and have no timestamp
// line.
// Not signal-safe: it prints.
__attribute__((noinline, cold)) void say_begin(an_event event)
{
    const an_uncancelled_scope uncancelled;  // the thread's mark is set
    fprintf(hist_cfg.ut_hist_dump_err_file, "** HISTORY ** add (%s:%u) P=%d(%p,%p,%p,%p) ...%s",
            event.file != nullptr ? event.file : "<no_file>", event.line, event.pn, event.p1, event.p2, event.p3,
            event.p4, hist_cfg.ut_hist_eol);
}

// Not signal-safe: it prints.
__attribute__((noinline, cold)) void say_done(int32 q, uint32 n)
{
    const an_uncancelled_scope uncancelled;
    fprintf(hist_cfg.ut_hist_dump_err_file, "** HISTORY z-messages ** add done q=%d, n=%d%s", q, int32(n),
            hist_cfg.ut_hist_eol);
    fflush(hist_cfg.ut_hist_dump_err_file);
}

// Counts an event of a thread without a slot. Relaxed: the counts are only shown.
// Signal-safe.
void miss(uint32 t)
{
    __atomic_add_fetch(&hist.events_missed, 1u, __ATOMIC_RELAXED);
    __atomic_store_n(&hist.last_missed_thread, t, __ATOMIC_RELAXED);
}

}  // namespace

// Signal-safe with UT_HIST_ID_SIGHANDLER (and diagnostic messages off), else not: it may lock.
void ut_hist_add(const char* file, uint32 line, a_ut_hist_loc* loc, a_ut_hist_cl cl, a_ut_hist_id id, const char* ev,
                 int32 pn, void* p1, void* p2, void* p3, void* p4, void* p5, void* p6, void* p7, void* p8)
{
    // Acquire: who sees the history running sees its whole store.
    if (!__atomic_load_n(&hist.hist_initialized, __ATOMIC_ACQUIRE)) [[unlikely]]
        return;
    const a_slot slot = hist_thread_slot();
    if (slot.thread == nullptr) [[unlikely]] {
        miss(slot.t);
        return;
    }
    const int32 q = queue_of(id, *slot.thread);
    int32& recursing = slot.thread->recursing[q];
    if (__atomic_load_n(&recursing, __ATOMIC_RELAXED) > 0) [[unlikely]]
        return;
    __atomic_store_n(&recursing, 1, __ATOMIC_RELAXED);
    // A handler on this thread must find the mark for as long as the record is being written, and no longer.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    // Looked at again: shut-down waits for marks that it sees, and a mark it did not see finds the history stopped.
    if (__builtin_expect(!__atomic_load_n(&hist.hist_initialized, __ATOMIC_RELAXED), 0)) {
        __atomic_store_n(&recursing, 0, __ATOMIC_RELAXED);
        return;
    }
    const an_event event = {file, line, loc, cl, name_of(id), ev, pn, p1, p2, p3, p4, p5, p6, p7, p8};
    if (hist_cfg.ut_hist_z_messages > 1) [[unlikely]]
        say_begin(event);
    const uint32 n = record_locked(event, q, slot.t);
    if (hist_cfg.ut_hist_z_messages > 1) [[unlikely]]
        say_done(q, n);
    // Release: shut-down frees the store only after what was written here.
    __atomic_store_n(&recursing, 0, __ATOMIC_RELEASE);
}
