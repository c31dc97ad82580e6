// hist_events.cpp: walks all rings in ascending event number and writes the event table.
//
// A row is printed from a copy of its record that the sequence word proved whole (hist_store.h). A cursor
// that finds its record overwritten goes on at the oldest one that still stands; every step uses up one of
// the rows that the ring holds, so a dump ends however fast others record. The walk is the same with and
// without the queue locks. All of it is signal-safe.
#include "utils/etc/uthist/hist_events.h"

#include "utils/etc/uthist/hist_clock.h"
#include "utils/etc/uthist/hist_config.h"

namespace {

const char* const absent_id = reinterpret_cast<const char*>(~a_ptrint(0));
constexpr uint32 no_number = 0xFFFFFFFF;  // ends the merge

// ---- the walk ----

// Signal-safe.
uint64 ring_size() { return uint64(hist_cfg.ut_hist_debug_num); }

// Acquire: the records before the position are whole.
// Signal-safe.
a_ring_pos ring_pos(const a_ut_hist_event_list& queue)
{
    return unpack_ring(__atomic_load_n(&queue.ring_pos, __ATOMIC_ACQUIRE));
}

// How many records have been written up to a position.
// Signal-safe.
uint64 written(a_ring_pos at) { return at.laps * ring_size() + at.next; }

// Puts the cursor on the queue's oldest record, but for the one that is overwritten next.
// Signal-safe.
void seek_oldest(const a_ut_hist_event_list& queue, a_hist_cursor& at)
{
    const a_ring_pos end = ring_pos(queue);
    at.index = end.wrapped() ? written(end) - ring_size() + 1 : 0;
    at.loaded = false;
}

// Signal-safe.
void step(a_hist_cursor& at)
{
    at.loaded = false;
    at.left--;
    at.index++;
}

// Signal-safe.
void copy_texts(uint64* dst, const char* src, size_t bytes)
{
    for (size_t i = 0; i < bytes / 8; i++)
        dst[i] = __atomic_load_n(reinterpret_cast<const uint64*>(src) + i, __ATOMIC_ACQUIRE);
}

// Signal-safe.
void load_texts(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, a_hist_cursor& at)
{
    a_hist_row& row = at.row;
    if (queue.texts == nullptr) {
        row.file = __atomic_load_n(&r.file, __ATOMIC_ACQUIRE);
        row.id = static_cast<const char*>(__atomic_load_n(&r.id, __ATOMIC_ACQUIRE));
        row.ev = __atomic_load_n(&r.ev, __ATOMIC_ACQUIRE);
        return;
    }
    copy_texts(reinterpret_cast<uint64*>(at.texts), r.file, hist_cfg.text_stride);
    char* const file = at.texts;
    char* const id = at.texts + hist_cfg.id_text_at;
    char* const ev = at.texts + hist_cfg.ev_text_at;
    // The recorder ends no text that is too long.
    file[hist_cfg.hist_max_file_len] = id[hist_cfg.hist_max_id_len] = ev[hist_cfg.hist_max_ev_len] = '\0';
    row.file = file;
    row.id = id;
    row.ev = ev;
}

// What find_widths needs of a record.
// Signal-safe.
void load_widths(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, a_hist_cursor& at)
{
    load_texts(queue, r, at);
    const int32 pn = __atomic_load_n(&r.pn, __ATOMIC_ACQUIRE);
    at.row.pn = pn < int32(hist_max_parms) ? pn : int32(hist_max_parms);
}

// Signal-safe.
void load_all(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, a_hist_cursor& at)
{
    a_hist_row& row = at.row;
    load_widths(queue, r, at);
    row.time_of_day.tv_sec = __atomic_load_n(&r.time_of_day.tv_sec, __ATOMIC_ACQUIRE);
    row.time_of_day.tv_usec = __atomic_load_n(&r.time_of_day.tv_usec, __ATOMIC_ACQUIRE);
    row.line = __atomic_load_n(&r.line, __ATOMIC_ACQUIRE);
    row.num = __atomic_load_n(&r.num, __ATOMIC_ACQUIRE);
    row.thread = __atomic_load_n(&r.thread, __ATOMIC_ACQUIRE);
    row.got_sigs = __atomic_load_n(&r.got_sigs, __ATOMIC_ACQUIRE);
    if (row.got_sigs != 0)
        row.sigset = __atomic_load_n(reinterpret_cast<const unsigned long*>(&r.sigset), __ATOMIC_ACQUIRE);
    row.prio = __atomic_load_n(&r.prio, __ATOMIC_ACQUIRE);
    row.dur = __atomic_load_n(&r.dur, __ATOMIC_ACQUIRE);
    row.cl = __atomic_load_n(&r.cl, __ATOMIC_ACQUIRE);
    for (uint32 i = 0; i < hist_max_parms; i++)
        row.p[i] = __atomic_load_n(&r.p[i], __ATOMIC_ACQUIRE);
    row.data_gen = __atomic_load_n(&r.data_gen, __ATOMIC_ACQUIRE);
    row.data_idx = __atomic_load_n(&r.data_idx, __ATOMIC_ACQUIRE);
}

using a_row_loader = void (*)(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, a_hist_cursor& at);

// Copies the record under the cursor. False when it is not, or did not stay, the whole one that the cursor expects.
// Signal-safe.
bool load_row(const a_ut_hist_event_list& queue, a_hist_cursor& at, a_row_loader load)
{
    const a_ut_hist_event& r = queue.evs[at.index % ring_size()];
    const uint32 seq = seq_whole(uint32(at.index / ring_size()));
    if (__atomic_load_n(&r.seq, __ATOMIC_ACQUIRE) != seq)
        return false;
    load(queue, r, at);
    // Relaxed: the acquire loads above keep this one behind them.
    return __atomic_load_n(&r.seq, __ATOMIC_RELAXED) == seq;
}

// Makes sure that the cursor holds a whole record, passing those that are not; false at the end of the queue.
// Signal-safe.
bool load_next(const a_ut_hist_event_list& queue, a_hist_cursor& at, a_row_loader load)
{
    while (!at.loaded) {
        const uint64 end = written(ring_pos(queue));
        if (at.left == 0 || at.index >= end)
            return false;
        if (load_row(queue, at, load)) {
            at.loaded = true;
        } else if (end - at.index >= ring_size()) {
            at.left--;  // overwritten since: all before the present oldest are gone
            seek_oldest(queue, at);
        } else {
            step(at);  // overwritten this moment, or cut off by a fork
        }
    }
    return true;
}

// Signal-safe.
void start_cursors(a_ut_hist_dump& f)
{
    for (int32 q = 0; q < hist_cfg.hist_num_q; q++) {
        f.cursors[q].left = uint32(hist_cfg.ut_hist_debug_num);
        f.cursors[q].newer = written(ring_pos(hist.hist_evs[q]));
        seek_oldest(hist.hist_evs[q], f.cursors[q]);
    }
}

// As load_next for the table, whose last row was `last` (none: no row yet). An event may take its number before and
// enter its ring after one of another queue that the dump has printed meanwhile: it comes too late and is left out.
// Signal-safe.
bool load_in_order(const a_ut_hist_event_list& queue, a_hist_cursor& at, uint32 last)
{
    while (load_next(queue, at, load_all)) {
        if (last == no_number || at.row.num > last || at.index < at.newer)
            return true;
        step(at);
    }
    return false;
}

// ---- widths ----

// A null id is marked in the record as absent. Compare-and-swap: a newer id stored meanwhile stays.
// Signal-safe.
void mark_absent_id(const a_ut_hist_event_list& queue, const a_hist_cursor& at)
{
    a_ut_hist_id none = nullptr;
    __atomic_compare_exchange_n(&queue.evs[at.index % ring_size()].id, &none, a_ut_hist_id(~a_ptrint(0)), false,
                                __ATOMIC_RELEASE, __ATOMIC_RELAXED);
}

// Signal-safe.
void widen(a_ut_hist_dump& f, const a_hist_row& row)
{
    if (row.id != nullptr && row.id != absent_id) {
        const size_t len = strlen(row.id);
        f.max_id_len = len > f.max_id_len ? len : f.max_id_len;
    }
    if (row.ev != nullptr) {
        const size_t len = strlen(row.ev);
        f.max_ev_len = len > f.max_ev_len ? len : f.max_ev_len;
    }
    f.max_pn = row.pn > f.max_pn ? row.pn : f.max_pn;
}

// Signal-safe.
void find_widths(a_ut_hist_dump& f)
{
    f.max_id_len = strlen("Ev_ID");
    f.max_ev_len = strlen("Event");
    f.max_pn = 0;
    for (int32 q = 0; q < hist_cfg.hist_num_q; q++) {
        const a_ut_hist_event_list& queue = hist.hist_evs[q];
        a_hist_cursor& at = f.cursors[q];
        for (; load_next(queue, at, load_widths); step(at)) {
            if (at.row.id == nullptr)
                mark_absent_id(queue, at);
            widen(f, at.row);
        }
    }
}

// ---- the columns ----

// Writes one cell of a row.
using a_column_writer = void (*)(a_ut_hist_dump& f, int32 q, const a_hist_row& row);

// Rows of one second follow each other: its text is made once.
// Signal-safe.
void put_tod(a_ut_hist_dump& f, int32, const a_hist_row& row)
{
    if (f.tod.len == 0 || f.tod.second != row.time_of_day.tv_sec) {
        char buf[hist_timestamp_size];
        ut_hist_timestamp_str(buf, row.time_of_day);
        f.tod.second = row.time_of_day.tv_sec;
        f.tod.len = strlen("hh:mm:ss.");
        memcpy(f.tod.text, buf, f.tod.len);
    }
    f.out.mem(f.tod.text, f.tod.len);
    f.out.dec(uint64(row.time_of_day.tv_usec), 6, '0');
}

// Signal-safe.
void put_dur(a_ut_hist_dump& f, int32, const a_hist_row& row)
{
    if (row.dur == hist_no_dur) {
        f.out.str("   -.-     ");
        return;
    }
    f.out.dec(row.dur / 1000000, 4);
    f.out.chr('.');
    f.out.dec(row.dur % 1000000, 6, '0');
}

// Signal-safe.
void put_sigmask(a_ut_hist_dump& f, int32, const a_hist_row& row)
{
    struct a_shown_signal {
        char letter;
        int signal;
    };
    static constexpr a_shown_signal shown[] = {{'H', SIGHUP}, {'I', SIGINT}, {'A', SIGALRM}, {'P', SIGIO}};
    f.out.chr(' ');
    for (const a_shown_signal& s : shown) {
        if (row.got_sigs == 0)
            f.out.chr('-');
        else
            f.out.chr((row.sigset >> (s.signal - 1) & 1) != 0 ? s.letter : ' ');
    }
}

// Signal-safe.
void put_id(a_ut_hist_dump& f, int32, const a_hist_row& row)
{
    const char* id = row.id == nullptr || row.id == absent_id ? "-" : row.id;
    f.out.right(id, strlen(id), f.max_id_len + 1);
}

// Signal-safe.
void put_event(a_ut_hist_dump& f, int32, const a_hist_row& row)
{
    const char* ev = row.ev == nullptr ? "?" : row.ev;
    f.out.right(ev, strlen(ev), f.max_ev_len + 1);
}

// Signal-safe.
void put_parms(a_ut_hist_dump& f, int32, const a_hist_row& row)
{
    for (int32 i = 0; i < f.max_pn; i++) {
        if (uint32(row.pn) > uint32(i))
            f.out.ptr(row.p[i], 9);
        else
            f.out.mem("      ...", 9);
    }
}

// Signal-safe.
void put_class(a_ut_hist_dump& f, int32, const a_hist_row& row)
{
    f.out.mem(uint32(row.cl) < UT_HIST_CL_LAST ? hist_cl_strs[row.cl] : " ?", 2);
}

// Signal-safe.
void put_file(a_ut_hist_dump& f, int32, const a_hist_row& row)
{
    f.out.chr(' ');
    f.out.str(row.file == nullptr ? "<no_file>" : row.file);
}

// The columns, in their order. A column without a fixed header text writes its own, see put_header.
struct a_column {
    const int32& on;
    const char* header;
    a_column_writer put;
};
constexpr a_column columns[] = {
    {hist_cfg.ut_hist_inc_tod, "    time..milli", put_tod},
    {hist_cfg.ut_hist_inc_dur, "   duration", put_dur},
    {hist_cfg.ut_hist_inc_queue, "  Q", [](a_ut_hist_dump& f, int32 q, const a_hist_row&) { f.out.dec(uint32(q), 3); }},
    {hist_cfg.ut_hist_inc_num, "  Ev_Num", [](a_ut_hist_dump& f, int32, const a_hist_row& r) { f.out.dec(r.num, 8); }},
    {hist_cfg.ut_hist_inc_thread, " Thr",
     [](a_ut_hist_dump& f, int32, const a_hist_row& r) { f.out.dec(r.thread, 4); }},
    {hist_cfg.ut_hist_inc_sigmask, " SigM", put_sigmask},
    {hist_cfg.ut_hist_inc_prio, " Pr", [](a_ut_hist_dump& f, int32, const a_hist_row& r) { f.out.sdec(r.prio, 3); }},
    {hist_cfg.ut_hist_inc_id, nullptr, put_id},
    {hist_cfg.ut_hist_inc_event, nullptr, put_event},
    {hist_cfg.ut_hist_inc_class, " C", put_class},
    {hist_cfg.ut_hist_inc_parms, nullptr, put_parms},
    {hist_cfg.ut_hist_inc_line, " Line", [](a_ut_hist_dump& f, int32, const a_hist_row& r) { f.out.dec(r.line, 5); }},
    {hist_cfg.ut_hist_inc_file, " File....", put_file},
};

// Signal-safe.
void put_header(a_ut_hist_dump& f, const a_column& column)
{
    if (column.header != nullptr)
        f.out.str(column.header);
    else if (column.put == put_id)
        f.out.right("Ev_ID", 5, f.max_id_len + 1);
    else if (column.put == put_event)
        f.out.right("Event", 5, f.max_ev_len + 1);
    else
        for (int32 i = 1; i <= f.max_pn; i++) {
            f.out.str("  P");
            f.out.dec(uint32(i));
            f.out.str("(hex)");
        }
}

// ---- data blocks ----

// Signal-safe.
bool intact(const a_ut_hist_event_list& queue, const a_hist_row& row)
{
    // Acquire on one word: generation and fill offset of one moment.
    const a_data_pos at = unpack_data(__atomic_load_n(&queue.data_pos, __ATOMIC_ACQUIRE));
    return row.data_gen == at.data_gen || (row.data_gen == at.data_gen - 1 && row.data_idx >= at.data_fil);
}

// Copies len bytes at data_idx out of the ring, by whole words; gives where they stand. The ring has room for the last
// word beyond its end.
// Signal-safe.
const char* copy_block(a_ut_hist_dump& f, const a_ut_hist_event_list& queue, uint32 data_idx, uint32 len)
{
    const uint32 start = data_idx & ~7u;
    copy_texts(reinterpret_cast<uint64*>(f.data), queue.data_buf + start, (size_t(data_idx) + len - start + 7) & ~7ull);
    return f.data + (data_idx - start);
}

// Signal-safe.
void put_block(a_ut_hist_dump& f, const a_ut_hist_event_list& queue, const a_hist_row& row)
{
    const uint64 length = uint64(a_ptrint(row.p[1]));
    const uint32 size = uint32(hist_cfg.ut_hist_debug_data_size);
    const uint32 len = length > size ? size : uint32(length);
    // A record that stored no block names offset 0 and may show its length from there; nothing beyond the ring is read.
    const char* block = nullptr;
    if (intact(queue, row) && row.data_idx <= size && len <= size - row.data_idx)
        block = copy_block(f, queue, row.data_idx, len);
    f.out.str(" (");
    f.out.dec(row.data_gen);
    f.out.chr('+');
    f.out.dec(row.data_idx);
    f.out.chr('+');
    // Looked at again: the block may have been overwritten while it was copied.
    if (block == nullptr || !intact(queue, row)) {
        f.out.str("NA)");
        f.out.eol();
        return;
    }
    f.out.dec(len);
    f.out.chr(')');
    f.out.eol();
    ut_hist_dump_to_file_data(f, block, len);
}

}  // namespace

// The hex lines of len bytes at addr, 16 a line.
// Signal-safe.
void ut_hist_dump_to_file_data(a_ut_hist_dump& f, const char* addr, uint32 len)
{
    for (uint32 k = 0; k < len; k += 16) {
        f.out.str("\t\t");
        f.out.dec(k, 4, '0');
        f.out.chr('/');
        f.out.hex(k, 4);
        f.out.chr(':');
        for (uint32 i = k; i < k + 16; i++) {
            f.out.chr(' ');
            if (i < len)
                f.out.hex(uint8_t(addr[i]), 2);
            else
                f.out.fill(' ', 2);
        }
        f.out.str(" |");
        for (uint32 i = k; i < k + 16; i++) {
            const char c = i < len ? addr[i] : ' ';
            f.out.chr(c >= 0x20 && c <= 0x7E ? c : '.');
        }
        f.out.chr('|');
        f.out.eol();
    }
}

// The begin banner and the header line.
// Signal-safe.
void ut_hist_dump_to_file_head(a_ut_hist_dump& f)
{
    f.out.str("********** HISTORY DUMP BIGIN @ ");
    hist_put_timestamp(f.out);
    f.out.str(" (res=0) **********");
    f.out.eol();
    for (const a_column& column : columns)
        if (column.on != 0)
            put_header(f, column);
    f.out.eol();
}

// The row under queue q's cursor, with its data suffix and hex lines.
// Signal-safe.
void ut_hist_dump_to_file_q_n(a_ut_hist_dump& f, int32 q)
{
    const a_hist_row& row = f.cursors[q].row;
    for (const a_column& column : columns)
        if (column.on != 0)
            column.put(f, q, row);
    const a_ut_hist_event_list& queue = hist.hist_evs[q];
    if (row.cl == UT_HIST_CL_DATA && queue.data_buf != nullptr)
        put_block(f, queue, row);
    else
        f.out.eol();
}

// The event section: banner, header, and all rows merged by event number.
// Signal-safe.
void ut_hist_dump_to_file_i_ev(a_ut_hist_dump& f)
{
    if (!__atomic_load_n(&hist.hist_ok_to_dump, __ATOMIC_ACQUIRE))
        return;
    f.tod.len = 0;
    start_cursors(f);
    find_widths(f);
    ut_hist_dump_to_file_head(f);
    start_cursors(f);
    for (uint32 last = no_number;;) {
        uint32 m = no_number;
        for (int32 q = 0; q < hist_cfg.hist_num_q; q++)
            if (load_in_order(hist.hist_evs[q], f.cursors[q], last) && f.cursors[q].row.num < m)
                m = f.cursors[q].row.num;
        if (m == no_number)
            return;
        for (int32 q = 0; q < hist_cfg.hist_num_q; q++) {
            if (!f.cursors[q].loaded || f.cursors[q].row.num != m)
                continue;
            if (last + 1 != m) {
                f.out.str("........ ......");
                f.out.eol();
                last = m - 1;
            }
            ut_hist_dump_to_file_q_n(f, q);
            step(f.cursors[q]);
        }
        last = m;
    }
}

// The end banner.
// Signal-safe.
void ut_hist_dump_to_file_tail(a_ut_hist_dump& f)
{
    f.out.str("********** HISTORY DUMP END @ ");
    hist_put_timestamp(f.out);
    f.out.str(" (");
    // Relaxed: the counts are only shown.
    f.out.dec(__atomic_load_n(&hist.events_missed, __ATOMIC_RELAXED));
    f.out.str(" missed, thr=");
    f.out.dec(__atomic_load_n(&hist.last_missed_thread, __ATOMIC_RELAXED));
    f.out.str(") **********");
    f.out.eol();
}
