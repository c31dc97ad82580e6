// uttext.cpp: numbers and padded fields, and how a full buffer is handed on. Signal-safe: all of it, as far as the
// sink is.
#include "utils/etc/uttext.h"

#include <stdint.h>

namespace {

struct a_power_table {
    constexpr a_power_table()
    {
        for (uint64 power = 1, i = 1; i < 20; i++)
            of_ten[i] = power *= 10;
    }
    uint64 of_ten[20] = {};
};

inline size_t bits(uint64 value) { return 64 - size_t(__builtin_clzll(value | 1)); }

// The bits of a number tell the count of its decimal digits but for one: 1233 / 4096 is the logarithm of 2.
inline size_t decimal_digits(uint64 value)
{
    static constexpr a_power_table powers;
    const size_t least = bits(value) * 1233 / 4096;
    return least + (value >= powers.of_ten[least] ? 1 : 0);
}

inline size_t hex_digits(uint64 value) { return (bits(value) + 3) / 4; }

// Writes a number's digits before `end`. Two digits a division: it is most of a number's cost.
inline void put_decimal(char* end, uint64 value)
{
    static constexpr char pairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839404142434445464748"
        "49505152535455565758596061626364656667686970717273747576777879808182838485868788899091929394959697"
        "9899";
    for (; value >= 100; value /= 100) {
        end -= 2;
        memcpy(end, pairs + value % 100 * 2, 2);
    }
    if (value < 10)
        end[-1] = char('0' + value);
    else
        memcpy(end - 2, pairs + value * 2, 2);
}

inline void put_hex(char* end, uint64 value)
{
    do {
        *--end = "0123456789abcdef"[value & 15];
        value >>= 4;
    } while (value != 0);
}

}  // namespace

void a_text::use(char* buffer, size_t buffer_size, const char* line_end)
{
    buf = buffer;
    limit = buffer_size - field;
    end_of_line = line_end;
}

void a_text::direct(a_sink to_sink, void* to)
{
    sink = to_sink;
    sink_arg = to;
    used = 0;
}

void a_text::flush()
{
    if (used > 0)
        sink(sink_arg, buf, used);
    used = 0;
}

// Hands on what ends at the last line end, so that a dump beside another, or one that is cut off, seldom leaves a half
// row for the next to join (a write may be cut itself); of a line longer than the buffer, what there is.
void a_text::hand_over()
{
    size_t whole = used;
    while (whole > 0 && buf[whole - 1] != '\n')
        whole--;
    const size_t rest = whole > 0 ? used - whole : 0;
    used -= rest;
    flush();
    memmove(buf, buf + whole, rest);
    used = rest;
}

void a_text::long_mem(const char* s, size_t len)
{
    for (; len > field; s += field, len -= field)
        mem(s, field);
    mem(s, len);
}

void a_text::long_fill(char c, size_t n)
{
    for (; n > field; n -= field)
        fill(c, field);
    fill(c, n);
}

void a_text::right(const char* s, size_t len, size_t width)
{
    if (len < width)
        fill(' ', width - len);
    mem(s, len);
}

void a_text::left(const char* s, size_t width)
{
    const size_t len = strlen(s);
    mem(s, len);
    if (len < width)
        fill(' ', width - len);
}

// Room for a field of so many characters, padded on the left to the width; gives its end. Numbers are written where
// they stay: what was written by twos and read again as a whole would cost a stall.
inline char* a_text::field_end(size_t len, size_t width, char pad)
{
    room();
    for (; width > len; width--)
        buf[used++] = pad;
    used += len;
    return buf + used;
}

void a_text::dec(uint64 value, size_t width, char pad)
{
    put_decimal(field_end(decimal_digits(value), width, pad), value);
}

void a_text::sdec(int64_t value, size_t width)
{
    const uint64 magnitude = value < 0 ? 0 - uint64(value) : uint64(value);
    const size_t len = decimal_digits(magnitude);
    char* const end = field_end(value < 0 ? len + 1 : len, width, ' ');
    if (value < 0)
        *(end - len - 1) = '-';
    put_decimal(end, magnitude);
}

void a_text::hex(uint64 value, size_t width, char pad) { put_hex(field_end(hex_digits(value), width, pad), value); }

void a_text::ptr(const void* value, size_t width)
{
    if (value == nullptr) {
        right("(nil)", 5, width);
        return;
    }
    const uint64 number = uint64(a_ptrint(value));
    const size_t len = hex_digits(number);
    char* const end = field_end(len + 2, width, ' ');
    end[-ptrdiff_t(len) - 2] = '0';
    end[-ptrdiff_t(len) - 1] = 'x';
    put_hex(end, number);
}

size_t ut_whole_utf8(const char* text, size_t len)
{
    size_t start = len;  // one behind the last character's first byte
    while (start > 0 && len - start < 3 && (uint8_t(text[start - 1]) & 0xC0) == 0x80)
        start--;
    if (start == 0)
        return len;
    const uint8_t lead = uint8_t(text[start - 1]);
    const size_t wanted = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return wanted > len - start + 1 ? start - 1 : len;
}

void a_text::printable(const char* s, size_t len, size_t width)
{
    for (size_t i = 0; i < len; i++)
        chr(uint8_t(s[i]) < 0x20 || s[i] == 0x7F ? '.' : s[i]);
    if (len < width)
        fill(' ', width - len);
}
