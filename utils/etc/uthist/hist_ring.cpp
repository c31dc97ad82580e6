// hist_ring.cpp: the reader's side of the rings (hist_ring.h says how a record proves whole).
//
// A cursor that finds its record overwritten goes on at the oldest one that still stands; every step uses up one of the
// rows that the ring holds, so a dump ends however fast others record. It is the same with and without the queue locks.
// Signal-safe: all of it.
#include "utils/etc/uthist/hist_ring.h"

namespace {

uint64 ring_size() { return uint64(hist.cfg->ut_hist_debug_num); }

// Acquire: the records before the position are whole.
a_ring_pos ring_pos(const a_ut_hist_event_list& queue)
{
    return unpack_ring(__atomic_load_n(&queue.ring_pos, __ATOMIC_ACQUIRE));
}

// How many records have been written up to a position.
uint64 written(a_ring_pos at) { return at.laps * ring_size() + at.next; }

// Puts the cursor on the queue's oldest record, but for the one that is overwritten next.
void seek_oldest(const a_ut_hist_event_list& queue, a_hist_cursor& at)
{
    const a_ring_pos end = ring_pos(queue);
    at.index = end.wrapped() ? written(end) - ring_size() + 1 : 0;
    at.loaded = false;
}

a_ut_hist_event& record_at(const a_hist_cursor& at) { return hist.hist_evs[at.row.q].evs[at.index % ring_size()]; }

// Copies the record under the cursor. False when it is not, or did not stay, the whole one that the cursor expects.
bool load_whole(const a_ut_hist_event_list& queue, a_hist_cursor& at, a_row_loader load)
{
    const a_ut_hist_event& r = record_at(at);
    const uint32 seq = seq_whole(uint32(at.index / ring_size()));
    if (__atomic_load_n(&r.seq, __ATOMIC_ACQUIRE) != seq)
        return false;
    load(queue, r, at);
    // Relaxed: the acquire loads above keep this one behind them.
    return __atomic_load_n(&r.seq, __ATOMIC_RELAXED) == seq;
}

}  // namespace

// Of two writers at once. Relaxed: the word stays odd.
__attribute__((cold)) void hist_leave_record(a_ut_hist_event& r, a_ring_pos at)
{
    __atomic_store_n(&r.seq, seq_writing(at.laps), __ATOMIC_RELAXED);
}

// What the widths of the columns need of a record.
void hist_load_widths(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, a_hist_cursor& at)
{
    at.row.texts = hist_load_texts(queue, r, at.texts);
    const int32 pn = __atomic_load_n(&r.pn, __ATOMIC_ACQUIRE);
    at.row.pn = pn < int32(hist_max_parms) ? pn : int32(hist_max_parms);
}

void hist_load_row(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, a_hist_cursor& at)
{
    a_hist_row& row = at.row;
    hist_load_widths(queue, r, at);
    row.time_of_day.tv_sec = __atomic_load_n(&r.time_of_day.tv_sec, __ATOMIC_ACQUIRE);
    row.time_of_day.tv_usec = __atomic_load_n(&r.time_of_day.tv_usec, __ATOMIC_ACQUIRE);
    row.line = __atomic_load_n(&r.line, __ATOMIC_ACQUIRE);
    row.num = __atomic_load_n(&r.num, __ATOMIC_ACQUIRE);
    row.thread = __atomic_load_n(&r.thread, __ATOMIC_ACQUIRE);
    row.got_sigs = __atomic_load_n(&r.got_sigs, __ATOMIC_ACQUIRE);
    if (row.got_sigs != 0)
        row.sigset = __atomic_load_n(&r.sigset[0], __ATOMIC_ACQUIRE);
    row.prio = __atomic_load_n(&r.prio, __ATOMIC_ACQUIRE);
    row.dur = __atomic_load_n(&r.dur, __ATOMIC_ACQUIRE);
    row.cl = __atomic_load_n(&r.cl, __ATOMIC_ACQUIRE);
    for (uint32 i = 0; i < hist_max_parms; i++)
        row.p[i] = __atomic_load_n(&r.p[i], __ATOMIC_ACQUIRE);
    row.data_gen = __atomic_load_n(&r.data_gen, __ATOMIC_ACQUIRE);
    row.data_idx = __atomic_load_n(&r.data_idx, __ATOMIC_ACQUIRE);
}

void hist_start_cursor(uint32 q, a_hist_cursor& at)
{
    at.row.q = q;
    at.left = uint32(ring_size());
    at.newer = written(ring_pos(hist.hist_evs[q]));
    seek_oldest(hist.hist_evs[q], at);
}

void hist_step(a_hist_cursor& at)
{
    at.loaded = false;
    at.left--;
    at.index++;
}

// Makes sure that the cursor holds a whole record, passing those that are not; false at the end of the queue.
bool hist_load_next(a_hist_cursor& at, a_row_loader load)
{
    const a_ut_hist_event_list& queue = hist.hist_evs[at.row.q];
    while (!at.loaded) {
        const uint64 end = written(ring_pos(queue));
        if (at.left == 0 || at.index >= end)
            return false;
        if (load_whole(queue, at, load)) {
            at.loaded = true;
        } else if (end - at.index >= ring_size()) {
            at.left--;  // overwritten since: all before the present oldest are gone
            seek_oldest(queue, at);
        } else {
            hist_step(at);  // overwritten this moment, or left unfinished
        }
    }
    return true;
}

// A null id is marked in the record as absent. Compare-and-swap: a newer id stored meanwhile stays.
void hist_mark_absent_id(const a_hist_cursor& at)
{
    a_ut_hist_id none = nullptr;
    __atomic_compare_exchange_n(&record_at(at).id, &none, const_cast<char*>(hist_absent_id), false, __ATOMIC_RELEASE,
                                __ATOMIC_RELAXED);
}
