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

// Writes a number's digits before `end`; gives where they begin. Two digits a division: it is most of a number's cost.
// Signal-safe.
inline char* put_decimal(char* end, uint64 value)
{
    static constexpr char pairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839404142434445464748"
        "49505152535455565758596061626364656667686970717273747576777879808182838485868788899091929394959697"
        "9899";
    for (; value >= 100; value /= 100) {
        end -= 2;
        memcpy(end, pairs + value % 100 * 2, 2);
    }
    if (value < 10) {
        *--end = char('0' + value);
        return end;
    }
    end -= 2;
    memcpy(end, pairs + value * 2, 2);
    return end;
}

// Signal-safe.
inline char* put_hex(char* end, uint64 value)
{
    do {
        *--end = "0123456789abcdef"[value & 15];
        value >>= 4;
    } while (value != 0);
    return end;
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

// Hands on what ends at the last line end, so that a dump that is cut off, by a process's death or by one beside it, leaves
// no half row for the next to join; of a line longer than the buffer, what there is.
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

// Writes the digits in [at, end), padded on the left; the caller's array has room for the padding up to `field`.
// Signal-safe.
inline void a_hist_text::digits(char* at, char* end, size_t width, char pad)
{
    while (size_t(end - at) < width)
        *--at = pad;
    mem(at, size_t(end - at));
}

// Signal-safe.
void a_hist_text::dec(uint64 value, size_t width, char pad)
{
    char text[field];
    char* const end = text + field;
    char* at = put_decimal(end, value);
    digits(at, end, width, pad);
}

// Signal-safe.
void a_hist_text::sdec(int64_t value, size_t width)
{
    char text[field];
    char* const end = text + field;
    char* at = put_decimal(end, value < 0 ? 0 - uint64(value) : uint64(value));
    if (value < 0)
        *--at = '-';
    digits(at, end, width, ' ');
}

// Signal-safe.
void a_hist_text::hex(uint64 value, size_t width, char pad)
{
    char text[field];
    char* const end = text + field;
    digits(put_hex(end, value), end, width, pad);
}

// Signal-safe.
void a_hist_text::ptr(const void* value, size_t width)
{
    if (value == nullptr) {
        right("(nil)", 5, width);
        return;
    }
    char text[field];
    char* const end = text + field;
    char* at = put_hex(end, uint64(a_ptrint(value)));
    *--at = 'x';
    *--at = '0';
    digits(at, end, width, ' ');
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
