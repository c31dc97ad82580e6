// hist_threads.h: what each thread does now: its newest event and its open spans, in the view of its slot, and the
// thread table behind a dump (UT_HIST_EXT=tables). A thread that hangs is shown however much the others have recorded
// since.
//
// A view lies in the store, its texts in whole blocks, those of the kept event in copy mode:
//
//     |a_hist_view|id of span 0|id of span 1|...|id|event|
//
// A span keeps what its id says outside copy mode, too: where the text was there may be nothing any more when it ends.
//
// Of its newest event a view knows the record. Who overwrites a record which is still another thread's newest one keeps
// that event in the thread's view first, under a sequence word. In queue 0, which all may write, a record says whether
// its thread has a later event there, so that few look at another's view; beyond queue 2 there are no others.
//
// A begin fills the span behind the open ones and then counts it; before it can be filled again an end has changed the
// word that counts, and that word never comes back: a reader that finds it the same before and after its copy has whole
// spans. All fields are stored with release and loaded with acquire order between the two looks, as in the rings.
// Signal-safe: all of it.
#pragma once

#include "utils/etc/uthist/hist_pages.h"
#include "utils/etc/uthist/hist_ring.h"
#include "utils/etc/uttext.h"

void hist_keep_event(const a_ut_hist_event_list& queue, const a_ut_hist_event& r);
void hist_take_slot(uint32 t);  // for the calling thread, from the one that recorded under it last
uint32 hist_close_location(a_hist_view& v, const a_ut_hist_loc* loc);
void hist_close_span(a_hist_view& v, const a_ut_hist_loc* loc, a_ut_hist_id id);

// Before the record is overwritten by an event of slot t.
inline void hist_before_event(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, int32 q, uint32 t)
{
    // Relaxed here and below: only the queue's writers change these, and they are serialised or alone.
    if (q <= 2 && __atomic_load_n(&r.thread, __ATOMIC_RELAXED) != t &&
        (q != 0 || __atomic_load_n(&r.newest, __ATOMIC_RELAXED) != 0))
        hist_keep_event(queue, r);
}

// The mark goes on from the thread's earlier event in queue 0 to this one.
inline void hist_mark_newest(const a_ut_hist_event_list& queue, a_ut_hist_event& r, const a_hist_view& v)
{
    a_ut_hist_event* const before = __atomic_load_n(&v.newest, __ATOMIC_RELAXED);
    const bool stands =
        before != nullptr && before >= queue.evs && before < queue.evs + hist.ring_size &&
        __atomic_load_n(&before->num, __ATOMIC_RELAXED) == __atomic_load_n(&v.newest_num, __ATOMIC_RELAXED);
    if (stands && before != &r)
        __atomic_store_n(&before->newest, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&r.newest, 1u, __ATOMIC_RELAXED);
}

// After the event of slot t has been recorded there. A handler's event that comes in between is in another queue.
inline void hist_after_event(a_hist_view& v, const a_ut_hist_event_list& queue, a_ut_hist_event& r, int32 q, uint32 num)
{
    if (q == 0)
        hist_mark_newest(queue, r, v);
    // One instruction: no handler's event is lost in it.
    __asm__("incq %0" : "+m"(v.events));
    __atomic_store_n(&v.newest_num, num, __ATOMIC_RELEASE);
    __atomic_store_n(&v.newest, &r, __ATOMIC_RELEASE);
}

inline char* hist_span_text(a_hist_view& v, uint32 i, size_t max_id)
{
    return reinterpret_cast<char*>(&v + 1) + i * text_bytes(max_id);
}

// A begin opens a span. A location that is open already begins again.
[[gnu::always_inline]] inline void hist_open_span(a_hist_view& v, a_ut_hist_loc* loc, a_ut_hist_id id, const char* text,
                                                  const struct timeval& now, size_t max_id)
{
    uint32 open = hist_open_spans(v);
    if (loc != nullptr && open > 0)
        open = hist_close_location(v, loc);
    if (open < hist_max_spans) [[likely]] {
        std::atomic_signal_fence(std::memory_order_seq_cst);  // a text's blocks stay behind the end of the last span
        a_hist_span& span = v.spans[open];
        __atomic_store_n(&span.loc, loc, __ATOMIC_RELEASE);
        __atomic_store_n(&span.id, id, __ATOMIC_RELEASE);
        __atomic_store_n(&span.text, text, __ATOMIC_RELEASE);
        __atomic_store_n(&span.begun.tv_sec, now.tv_sec, __ATOMIC_RELEASE);
        __atomic_store_n(&span.begun.tv_usec, now.tv_usec, __ATOMIC_RELEASE);
        hist_store_id(hist_span_text(v, open, max_id), text, max_id);
    }
    __atomic_store_n(&v.open, __atomic_load_n(&v.open, __ATOMIC_RELAXED) + 1, __ATOMIC_RELEASE);
}

// An end closes one, most often the innermost.
[[gnu::always_inline]] inline void hist_end_span(a_hist_view& v, const a_ut_hist_loc* loc, a_ut_hist_id id)
{
    const uint32 open = hist_open_spans(v);
    const auto is_given = [&](const a_hist_span& span) {
        return __atomic_load_n(&span.id, __ATOMIC_RELAXED) == id &&
               (loc == nullptr || __atomic_load_n(&span.loc, __ATOMIC_RELAXED) == loc);
    };
    if (open - 1 < hist_max_spans && is_given(v.spans[open - 1])) [[likely]]
        hist_set_open(v, open - 1);
    else
        hist_close_span(v, loc, id);
}

void hist_views_fork_child();

char* hist_kept_texts(a_hist_view& v, const a_ut_hist_settings& cfg);  // in copy mode, as in a record

size_t hist_shown_bytes();  // of the room that the table needs

// Of the views of another process, which say who lives, ages count from `from`.
void hist_put_threads(a_text& out, char* room, a_hist_pages* pages, const struct timeval* from = nullptr);
