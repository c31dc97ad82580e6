// hist_record.cpp: ut_hist_add, the one way into the history.
//
// It takes at most the queue's lock and, inside it, one timer list's lock at a time; with UT_HIST_ID_SIGHANDLER it
// takes none. Signal-safe: all of it, but what says otherwise.
//
// Several threads may share a slot under the literal rule and then write one unlocked queue together, against
// its single-writer rule. Their records may be torn, but `next` and the data position are read once and
// checked, so that no store leaves the ring.
#include <errno.h>
#include <string.h>

#include <atomic>
#include <utility>

#include "utils/etc/utcancel.h"
#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/hist_lock.h"
#include "utils/etc/uthist/hist_log.h"
#include "utils/etc/uthist/hist_ring.h"
#include "utils/etc/uthist/hist_slots.h"
#include "utils/etc/uthist/hist_stats.h"
#include "utils/etc/uthist/hist_threads.h"
#include "utils/etc/uthist/hist_tsc.h"

namespace {

// The arguments of one event. On the short ways all that reads it is inlined, so that it never stands in memory.
struct an_event {
    const char* file;
    uint32 line;
    a_ut_hist_loc* loc;
    int32 cl;
    a_ut_hist_id id;
    const char* ev;
    int32 pn;
    void *p1, *p2, *p3, *p4, *p5, *p6, *p7, *p8;
};

// What the bits of a way say. The ways are one source, of which each leaves out what it need not look at.
inline constexpr bool is_short(uint32 way) { return (way & SHORT_WAY) != 0; }
inline constexpr bool is_locked(uint32 way) { return is_short(way) && (way & OWN_QUEUE) == 0; }
inline constexpr bool is_copying(uint32 way) { return is_short(way) && (way & POINTERS) == 0; }
inline constexpr bool has_usual_texts(uint32 way) { return is_copying(way) && (way & LONG_TEXTS) == 0; }
inline bool copies_texts(uint32 way) { return is_short(way) ? is_copying(way) : hist_cfg.copies; }
inline bool has_tables(uint32 way) { return is_short(way) ? (way & TABLES) != 0 : hist.views != nullptr; }

// The ids that name a queue.
inline bool names_queue(a_ut_hist_id id) { return id == UT_HIST_ID_SIGHANDLER || id == UT_HIST_ID_Q2; }

// Which queue an event goes to. Queue 0 has several writers, who lock it; every other has one, who does not.
inline int32 queue_of(a_ut_hist_id id, const a_ut_hist_thread& thread)
{
    if (id == UT_HIST_ID_SIGHANDLER)
        return 1;
    if (id == UT_HIST_ID_Q2)
        return hist_cfg.ut_hist_debug_q_by_thr != 0 ? 0 : 2;
    return thread.own_q;
}

// Whether the id is an index of the registry. Only for a thread whose mark is set: shut-down frees the registry under
// all others. Acquire: an entry below the count is complete.
inline bool is_registered(a_ut_hist_id id)
{
    return a_ptrint(id) < uint32(__atomic_load_n(&hist.hist_num_ids, __ATOMIC_ACQUIRE));
}

// The id's text; null for none.
[[gnu::always_inline]] inline const char* text_of(uint32 way, a_ut_hist_id id)
{
    if (!is_short(way) && names_queue(id))
        return id == UT_HIST_ID_SIGHANDLER ? "SigHandler" : "Q2";
    if (id == UT_HIST_ID_NONE)
        return nullptr;
    return is_registered(id) ? hist.hist_ids[a_ptrint(id)].desc : static_cast<const char*>(id);
}

// The thread's blocked signals, recorded always or never: without them got_sigs stays 0, as the ring was allocated. The
// kernel knows 64 signals: the first word holds them all.
__attribute__((noinline)) void store_sigmask(a_ut_hist_event& r)
{
    sigset_t mask;
    sigemptyset(&mask);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    uint64 word;
    memcpy(&word, &mask, sizeof word);
    __atomic_store_n(&r.sigset[0], word, __ATOMIC_RELEASE);
    __atomic_store_n(&r.got_sigs, 1, __ATOMIC_RELEASE);
}

// Parameters that do not count are not looked at; the second half is stored only when one of them does (all count when
// pn is negative).
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

a_ut_hist_loc load_loc(const a_ut_hist_loc* loc)
{
    // Relaxed: a location shared by several threads may mix two of them; the number found in the slot decides.
    return {__atomic_load_n(&loc->q, __ATOMIC_RELAXED), __atomic_load_n(&loc->n, __ATOMIC_RELAXED),
            __atomic_load_n(&loc->num, __ATOMIC_RELAXED)};
}

void store_loc(a_ut_hist_loc* loc, const a_ut_hist_loc& value)
{
    __atomic_store_n(&loc->q, value.q, __ATOMIC_RELAXED);
    __atomic_store_n(&loc->n, value.n, __ATOMIC_RELAXED);
    __atomic_store_n(&loc->num, value.num, __ATOMIC_RELAXED);
}

bool is_same(const a_ut_hist_loc& a, const a_ut_hist_loc& b) { return a.num == b.num && a.n == b.n && a.q == b.q; }

// Anchors of two queues differ by some microseconds: between their events no time has passed then.
inline uint32 elapsed(const struct timeval& from, const struct timeval& to)
{
    const uint32 passed = hist_elapsed(from, to);
    return hist.anchors != nullptr && passed > UINT32_MAX - hist_tsc_step + 1 ? 0 : passed;
}

// Times the event against the record that the caller's location names and against the thread's last marker; a pair that
// the location has just counted is not counted again. Returns the duration column.
// Signal-safe but for a registered id: for that it locks timer lists.
__attribute__((noinline)) uint32 record_times(a_ut_hist_loc* loc, a_ut_hist_loc here, int32 cl, a_ut_hist_id id,
                                              uint32 t, const struct timeval& now)
{
    const int32 ii = is_registered(id) ? int32(a_ptrint(id)) : -1;
    uint32 dur = hist_no_dur;
    int32 just_ii = -1, just_cl = UT_HIST_CL_NULL;
    a_ut_hist_loc named = {};
    an_earlier_event earlier;
    if (loc != nullptr) {
        named = load_loc(loc);
        if (hist_live(named, earlier)) {
            dur = elapsed(earlier.time_of_day, now);
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
    const a_ut_hist_loc marker = load_loc(&thread.last_marker_loc);
    // Most often the location names the last marker.
    const bool is_counted = last_ii == just_ii && is_same(marker, named);
    if (last_ii >= 0 && !is_counted && hist_live(marker, earlier) && !(last_ii == just_ii && earlier.cl == just_cl))
        ut_hist_add_time(last_ii, earlier.cl, ii, cl, elapsed(earlier.time_of_day, now));
    __atomic_store_n(&thread.last_marker_ii, ii, __ATOMIC_RELAXED);
    store_loc(&thread.last_marker_loc, here);
    return dur;
}

// The time of an event. Handlers, and those who name queue 2, may write their queues side by side, which no anchor
// bears. Through a reference: a copy of both words at once would wait for the two stores of the clock. Gives the
// number. Relaxed: the count orders nothing, it only has to be unique.
[[gnu::always_inline]] inline uint32 get_time(uint32 way, struct timeval& now, a_ut_hist_id id, int32 q)
{
    const bool alone = is_short(way) || q == 0 || !names_queue(id);
    if (__builtin_expect(hist.anchors != nullptr && alone, 0)) {
        const uint32 num = __atomic_add_fetch(&hist.hist_count, 1u, __ATOMIC_RELAXED);
        hist_tsc_now(hist.anchors[q], now);
        return num;
    }
    gettimeofday(&now, nullptr);
    return __atomic_add_fetch(&hist.hist_count, 1u, __ATOMIC_RELAXED);
}

// Fills the queue's next slot and publishes it. Returns the slot. Signal-safe as record_times is.
[[gnu::always_inline]] inline uint32 record(uint32 way, const an_event& event, a_ut_hist_event_list& queue, int32 q,
                                            uint32 t)
{
    // The stores of the texts leave the processor's buffer while the clock is read, and their loads need not wait for
    // the locked instruction behind it. Three addresses gain nothing by that.
    const bool texts_first = is_copying(way);
    // Of texts in as many blocks one maximum is as good as another.
    const size_t max_file = has_usual_texts(way) ? default_file_len : hist.max_file_len,
                 max_id = size_t(has_usual_texts(way) ? default_id_len : hist_cfg.hist_max_id_len),
                 max_ev = size_t(has_usual_texts(way) ? default_ev_len : hist_cfg.hist_max_ev_len);
    struct timeval now;
    uint32 num = 0;
    if (!texts_first)
        num = get_time(way, now, event.id, q);
    const char* const id = text_of(way, event.id);
    const a_ring_pos at = ring_next(queue);
    a_ut_hist_event& r = queue.evs[at.next];
    if (has_tables(way))
        hist_before_event(queue, r, q, t);
    __atomic_store_n(&r.seq, seq_writing(at.laps), __ATOMIC_RELAXED);
    if (copies_texts(way))
        hist_store_texts(queue.texts + at.next * hist.text_stride, event.file, id, event.ev, max_file, max_id, max_ev);
    else
        hist_store_pointers(r, event.file, id, event.ev);
    if (texts_first)
        num = get_time(way, now, event.id, q);
    __atomic_store_n(&r.time_of_day.tv_sec, now.tv_sec, __ATOMIC_RELEASE);
    __atomic_store_n(&r.time_of_day.tv_usec, now.tv_usec, __ATOMIC_RELEASE);
    __atomic_store_n(&r.line, event.line, __ATOMIC_RELEASE);
    __atomic_store_n(&r.num, num, __ATOMIC_RELEASE);
    __atomic_store_n(&r.thread, t, __ATOMIC_RELEASE);
    if (!is_short(way) && hist_cfg.ut_hist_inc_sigmask != 0)
        store_sigmask(r);
    __atomic_store_n(&r.cl, event.cl, __ATOMIC_RELEASE);
    __atomic_store_n(&r.pn, event.pn, __ATOMIC_RELEASE);
    store_parms(r, event);
    if (event.cl == UT_HIST_CL_DATA) [[unlikely]]
        hist_store_data(queue, r, event.p1, int64_t(a_ptrint(event.p2)));
    uint32 dur = hist_no_dur;
    // The others are the straight way, since they can least afford a jump.
    if (event.loc != nullptr || is_registered(event.id)) [[unlikely]]
        dur = record_times(event.loc, {q, at.next, num}, event.cl, event.id, t, now);
    __atomic_store_n(&r.dur, dur, __ATOMIC_RELEASE);
    if (is_locked(way))
        ring_publish_alone(queue, r, at);
    else
        ring_publish(queue, r, at);
    if (has_tables(way)) {
        a_hist_view& v = hist_view_of(t);
        if (!is_short(way) && hist_cfg.dense_slots == 0)
            hist_take_slot(t);
        hist_after_event(v, queue, r, q, num);
        if (event.cl == UT_HIST_CL_BEG && event.id != UT_HIST_ID_SIGHANDLER)
            hist_open_span(v, event.loc, event.id, text_of(way, event.id), now, max_id);
        else if (event.cl == UT_HIST_CL_END && event.id != UT_HIST_ID_SIGHANDLER)
            hist_end_span(v, event.loc, event.id);
    }
    return at.next;
}

// Records under the queue's lock, if it has one. Signal-safe with UT_HIST_ID_SIGHANDLER, whose queue has none.
[[gnu::always_inline]] inline uint32 record_locked(uint32 way, const an_event& event, int32 q, uint32 t)
{
    if (!is_locked(way) && (is_short(way) || q != 0))
        return record(way, event, hist.hist_evs[q], q, t);
    a_ut_hist_event_list& queue = hist.hist_evs[0];
    const a_hist_lock lock(queue.gate);
    if (!is_short(way) && hist_cfg.ut_hist_dump_on_sig >= 2)
        hist_install_signal_handler_once();
    return record(way, event, queue, 0, t);
}

// The two messages of a recording go straight to the present errout stream: they open nothing and have no timestamp
// line.
template <class... a_part>
__attribute__((noinline, cold)) void say(a_part... parts)
{
    if (__atomic_load_n(&hist_errout_is_stuck, __ATOMIC_RELAXED))
        return;
    const an_uncancelled_scope uncancelled;  // the thread's mark is set
    an_output out;
    hist_line(out, hist_errout_as_it_is(), "** HISTORY ").text.put(parts...);
    hist_note_stuck(out);
}

// Counts an event of a thread without a slot. Relaxed: the counts are only shown.
void miss(uint32 t)
{
    __atomic_add_fetch(&hist.live->events_missed, 1u, __ATOMIC_RELAXED);
    __atomic_store_n(&hist.live->last_missed_thread, t, __ATOMIC_RELAXED);
}

// Records an event of a thread into the queue unless the thread is recording there already.
[[gnu::always_inline]] inline void add(uint32 way, an_event& event, a_slot slot, int32 q)
{
    a_ut_hist_thread& thread = *slot.thread;
    if (__atomic_load_n(&thread.recursing[q], __ATOMIC_RELAXED) > 0) [[unlikely]]
        return;
    __atomic_store_n(&thread.recursing[q], uint8_t(1), __ATOMIC_RELAXED);
    // A handler on this thread must find the mark for as long as the record is being written, and no longer.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    // Looked at again: shut-down waits for marks that it sees, and a mark it did not see finds the history stopped. No
    // fork comes in between, so the process's own word is as good.
    if (__builtin_expect(!__atomic_load_n(&hist.hist_initialized, __ATOMIC_RELAXED), 0)) {
        __atomic_store_n(&thread.recursing[q], uint8_t(0), __ATOMIC_RELAXED);
        return;
    }
    if (!is_short(way) && hist_cfg.ut_hist_z_messages > 1)
        say("** add (", event.file != nullptr ? event.file : hist_no_file, ':', event.line, ") P=", event.pn, '(',
            const_cast<const void*>(event.p1), ',', const_cast<const void*>(event.p2), ',',
            const_cast<const void*>(event.p3), ',', const_cast<const void*>(event.p4), ") ...");
    // Before the lock, which waits for what the caller has stored.
    char room[2 * text_block];
    if (copies_texts(way))
        event.file = hist_file_shown(event.file, room, has_usual_texts(way) ? default_file_len : hist.max_file_len);
    const uint32 n = record_locked(way, event, q, slot.t);
    if (!is_short(way) && hist_cfg.ut_hist_z_messages > 1)
        say("z-messages ** add done q=", q, ", n=", int32(n));
    // Release: shut-down frees the store only after what was written here.
    __atomic_store_n(&thread.recursing[q], uint8_t(0), __ATOMIC_RELEASE);
}

// What the short ways leave.
__attribute__((noinline)) void add_any(an_event&& event)
{
    if (!hist_runs())
        return;
    const a_slot slot = hist_thread_slot();
    if (slot.thread == nullptr)
        return miss(slot.t);
    add(ANY_WAY, event, slot, queue_of(event.id, *slot.thread));
}

// What two functions pass on as it comes.
#define EVENT_PARAMETERS                                                                                               \
    const char *file, uint32 line, a_ut_hist_loc *loc, a_ut_hist_cl cl, a_ut_hist_id id, const char *ev, int32 pn,     \
        void *p1, void *p2, void *p3, void *p4, void *p5, void *p6, void *p7, void *p8
#define EVENT file, line, loc, cl, id, ev, pn, p1, p2, p3, p4, p5, p6, p7, p8

template <uint32 way>
void add_by(EVENT_PARAMETERS)
{
    // The way again, since a handler's event may have claimed a slot after the jump, and whether its start-up runs.
    const uint64 mine = hist_my_slot;
    const bool is_mine = mine >> slot_way_at == slot_word(hist_running(), way, 0) >> slot_way_at;
    if (!is_short(way) || !is_mine || names_queue(id)) [[unlikely]]
        return add_any({EVENT});
    const a_slot slot = {&hist.threads[slot_number(mine)], slot_number(mine)};
    an_event event = {EVENT};
    add(way, event, slot, is_locked(way) ? 0 : slot.thread->own_q);
}

using an_adder = void (*)(EVENT_PARAMETERS);

struct an_adder_table {
    an_adder of[num_ways];
};

// The way that serves a slot's bits.
constexpr uint32 served(uint32 bits)
{
    return !is_short(bits) ? ANY_WAY : is_copying(bits) ? bits : bits & ~LONG_TEXTS;
}

template <uint32... ways>
constexpr an_adder_table all_adders(std::integer_sequence<uint32, ways...>)
{
    return {{add_by<served(ways)>...}};
}
constexpr an_adder_table adders = all_adders(std::make_integer_sequence<uint32, num_ways>());

}  // namespace

// A jump by the way of the thread's slot: the arguments stay where they are.
// Signal-safe with UT_HIST_ID_SIGHANDLER (and diagnostic messages off), else not: it may lock.
void ut_hist_add(EVENT_PARAMETERS)
{
    const an_adder add_by_way = adders.of[slot_way(hist_my_slot)];
    add_by_way(EVENT);
}
