// hist_text.cpp: the formatter's sinks and fields, and the allocation of the dump's buffers.
//
// Invariant: `used` never exceeds the buffer. A text longer than the buffer goes through it in pieces.
#include "utils/etc/uthist/hist_text.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include "utils/etc/uthist/hist_config.h"
#include "utils/utmem/utmem.h"

// Not signal-safe: it prints.
void sink_file(a_hist_text& text) { fwrite(text.buf, 1, text.used, text.file); }

namespace {

// A descriptor in non-blocking mode gets a second to take more; then the rest of the dump is given up, so that it always
// ends, and none of its rows is joined with a half one. Signals may shorten the second.
constexpr int poll_timeout_ms = 100;
constexpr int max_polls = 10;

// Whether write should be tried again after it failed.
// Signal-safe.
bool try_again(int fd, int& polls)
{
    if (errno == EINTR)
        return true;
    if (errno != EAGAIN)
        return false;
    struct pollfd wait = {fd, POLLOUT, 0};
    while (polls++ < max_polls)
        if (poll(&wait, 1, poll_timeout_ms) == 1)
            return (wait.revents & POLLOUT) != 0;
    return false;
}

struct a_power_table {
    constexpr a_power_table()
    {
        for (uint64 power = 1, i = 1; i < 20; i++)
            of_ten[i] = power *= 10;
    }
    uint64 of_ten[20] = {};
};

// Signal-safe.
inline size_t bits(uint64 value) { return 64 - size_t(__builtin_clzll(value | 1)); }

// The bits of a number tell the count of its decimal digits but for one: 1233 / 4096 is the logarithm of 2.
// Signal-safe.
inline size_t decimal_digits(uint64 value)
{
    static constexpr a_power_table powers;
    const size_t least = bits(value) * 1233 / 4096;
    return least + (value >= powers.of_ten[least] ? 1 : 0);
}

// Signal-safe.
inline size_t hex_digits(uint64 value) { return (bits(value) + 3) / 4; }

// Writes a number's digits before `end`. Two digits a division: it is most of a number's cost.
// Signal-safe.
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

// Signal-safe.
inline void put_hex(char* end, uint64 value)
{
    do {
        *--end = "0123456789abcdef"[value & 15];
        value >>= 4;
    } while (value != 0);
}

}  // namespace

// Signal-safe.
void sink_fd(a_hist_text& text)
{
    const char* at = text.buf;
    int polls = 0;
    for (size_t left = text.used; left > 0;) {
        const ssize_t written = write(text.fd, at, left);
        if (written > 0) {
            at += written;
            left -= size_t(written);
            polls = 0;
        } else if (written == 0 || !try_again(text.fd, polls)) {
            text.fd = -1;
            return;
        }
    }
}

// Not signal-safe: a stream has a lock.
void a_hist_text::to_file(FILE* f)
{
    sink = sink_file;
    file = f;
    used = 0;
}

// Signal-safe.
void a_hist_text::to_fd(int to)
{
    sink = sink_fd;
    fd = to;
    used = 0;
}

// Hands the text so far to the sink. A stream is not flushed itself.
// Signal-safe when the sink is a descriptor.
void a_hist_text::flush()
{
    if (used > 0)
        sink(*this);
    used = 0;
}

// Hands on what ends at the last line end, so that a dump beside another, or one that is cut off, seldom leaves a half row
// for the next to join (a write may be cut itself); of a line longer than the buffer, what there is.
// Signal-safe when the sink is a descriptor.
void a_hist_text::hand_over()
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

// Signal-safe.
void a_hist_text::long_mem(const char* s, size_t len)
{
    while (len > sizeof buf - used) {
        const size_t piece = sizeof buf - used;
        memcpy(buf + used, s, piece);
        used += piece;
        s += piece;
        len -= piece;
        hand_over();
    }
    memcpy(buf + used, s, len);
    used += len;
}

// Signal-safe.
void a_hist_text::long_fill(char c, size_t n)
{
    while (n > sizeof buf - used) {
        const size_t piece = sizeof buf - used;
        memset(buf + used, c, piece);
        used += piece;
        n -= piece;
        hand_over();
    }
    memset(buf + used, c, n);
    used += n;
}

// Signal-safe.
void a_hist_text::right(const char* s, size_t len, size_t width)
{
    if (len < width)
        fill(' ', width - len);
    mem(s, len);
}

// Signal-safe.
void a_hist_text::left(const char* s, size_t width)
{
    const size_t len = strlen(s);
    mem(s, len);
    if (len < width)
        fill(' ', width - len);
}

// Room for a field of so many characters, padded on the left to the width; gives its end. Numbers are written where they
// stay: what was written by twos and read again as a whole would cost a stall.
// Signal-safe.
inline char* a_hist_text::field_end(size_t len, size_t width, char pad)
{
    room();
    for (; width > len; width--)
        buf[used++] = pad;
    used += len;
    return buf + used;
}

// Signal-safe.
void a_hist_text::dec(uint64 value, size_t width, char pad)
{
    put_decimal(field_end(decimal_digits(value), width, pad), value);
}

// Signal-safe.
void a_hist_text::sdec(int64_t value, size_t width)
{
    const uint64 magnitude = value < 0 ? 0 - uint64(value) : uint64(value);
    const size_t len = decimal_digits(magnitude);
    char* const end = field_end(value < 0 ? len + 1 : len, width, ' ');
    if (value < 0)
        *(end - len - 1) = '-';
    put_decimal(end, magnitude);
}

// Signal-safe.
void a_hist_text::hex(uint64 value, size_t width, char pad)
{
    put_hex(field_end(hex_digits(value), width, pad), value);
}

// Signal-safe.
void a_hist_text::ptr(const void* value, size_t width)
{
    if (value == nullptr) {
        right("(nil)", 5, width);
        return;
    }
    const uint64 number = uint64(a_ptrint(value));
    const size_t len = hex_digits(number);
    char* const end = field_end(len + 2, width, ' ');
    memcpy(end - len - 2, "0x", 2);
    put_hex(end, number);
}

// Signal-safe.
void a_hist_text::eol() { str(hist_cfg.ut_hist_eol); }

// The buffers of a dump with the present settings, in one block; null when memory is short.
// Not signal-safe: it allocates.
a_ut_hist_dump* hist_dump_alloc()
{
    const size_t texts = hist_cfg.ut_hist_dump_on_fini != 0 ? hist_cfg.text_stride : 0;
    const size_t bytes = sizeof(a_ut_hist_dump) + texts * size_t(hist_cfg.hist_num_q);
    void* block = ut_calloc(bytes);
    if (block == nullptr)
        return nullptr;
    a_ut_hist_dump* dump = static_cast<a_ut_hist_dump*>(block);
    char* at = static_cast<char*>(block) + sizeof(a_ut_hist_dump);
    for (int32 q = 0; q < hist_cfg.hist_num_q; q++, at += texts)
        dump->cursors[q].texts = texts != 0 ? at : nullptr;
    return dump;
}
