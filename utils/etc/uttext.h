// uttext.h: the one formatter of dumps and messages; it knows no store and no settings.
//
// Text is gathered in a buffer of the caller's and handed to a sink, by whole lines, when that is full. It allocates
// nothing and formats without the C library: with a sink that is signal-safe all of it is. Signal-safe: all of it, as
// far as the sink is.
#pragma once

#include <stddef.h>
#include <string.h>

#include "corvex/types.h"

class a_text {
public:
    using a_sink = void (*)(void* to, const char* text, size_t len);

    void use(char* buffer, size_t buffer_size, const char* line_end);  // larger than `field`
    void direct(a_sink to_sink, void* to);                             // drops what has not been handed over
    void flush();

    void chr(char c);
    void mem(const char* s, size_t len);
    void str(const char* s) { mem(s, strlen(s)); }
    void fill(char c, size_t n);
    void right(const char* s, size_t len, size_t width);          // as %<width>s prints it
    void left(const char* s, size_t width);                       // as %-<width>s prints it
    void printable(const char* s, size_t len, size_t width = 0);  // control characters as '.', padded on the right
    void dec(uint64 value, size_t width = 1, char pad = ' ');     // as %<width>u, or %.<width>u with pad '0'
    void sdec(int64_t value, size_t width = 1);                   // as %<width>d
    void hex(uint64 value, size_t width = 1, char pad = '0');
    void ptr(const void* value, size_t width = 1);  // as %<width>p
    void eol() { str(end_of_line); }

    // Texts, characters and numbers one after the other.
    template <class... a_part>
    void put(a_part... parts)
    {
        (one(parts), ...);
    }

private:
    void one(const char* s) { str(s); }
    void one(char c) { chr(c); }
    void one(int32 value) { sdec(value); }
    void one(uint32 value) { dec(value); }
    void one(size_t value) { dec(value); }
    void one(const void* value) { ptr(value); }

    // Every field but a text or a wide fill fits into this, so one check makes room for it.
    static constexpr size_t field = 64;

    void hand_over();
    void long_mem(const char* s, size_t len);
    void long_fill(char c, size_t n);
    char* field_end(size_t len, size_t width, char pad);
    void room()
    {
        while (__builtin_expect(used > limit, 0))
            hand_over();
    }

    char* buf;
    size_t used;
    size_t limit;  // up to where a field has room
    const char* end_of_line;
    a_sink sink;
    void* sink_arg;
};

// The length of a text that was cut there, without a UTF-8 character that the cut has left in part.
size_t ut_whole_utf8(const char* text, size_t len);

inline void a_text::chr(char c)
{
    room();
    buf[used++] = c;
}

inline void a_text::mem(const char* s, size_t len)
{
    room();
    if (__builtin_expect(len > field, 0)) {
        long_mem(s, len);
        return;
    }
    memcpy(buf + used, s, len);
    used += len;
}

inline void a_text::fill(char c, size_t n)
{
    room();
    if (__builtin_expect(n > field, 0)) {
        long_fill(c, n);
        return;
    }
    memset(buf + used, c, n);
    used += n;
}
