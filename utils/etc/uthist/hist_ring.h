// hist_ring.h: a queue's ring: its position, writing and reading one record, and the cursors of a dump.
//
// A queue is a ring of ut_hist_debug_num records; the next write goes to slot `next`:
//
//     not wrapped                              wrapped
//     |#####.........|                         |#####o########|
//      ^    ^next = first free                      ^next = oldest, the next to be overwritten
//      oldest                                        ^next + 1 = where a dump begins
//
// Every record carries a sequence word made from the ring's lap: odd while the record is written, even when it is
// whole, and 2 higher each lap. A reader without the lock takes the word, the fields and the word again: two equal even
// values mean one whole record. All fields are stored with release and loaded with acquire order between the two looks
// at the word: a reader that saw one field of a newer record then also sees the newer sequence word. (That spares
// fences, which ThreadSanitizer does not model, and costs nothing on x86.) `next` is published after the record is
// whole, so the slot being written is always the one that a dump leaves out. Signal-safe: all of it.
#pragma once

#include "utils/etc/uthist/hist_texts.h"

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

// Relaxed: only writers of this queue move it, and they are serialised or alone.
inline a_ring_pos ring_next(const a_ut_hist_event_list& queue)
{
    return unpack_ring(__atomic_load_n(&queue.ring_pos, __ATOMIC_RELAXED));
}

void hist_leave_record(a_ut_hist_event& r, a_ring_pos at);

// Publishes the record r, written at that position: who sees the even word sees the record behind it, who sees the ring
// moved on sees it whole. Relaxed: the record's word is the one that this writer stored.
inline void ring_publish_alone(a_ut_hist_event_list& queue, a_ut_hist_event& r, a_ring_pos at)
{
    __atomic_store_n(&r.seq, __atomic_load_n(&r.seq, __ATOMIC_RELAXED) + 1, __ATOMIC_RELEASE);
    __atomic_store_n(&queue.ring_pos, pack_ring(next_slot(at, hist.ring_size)), __ATOMIC_RELEASE);
}

// The same of an unlocked queue. A record whose ring has moved meanwhile, by a second writer, stays unfinished: the two
// may have mixed.
inline void ring_publish(a_ut_hist_event_list& queue, a_ut_hist_event& r, a_ring_pos at)
{
    if (__atomic_load_n(&queue.ring_pos, __ATOMIC_RELAXED) != pack_ring(at)) [[unlikely]]
        return hist_leave_record(r, at);
    ring_publish_alone(queue, r, at);
}

// What a later event needs of an earlier record.
struct an_earlier_event {
    struct timeval time_of_day;
    int32 cl;
};

// Whether `loc` names a record that still stands in its ring; if so, gives what a later event needs of it. A record
// that is overwritten meanwhile is stale.
inline bool hist_live(const a_ut_hist_loc& loc, an_earlier_event& found)
{
    if (uint32(loc.q) >= hist.num_queues || loc.n >= hist.ring_size)
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

// A whole record, copied out of its ring.
struct a_hist_row {
    struct timeval time_of_day;
    a_hist_row_texts texts;
    uint32 q, line, num, thread;
    int32 got_sigs;
    uint64 sigset;  // signal s is bit s - 1
    int32 prio;
    uint32 dur;
    int32 cl;
    int32 pn;  // at most hist_max_parms
    void* p[hist_max_parms];
    uint32 data_gen, data_idx;
};

// Where a dump stands in one queue: at the record that was written as the index-th, counted from 0. Those from `newer`
// on were written after the dump began. `left` bounds the rows that the queue may still contribute.
struct a_hist_cursor {
    uint64 index;
    uint64 newer;
    uint32 left;
    bool loaded;  // `row` holds that record
    a_hist_row row;
    char* texts;  // copy mode: room for the row's texts
};

using a_row_loader = void (*)(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, a_hist_cursor& at);
void hist_load_widths(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, a_hist_cursor& at);
void hist_load_row(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, a_hist_cursor& at);

void hist_start_cursor(uint32 q, a_hist_cursor& at);
bool hist_load_next(a_hist_cursor& at, a_row_loader load);
void hist_step(a_hist_cursor& at);
void hist_mark_absent_id(const a_hist_cursor& at);
