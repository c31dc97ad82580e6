// hist_text.h: the one formatter that all dumps write through, and the buffers of the dump that is running.
//
// Text is gathered in a fixed buffer and handed to a sink, by whole lines, when that is full: a caller's FILE*, or a file
// descriptor. With a descriptor everything here is signal-safe; nothing allocates but hist_dump_alloc, at
// start-up. Only one dump runs at a time (hist.dump_state), so there is one set of buffers.
#ifndef UTHIST_HIST_TEXT_H
#define UTHIST_HIST_TEXT_H

#include <stdio.h>
#include <string.h>

#include "utils/etc/uthist/hist_store.h"

class a_hist_text {
public:
    void to_file(FILE* f);
    void to_fd(int fd);
    void flush();

    void chr(char c);
    void mem(const char* s, size_t len);
    void str(const char* s) { mem(s, strlen(s)); }  // Signal-safe.
    void fill(char c, size_t n);
    void right(const char* s, size_t len, size_t width);       // as %<width>s prints it
    void left(const char* s, size_t width);                    // as %-<width>s prints it
    void dec(uint64 value, size_t width = 1, char pad = ' ');  // as %<width>u, or %.<width>u with pad '0'
    void sdec(int64_t value, size_t width);                    // as %<width>d
    void hex(uint64 value, size_t width = 1, char pad = '0');
    void ptr(const void* value, size_t width);  // as %<width>p
    void eol();

private:
    // Every field but a text or a wide fill fits into this, so one check makes room for it.
    static constexpr size_t field = 64;

    void hand_over();
    void long_mem(const char* s, size_t len);
    void long_fill(char c, size_t n);
    char* field_end(size_t len, size_t width, char pad);
    // Signal-safe.
    void room()
    {
        while (__builtin_expect(used > sizeof buf - field, 0))
            hand_over();
    }

    void (*sink)(a_hist_text& text);
    FILE* file;
    int fd;
    size_t used;
    char buf[32 * 1024];

    friend void sink_file(a_hist_text& text);
    friend void sink_fd(a_hist_text& text);
};

// Signal-safe.
inline void a_hist_text::chr(char c)
{
    room();
    buf[used++] = c;
}

// Signal-safe.
inline void a_hist_text::mem(const char* s, size_t len)
{
    room();
    if (__builtin_expect(len > field, 0)) {
        long_mem(s, len);
        return;
    }
    memcpy(buf + used, s, len);
    used += len;
}

// Signal-safe.
inline void a_hist_text::fill(char c, size_t n)
{
    room();
    if (__builtin_expect(n > field, 0)) {
        long_fill(c, n);
        return;
    }
    memset(buf + used, c, n);
    used += n;
}

// A whole record, copied out of its ring.
struct a_hist_row {
    struct timeval time_of_day;
    const char* file;
    const char* id;
    const char* ev;
    uint32 line, num, thread;
    int32 got_sigs;
    uint64 sigset;  // signal s is bit s - 1
    int32 prio;
    uint32 dur;
    int32 cl;
    int32 pn;
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
    char* texts;  // copy mode: the row's texts
};

// The formatted time of a second, kept since rows of one second follow each other.
struct a_hist_second {
    time_t second;
    char text[16];  // "hh:mm:ss."
    size_t len;     // 0: no second is kept yet
};

struct a_ut_hist_dump {
    a_hist_text out;
    void (*begin_errout)(a_hist_text& out);  // directs `out` to the errout stream and writes the timestamp line
    size_t max_id_len, max_ev_len;
    int32 max_pn;
    a_hist_cursor cursors[hist_max_queues];
    a_hist_second tod;
    char* data;  // owned; room for one data block, null without data rings
};

a_ut_hist_dump* hist_dump_alloc();

#endif
