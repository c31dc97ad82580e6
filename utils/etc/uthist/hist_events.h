// hist_events.h: the event table of a dump, and the buffers of the dump that is running.
//
// Only one dump runs at a time (hist.dump_state, hist_store.h), so there is one set of buffers; it stands in the store.
// Signal-safe: all of it, as far as the text's sink is.
#pragma once

#include "utils/etc/uthist/hist_pages.h"
#include "utils/etc/uthist/hist_ring.h"
#include "utils/etc/uthist/hist_threads.h"
#include "utils/etc/uttext.h"

// The formatted time of a second, kept since rows of one second follow each other.
struct a_hist_second {
    time_t second;
    char text[128];  // "hh:mm:ss.", empty while no second is kept; the rest is for the formatter
};

struct alignas(cache_line) a_ut_hist_dump {
    a_text out;
    size_t max_id_len, max_ev_len;
    int32 max_pn;
    const a_hist_column* shown[32];  // the columns of this dump, up to a null
    a_hist_second tod;
    a_hist_cursor cursors[hist_max_queues];
    char* view;           // room for what the thread table shows
    a_hist_pages* pages;  // of the program's texts; null in copy mode
    char* data;           // room for one data block
    alignas(
        cache_line) char buf[32 * 1024];  // of `out`; behind it that room, the pages or the rows' texts, a data block
};

size_t hist_dump_bytes();
void hist_dump_lay_out(const char* eol);

void ut_hist_dump_to_file_i_ev(a_ut_hist_dump& f);
void ut_hist_dump_to_file_head(a_ut_hist_dump& f);
void ut_hist_dump_to_file_q_n(a_ut_hist_dump& f, const a_hist_row& row);
void ut_hist_dump_to_file_data(a_ut_hist_dump& f, const char* addr, uint32 len);
void ut_hist_dump_to_file_tail(a_ut_hist_dump& f);
