// hist_events.cpp: the columns of the event table, and the merge of all rings in ascending event number.
//
// A column is one row of a table: its switch, its help, its header, its cells. A row is printed from a copy of its
// record that the sequence word proved whole (hist_ring.h). Signal-safe: all of it, as far as the text's sink is, but
// hist_dump_bytes and hist_dump_lay_out run in start-up.
#include "utils/etc/uthist/hist_events.h"

#include "utils/etc/utclock.h"

namespace {

a_hist_text id_text(a_ut_hist_dump& f, const a_hist_row& row, char (&number)[2 * text_block])
{
    const char* const id = row.texts.id;
    return hist_is_text(id) ? hist_find_text(f.pages, id) : hist_own_text(hist_id_text(id, number));
}

a_hist_text text_or(a_ut_hist_dump& f, const char* text, const char* absent)
{
    return text != nullptr ? hist_find_text(f.pages, text) : hist_own_text(absent);
}

void put_right(a_ut_hist_dump& f, const a_hist_text& text, size_t width)
{
    if (text.len < width)
        f.out.fill(' ', width - text.len);
    hist_put_text(f.out, f.pages, text);
}

void widen(a_ut_hist_dump& f, const a_hist_row& row)
{
    char number[2 * text_block];
    const size_t id_len = id_text(f, row, number).len, ev_len = text_or(f, row.texts.ev, "").len;
    f.max_id_len = id_len > f.max_id_len ? id_len : f.max_id_len;
    f.max_ev_len = ev_len > f.max_ev_len ? ev_len : f.max_ev_len;
    f.max_pn = row.pn > f.max_pn ? row.pn : f.max_pn;
}

uint32 num_queues() { return uint32(hist.cfg->hist_num_q); }

void start_cursors(a_ut_hist_dump& f)
{
    for (uint32 q = 0; q < num_queues(); q++)
        hist_start_cursor(q, f.cursors[q]);
}

void find_widths(a_ut_hist_dump& f)
{
    f.max_id_len = strlen("Ev_ID");
    f.max_ev_len = strlen("Event");
    f.max_pn = 0;
    start_cursors(f);
    for (uint32 q = 0; q < num_queues(); q++)
        for (a_hist_cursor& at = f.cursors[q]; hist_load_next(at, hist_load_widths); hist_step(at)) {
            if (at.row.texts.id == nullptr)
                hist_mark_absent_id(at);
            widen(f, at.row);
        }
}

// ---- the columns ----

// Rows of one second follow each other: its text is made once.
void put_tod(a_ut_hist_dump& f, const a_hist_row& row)
{
    constexpr size_t len = sizeof "hh:mm:ss." - 1;
    if (f.tod.text[0] == '\0' || f.tod.second != row.time_of_day.tv_sec) {
        a_text text;
        text.use(f.tod.text, sizeof f.tod.text, "");
        text.direct(nullptr, nullptr);
        ut_hist_timestamp_str(text, row.time_of_day);
        f.tod.second = row.time_of_day.tv_sec;
    }
    f.out.mem(f.tod.text, len);
    f.out.dec(uint64(row.time_of_day.tv_usec), 6, '0');
}

void put_dur(a_ut_hist_dump& f, const a_hist_row& row)
{
    if (row.dur == hist_no_dur)
        f.out.str("   -.-     ");
    else
        ut_put_seconds(f.out, row.dur, 4);
}

void put_sigmask(a_ut_hist_dump& f, const a_hist_row& row)
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

void put_id(a_ut_hist_dump& f, const a_hist_row& row)
{
    char number[2 * text_block];
    put_right(f, id_text(f, row, number), f.max_id_len + 1);
}

void put_event(a_ut_hist_dump& f, const a_hist_row& row)
{
    put_right(f, text_or(f, row.texts.ev, hist_no_ev), f.max_ev_len + 1);
}

void put_parms_header(a_ut_hist_dump& f)
{
    for (int32 i = 1; i <= f.max_pn; i++)
        f.out.put("  P", i, "(hex)");
}

void put_parms(a_ut_hist_dump& f, const a_hist_row& row)
{
    for (int32 i = 0; i < f.max_pn; i++) {
        if (uint32(row.pn) > uint32(i))
            f.out.ptr(row.p[i], 9);
        else
            f.out.mem("      ...", 9);
    }
}

void put_class(a_ut_hist_dump& f, const a_hist_row& row)
{
    f.out.mem(uint32(row.cl) < UT_HIST_CL_LAST ? hist_cl_strs[row.cl] : " ?", 2);
}

void put_file(a_ut_hist_dump& f, const a_hist_row& row)
{
    f.out.chr(' ');
    hist_put_text(f.out, f.pages, text_or(f, row.texts.file, hist_no_file));
}

void put_queue(a_ut_hist_dump& f, const a_hist_row& row) { f.out.dec(row.q, 3); }
void put_num(a_ut_hist_dump& f, const a_hist_row& row) { f.out.dec(row.num, 8); }
void put_thread(a_ut_hist_dump& f, const a_hist_row& row) { f.out.dec(row.thread, 4); }
void put_prio(a_ut_hist_dump& f, const a_hist_row& row) { f.out.sdec(row.prio, 3); }
void put_line(a_ut_hist_dump& f, const a_hist_row& row) { f.out.dec(row.line, 5); }
void put_id_header(a_ut_hist_dump& f) { f.out.right("Ev_ID", 5, f.max_id_len + 1); }
void put_event_header(a_ut_hist_dump& f) { f.out.right("Event", 5, f.max_ev_len + 1); }

}  // namespace

const a_hist_column hist_columns[] = {
    {'a', 1, "absolute time of day", "(a)ut_hist_inc_tod      ", "    time..milli", nullptr, put_tod},
    {'d', 1, "duration between beg & end", "(d)ut_hist_inc_dur      ", "   duration", nullptr, put_dur},
    {'q', 0, "queue number", "(q)ut_hist_inc_queue    ", "  Q", nullptr, put_queue},
    {'n', 1, "index number of event", "(n)ut_hist_inc_num      ", "  Ev_Num", nullptr, put_num},
    {'t', 1, "thread", "(t)ut_hist_inc_thread   ", " Thr", nullptr, put_thread},
    {'m', 0, "sig mask", nullptr, " SigM", nullptr, put_sigmask},
    {'r', 0, "thread priority", "(q)ut_hist_inc_prio     ", " Pr", nullptr, put_prio},
    {'i', 1, "event id", "(i)ut_hist_inc_id       ", nullptr, put_id_header, put_id},
    {'e', 1, "event description", "(e)ut_hist_inc_event    ", nullptr, put_event_header, put_event},
    {'c', 1, "class of event", "(c)ut_hist_inc_class    ", " C", nullptr, put_class},
    {'p', 1, "parms", "(p)ut_hist_inc_parms    ", nullptr, put_parms_header, put_parms},
    {'l', 1, "source line number", "(l)ut_hist_inc_line     ", " Line", nullptr, put_line},
    {'s', 1, "source file name", "(s)ut_hist_inc_file     ", " File....", nullptr, put_file},
    {'\0', 0, nullptr, nullptr, nullptr, nullptr, nullptr},
};

namespace {

void find_columns(a_ut_hist_dump& f)
{
    const a_hist_column** shown = f.shown;
    for (const a_hist_column* column = hist_columns; column->letter != '\0'; column++)
        if (hist.cfg->include[column->letter - 'a'] != 0)
            *shown++ = column;
    *shown = nullptr;
}

void put_block(a_ut_hist_dump& f, const a_hist_row& row)
{
    const a_ut_hist_event_list& queue = hist.hist_evs[row.q];
    const uint64 length = uint64(a_ptrint(row.p[1]));
    const uint32 size = uint32(hist.cfg->ut_hist_debug_data_size);
    const uint32 len = length > size ? size : uint32(length);
    // A record that stored no block names offset 0 and may show its length from there; nothing beyond the ring is read.
    const char* block = nullptr;
    if (hist_data_intact(queue, row.data_gen, row.data_idx) && row.data_idx <= size && len <= size - row.data_idx)
        block = hist_load_data(queue, row.data_idx, len, f.data);
    f.out.put(" (", row.data_gen, '+', row.data_idx, '+');
    // Looked at again: the block may have been overwritten while it was copied.
    if (block == nullptr || !hist_data_intact(queue, row.data_gen, row.data_idx)) {
        f.out.str("NA)");
        f.out.eol();
        return;
    }
    f.out.put(len, ')');
    f.out.eol();
    ut_hist_dump_to_file_data(f, block, len);
}

// ---- the merge ----

// Numbers wrap: the one is later than the other when their signed difference says so.
bool is_later(uint32 num, uint32 than) { return int32(num - than) > 0; }

// As hist_load_next for the table, whose last row was `last` (null: no row yet). An event may take its number before
// and enter its ring after one of another queue that the dump has printed meanwhile: it comes too late and is left out.
bool load_in_order(a_hist_cursor& at, const uint32* last)
{
    if (at.loaded)
        return true;  // and looked at before
    for (; hist_load_next(at, hist_load_row); hist_step(at))
        if (last == nullptr || is_later(at.row.num, *last) || at.index < at.newer)
            return true;
    return false;
}

// The queue with the earliest head; null when no queue has one.
a_hist_cursor* earliest_head(a_ut_hist_dump& f, const uint32* last)
{
    a_hist_cursor* found = nullptr;
    for (uint32 q = 0; q < num_queues(); q++)
        if (load_in_order(f.cursors[q], last) && (found == nullptr || is_later(found->row.num, f.cursors[q].row.num)))
            found = &f.cursors[q];
    return found;
}

// All rows; a gap line wherever numbers are missing.
void put_rows(a_ut_hist_dump& f)
{
    uint32 last = 0xFFFFFFFF;
    bool begun = false;
    while (a_hist_cursor* const head = earliest_head(f, begun ? &last : nullptr)) {
        if (last + 1 != head->row.num) {
            f.out.str("........ ......");
            f.out.eol();
        }
        last = head->row.num;
        begun = true;
        ut_hist_dump_to_file_q_n(f, head->row);
        hist_step(*head);
    }
}

bool copies_texts() { return hist_row_texts_bytes() != 0; }

}  // namespace

// The buffers of a dump with the present settings.
size_t hist_dump_bytes()
{
    const bool captures = hist_cfg.ut_hist_debug_data != 0 && hist_cfg.ut_hist_debug_data_size > 0;
    const size_t data = captures ? size_t(hist_cfg.ut_hist_debug_data_size) + 8 : 0;
    const size_t texts = copies_texts() ? hist_row_texts_bytes() * size_t(hist_cfg.hist_num_q) : sizeof(a_hist_pages);
    return sizeof(a_ut_hist_dump) + hist_shown_bytes() + texts + data;
}

// In the store that has just been mapped.
void hist_dump_lay_out(const char* eol)
{
    a_ut_hist_dump& f = *hist.dump;
    f.out.use(f.buf, sizeof f.buf, eol);
    f.view = f.buf + sizeof f.buf;
    char* at = f.view + hist_shown_bytes();
    f.pages = copies_texts() ? nullptr : reinterpret_cast<a_hist_pages*>(at);
    at += f.pages != nullptr ? sizeof *f.pages : 0;
    for (uint32 q = 0; q < num_queues(); q++, at += hist_row_texts_bytes())
        f.cursors[q].texts = at;
    f.data = at;
}

// The hex lines of len bytes at addr, 16 a line.
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
void ut_hist_dump_to_file_head(a_ut_hist_dump& f)
{
    ut_put_begin(f.out, "HISTORY");
    for (const a_hist_column* const* column = f.shown; *column != nullptr; column++)
        (*column)->header != nullptr ? f.out.str((*column)->header) : (*column)->put_header(f);
    f.out.eol();
}

// A row with its data suffix and hex lines.
void ut_hist_dump_to_file_q_n(a_ut_hist_dump& f, const a_hist_row& row)
{
    if (f.pages != nullptr)
        hist_cover_event(*f.pages, row.num);
    for (const a_hist_column* const* column = f.shown; *column != nullptr; column++)
        (*column)->put_cell(f, row);
    if (row.cl == UT_HIST_CL_DATA && hist.hist_evs[row.q].data_buf != nullptr)
        put_block(f, row);
    else
        f.out.eol();
}

// The event section: banner, header, and all rows merged by event number.
void ut_hist_dump_to_file_i_ev(a_ut_hist_dump& f)
{
    if (!__atomic_load_n(&hist.hist_ok_to_dump, __ATOMIC_ACQUIRE))
        return;
    f.tod.text[0] = '\0';
    find_columns(f);
    find_widths(f);
    ut_hist_dump_to_file_head(f);
    start_cursors(f);
    put_rows(f);
}

// The end banner.
void ut_hist_dump_to_file_tail(a_ut_hist_dump& f)
{
    f.out.str("********** HISTORY DUMP END @ ");
    ut_hist_cur_timestamp_str(f.out);
    // Relaxed: the counts are only shown.
    f.out.put(" (", __atomic_load_n(&hist.live->events_missed, __ATOMIC_RELAXED),
              " missed, thr=", __atomic_load_n(&hist.live->last_missed_thread, __ATOMIC_RELAXED), ") **********");
    f.out.eol();
}
