// hist_threads.cpp: keeps the views, and writes the thread table (hist_threads.h says how a view holds). Threads that
// share a slot under the literal rule share its view: it is that of the one which recorded last. Signal-safe: all of
// it.
#include "utils/etc/uthist/hist_threads.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "utils/etc/utclock.h"
#include "utils/etc/uthist/hist_slots.h"

namespace {

constexpr int looks = 100;         // at a view that changes
constexpr size_t name_width = 15;  // of a thread, as the kernel limits it
constexpr size_t events_width = 6;
constexpr size_t last_width = 31;  // of id and event text together

size_t id_bytes(const a_ut_hist_settings& cfg) { return cfg.ev_text_at - cfg.id_text_at; }
bool copies(const a_ut_hist_settings& cfg) { return cfg.copies; }

size_t event_bytes(const a_ut_hist_settings& cfg) { return cfg.text_stride - cfg.id_text_at; }

// Where the texts of a view stand, or of its copy: a span's id, and the kept event's.
char* span_place(a_hist_view& v, uint32 i, const a_ut_hist_settings& cfg)
{
    return hist_span_text(v, i, size_t(cfg.hist_max_id_len));
}
char* ev_place(a_hist_view& v, const a_ut_hist_settings& cfg) { return hist_kept_texts(v, cfg) + id_bytes(cfg); }

template <typename T>
void put(T& field, T value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

// Relaxed: only the slot's thread changes it.
template <typename T>
T own(const T& field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

void put_time(a_ut_hist_time& field, const struct timeval& now)
{
    put(field.tv_sec, now.tv_sec);
    put(field.tv_usec, now.tv_usec);
}

// Copy mode: the id's and the event's.
void keep_texts(a_hist_view& v, const char* texts)
{
    char* const to = hist_kept_texts(v, hist_cfg);
    for (size_t i = 0; i < event_bytes(hist_cfg); i += 8)
        put(reinterpret_cast<uint64*>(to + i)[0], own(reinterpret_cast<const uint64*>(texts + i)[0]));
}

bool is_text(a_ut_hist_id id)
{
    return a_ptrint(id) >= hist_first_address && a_ptrint(id) < a_ptrint(UT_HIST_ID_SIGHANDLER);
}

// A text is itself wherever it stands.
bool has_id(a_hist_view& v, uint32 i, a_ut_hist_id id)
{
    const a_ut_hist_id open = own(v.spans[i].id);
    if (open == id || !is_text(open) || !is_text(id))
        return open == id;
    return strncmp(span_place(v, i, hist_cfg), static_cast<const char*>(id), size_t(hist_cfg.hist_max_id_len)) == 0;
}

// The innermost open span of the location, where one is given, and of the id, where that counts; their number if there
// is none.
uint32 find_span(a_hist_view& v, const a_ut_hist_loc* loc, const a_ut_hist_id* id)
{
    const uint32 open = hist_open_spans(v);
    for (uint32 i = open < hist_max_spans ? open : hist_max_spans; i-- > 0;)
        if ((loc == nullptr || own(v.spans[i].loc) == loc) && (id == nullptr || has_id(v, i, *id)))
            return i;
    return open;
}

// ---- the table ----

// A copy of a view, and its thread's newest event.
struct a_shown_thread {
    a_hist_view& view;
    a_hist_row_texts texts;
    a_ut_hist_time time;
    a_hist_pages* pages;  // null in copy mode
};

// Room for the texts of an event, behind the view.
char* texts_place(a_hist_view& v) { return reinterpret_cast<char*>(&v) + hist.view_stride; }

// Copies the newest event out of its ring; false when it does not stand there whole.
bool load_from_ring(uint32 t, a_shown_thread& shown)
{
    const a_ut_hist_event* const r = shown.view.newest;
    for (uint32 q = 0; q < uint32(hist.cfg->hist_num_q); q++) {
        const a_ut_hist_event_list& queue = hist.hist_evs[q];
        if (r < queue.evs || r >= queue.evs + hist.cfg->ut_hist_debug_num)
            continue;
        const uint32 seq = __atomic_load_n(&r->seq, __ATOMIC_ACQUIRE);
        shown.texts = hist_load_texts(queue, *r, texts_place(shown.view));
        shown.time.tv_sec = __atomic_load_n(&r->time_of_day.tv_sec, __ATOMIC_ACQUIRE);
        shown.time.tv_usec = __atomic_load_n(&r->time_of_day.tv_usec, __ATOMIC_ACQUIRE);
        const bool same = __atomic_load_n(&r->num, __ATOMIC_ACQUIRE) == shown.view.newest_num &&
                          __atomic_load_n(&r->thread, __ATOMIC_ACQUIRE) == t;
        // Relaxed: the acquire loads above keep this one behind them.
        return same && seq % 2 == 0 && __atomic_load_n(&r->seq, __ATOMIC_RELAXED) == seq;
    }
    return false;
}

// The newest event as who overwrote it has kept it.
bool load_kept(a_shown_thread& shown)
{
    const a_ut_hist_settings& cfg = *hist.cfg;
    a_hist_view& v = shown.view;
    shown.time = v.kept_time;
    shown.texts = {nullptr, v.kept_id, v.kept_ev};
    if (copies(cfg)) {
        char *const id = hist_kept_texts(v, cfg), *const ev = ev_place(v, cfg);
        shown.texts = {nullptr, id, ev};
        id[cfg.hist_max_id_len] = ev[cfg.hist_max_ev_len] = '\0';
    }
    return v.kept_num == v.newest_num;
}

// Copies the view, and the newest event; false when the thread has recorded nothing yet. What does not stand still, as
// what a handler that dumps has interrupted, is taken as it is.
bool load_view(uint32 t, a_shown_thread& shown)
{
    const a_hist_view& v = hist_view_of(t);
    bool whole = false, found = false;  // a slot that changes hands has another tid before or after
    for (int i = 0; i < looks && !(whole && found); i++) {
        const uint64 open = __atomic_load_n(&v.open, __ATOMIC_ACQUIRE);
        const uint32 tid = __atomic_load_n(&v.tid, __ATOMIC_ACQUIRE);
        const uint32 kept = __atomic_load_n(&v.kept_seq, __ATOMIC_ACQUIRE);
        hist_load_words(reinterpret_cast<char*>(&shown.view), reinterpret_cast<const char*>(&v), hist.view_stride);
        // Relaxed: the acquire loads above keep these behind them.
        whole = __atomic_load_n(&v.open, __ATOMIC_RELAXED) == open && shown.view.tid == tid &&
                __atomic_load_n(&v.tid, __ATOMIC_RELAXED) == tid;
        const bool is_kept = kept % 2 == 0 && __atomic_load_n(&v.kept_seq, __ATOMIC_RELAXED) == kept;
        if (shown.view.newest == nullptr)
            return false;
        found = (is_kept && load_kept(shown)) || load_from_ring(t, shown);
    }
    return true;
}

// Brings the thread's name up to date; false when the thread has ended.
bool find_thread(a_hist_view& v)
{
    char path[128];  // more than it takes, for the formatter
    a_text text;
    text.use(path, sizeof path, "");
    text.direct(nullptr, nullptr);
    text.put("/proc/self/task/", v.tid, "/comm", '\0');
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t len = fd >= 0 ? read(fd, v.name, sizeof v.name) : -1;
    if (fd >= 0)
        close(fd);
    if (len <= 0)  // no such file, or its thread has ended since
        return tgkill(getpid(), pid_t(v.tid), 0) == 0 || errno != ESRCH;
    const size_t named = size_t(len) - 1;  // without its line end
    v.name[named < sizeof v.name ? named : sizeof v.name - 1] = '\0';
    return true;
}

// A text as copy mode cuts it, but never in the middle of a character. Gives its length.
size_t put_cut(a_text& out, const char* text, int32 max)
{
    const size_t len = strnlen(text, size_t(max)), whole = len == size_t(max) ? ut_whole_utf8(text, len) : len;
    out.mem(text, whole);
    return whole;
}

// The same of a recorded text. In pointer mode its copy has the room for those of an event to itself.
size_t put_text(a_text& out, const a_shown_thread& shown, const char* text, int32 max)
{
    if (shown.pages == nullptr)
        return put_cut(out, text, max);
    char* const copy = texts_place(shown.view);
    hist_copy_text(*shown.pages, text, copy, size_t(max));
    return put_cut(out, copy, max);
}

size_t put_id(a_text& out, const a_shown_thread& shown, const char* id)
{
    char number[2 * text_block];
    const int32 max = hist.cfg->hist_max_id_len;
    return hist_is_text(id) ? put_text(out, shown, id, max) : put_cut(out, hist_id_text(id, number), max);
}

// Microseconds from then to now; 0 for a clock that was set back.
void put_age(a_text& out, const a_ut_hist_time& then, const struct timeval& now, size_t width)
{
    const int64_t us = (now.tv_sec - then.tv_sec) * int64_t(1000000) + now.tv_usec - then.tv_usec;
    ut_put_seconds(out, us > 0 ? uint64(us) : 0, width);
}

void put_last(a_text& out, const a_shown_thread& shown)
{
    const int32 max = hist.cfg->hist_max_ev_len;
    size_t width = put_id(out, shown, shown.texts.id) + 1;
    out.chr(' ');
    width += shown.texts.ev != nullptr ? put_text(out, shown, shown.texts.ev, max) : put_cut(out, hist_no_ev, max);
    out.fill(' ', width < last_width ? last_width - width : 0);
}

void put_spans(a_text& out, const a_shown_thread& shown, const struct timeval& now)
{
    a_hist_view& v = shown.view;
    const uint32 open = hist_open_spans(v);
    if (open == 0)
        out.chr('-');
    for (uint32 i = 0; i < open && i < hist_max_spans; i++) {
        out.str(i > 0 ? " > " : "");
        put_id(out, shown, copies(*hist.cfg) ? span_place(v, i, *hist.cfg) : v.spans[i].text);
        out.chr(' ');
        put_age(out, v.spans[i].begun, now, 1);
    }
    if (open > hist_max_spans)
        out.put(" +", open - hist_max_spans);
}

void put_row(a_text& out, uint32 t, const a_shown_thread& shown, const struct timeval& now)
{
    a_hist_view& v = shown.view;
    if (shown.pages != nullptr)
        hist_cover_event(*shown.pages, v.newest_num);
    out.dec(t, 3);
    out.dec(v.tid, 8);
    out.chr(' ');
    const size_t len = strnlen(v.name, sizeof v.name - 1);
    out.printable(v.name, ut_whole_utf8(v.name, len), name_width);
    out.chr(' ');
    out.dec(v.events, events_width);
    out.str("  ");
    put_last(out, shown);
    put_age(out, shown.time, now, 5);
    out.str("  ");
    put_spans(out, shown, now);
    out.eol();
}

uint32 slots_in_use()
{
    uint32 used = 0;
    for (uint32 t = 0; t < hist_slots_end(); t++)
        used += __atomic_load_n(&hist_view_of(t).tid, __ATOMIC_RELAXED) != 0 && hist_slot_is_taken(t) ? 1 : 0;
    return used;
}

void put_head(a_text& out, const struct timeval& now)
{
    out.str("********** HISTORY THREADS BEGIN @ ");
    ut_put_stamp(out, now);
    out.put(" pid=", hist.image->pid, " prog=");
    out.printable(hist.image->program, strlen(hist.image->program));
    out.put(" host=", hist.image->host, " slots=", slots_in_use(), '/', hist.num_threads, " **********");
    out.eol();
    out.str("Thr     Tid Name            Events  Last event                           before  Open");
    out.eol();
}

}  // namespace

// Looks at the view: the thread's newest event may be in another queue by now.
void hist_keep_event(const a_ut_hist_event_list& queue, const a_ut_hist_event& r)
{
    const uint32 num = own(r.num), t = own(r.thread);
    if (t >= hist.num_threads)
        return;
    a_hist_view& v = hist_view_of(t);
    if (__atomic_load_n(&v.newest, __ATOMIC_ACQUIRE) != &r || __atomic_load_n(&v.newest_num, __ATOMIC_ACQUIRE) != num)
        return;
    const uint32 seq = own(v.kept_seq) | 1;
    __atomic_store_n(&v.kept_seq, seq, __ATOMIC_RELAXED);
    put(v.kept_num, num);
    put_time(v.kept_time, {own(r.time_of_day.tv_sec), own(r.time_of_day.tv_usec)});
    put(v.kept_id, static_cast<const char*>(own(r.id)));
    put(v.kept_ev, static_cast<const char*>(own(r.ev)));
    if (queue.texts != nullptr)
        keep_texts(v, queue.texts + size_t(&r - queue.evs) * hist_cfg.text_stride + hist_cfg.id_text_at);
    put(v.kept_seq, seq + 1);
}

void hist_take_slot(uint32 t)
{
    if (own(hist_view_of(t).tid) != uint32(gettid()))
        hist_reset_view(t);
}

// The location's span goes, as its END would have closed it. Gives the spans that are open then.
uint32 hist_close_location(a_hist_view& v, const a_ut_hist_loc* loc)
{
    const uint32 open = hist_open_spans(v), kept = find_span(v, loc, nullptr);
    if (kept < open)
        hist_set_open(v, kept);
    return kept;
}

void hist_close_span(a_hist_view& v, const a_ut_hist_loc* loc, a_ut_hist_id id)
{
    const uint32 open = hist_open_spans(v), kept = open > hist_max_spans ? open - 1 : find_span(v, loc, &id);
    if (kept < open)
        hist_set_open(v, kept);
}

// Its spans go on in the child.
void hist_views_fork_child()
{
    const uint32 t = hist_slot_number();
    if (hist.views != nullptr && t < hist.num_threads && hist_view_of(t).tid != 0)
        put(hist_view_of(t).tid, uint32(gettid()));
}

char* hist_kept_texts(a_hist_view& v, const a_ut_hist_settings& cfg) { return span_place(v, hist_max_spans, cfg); }

// A view, and the texts of the newest event out of its ring.
size_t hist_shown_bytes()
{
    return hist_cfg.tables ? (hist_view_bytes() + hist_cfg.text_stride + cache_line - 1) / cache_line * cache_line : 0;
}

// A row for each slot whose thread lives.
void hist_put_threads(a_text& out, char* room, a_hist_pages* pages, const struct timeval* from)
{
    if (hist.views == nullptr)
        return;
    struct timeval now;
    gettimeofday(&now, nullptr);
    put_head(out, now);
    a_shown_thread shown = {*reinterpret_cast<a_hist_view*>(room), {}, {}, pages};
    for (uint32 t = 0; t < hist_slots_end(); t++)
        if (hist_slot_is_taken(t) && load_view(t, shown) && (from != nullptr || find_thread(shown.view)))
            put_row(out, t, shown, from != nullptr ? *from : now);
    out.str("********** HISTORY THREADS END **********");
    out.eol();
}
