// hist_pages.cpp: copies the pages of the program's texts, and puts texts together that lie in several.
// Signal-safe: all of it.
#include "utils/etc/uthist/hist_pages.h"

#include <errno.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr uint32 most_ahead = 8;
constexpr uint32 text_looks = 4;          // at places of a text
constexpr const char* gone = hist_no_ev;  // what stands for a text that cannot be read

// The kernel reads a new signal mask before it finds that `how` is none of its own, and changes nothing.
bool is_readable(const void* page)
{
    constexpr int no_how = -1;
    constexpr size_t kernel_sigset = 8;
    return syscall(SYS_rt_sigprocmask, no_how, page, nullptr, kernel_sigset) == 0 || errno != EFAULT;
}

// By the thread's id: the main thread may have left the process, and its id has no memory then. Where a sandbox refuses
// the call, each page is probed and then read: another thread that unmaps it right between the two still ends the
// process.
bool read_own_pages(void*, uint64 address, void* to, size_t length)
{
    const char* const pages = reinterpret_cast<const char*>(address);
    const struct iovec local = {to, length}, remote = {const_cast<char*>(pages), length};
    const ssize_t got = process_vm_readv(gettid(), &local, 1, &remote, 1, 0);
    if (got >= 0 || errno == EFAULT)
        return got == ssize_t(length);
    for (size_t at = 0; at < length; at += text_block) {
        if (at % hist_page_size == 0 && !is_readable(pages + at))
            return false;
        copy_block(static_cast<char*>(to) + at, pages + at);
    }
    return true;
}

uint64 next_page(uint64 address) { return (address / hist_page_size + 1) * hist_page_size; }

// Where a page stands, or the free place for it.
a_hist_pages::a_found& place_of(a_hist_pages& pages, uint64 key)
{
    uint32 at = uint32(hist_spread(key) % hist_page_places);
    while (pages.found[at].key != key && pages.found[at].key != 0)
        at = (at + 1) % hist_page_places;
    return pages.found[at];
}
static_assert(hist_page_places >= 2 * hist_cached_pages);

bool is_known(a_hist_pages& pages, uint64 key) { return place_of(pages, key).key == key; }

// To where the next copies go.
bool read_pages(a_hist_pages& pages, uint64 key, uint32 count)
{
    return hist_page_source.read(hist_page_source.from, (key - 1) * hist_page_size, pages.copies[pages.used],
                                 count * hist_page_size);
}

// Most of a copy's cost is the call: of pages in a row twice as many are copied each time. When the cache has filled,
// perhaps by pages that nobody asked for, only the one that is asked for.
uint32 pages_at_once(a_hist_pages& pages, uint64 key)
{
    if (pages.used == hist_cached_pages) {
        hist_empty_pages(pages);
        pages.ahead = 0;
    }
    if (pages.ahead > 0)
        pages.ahead = !is_known(pages, key - 1) ? 1 : pages.ahead < most_ahead ? 2 * pages.ahead : most_ahead;
    uint32 count = 1;
    while (count < pages.ahead && pages.used + count < hist_cached_pages && !is_known(pages, key + count))
        count++;
    return count;
}

// Gives the copy. That a page cannot be read is kept as well: its texts are looked for again.
__attribute__((noinline)) const char* add_pages(a_hist_pages& pages, uint64 key)
{
    uint32 count = pages_at_once(pages, key);
    bool whole = read_pages(pages, key, count);
    if (!whole && count > 1) {
        count = 1;
        whole = read_pages(pages, key, count);
    }
    const char* const copy = whole ? pages.copies[pages.used] : nullptr;
    for (uint32 i = 0; i < count; i++)
        place_of(pages, key + i) = {key + i, whole ? copy + i * hist_page_size : nullptr};
    pages.used += count;
    return copy;
}

// Where a text stands, or the place for it: a free one, else that of its hash.
a_hist_text& place_of_text(a_hist_pages& pages, uint64 address)
{
    const uint32 home = hist_text_hash(address);
    for (uint32 at = home; at < home + text_looks; at++) {
        a_hist_text& place = pages.texts[at % hist_text_places];
        if (place.address == address || place.address == 0)
            return place;
    }
    return pages.texts[home];
}

// What the page of that address holds of a text.
struct a_piece {
    const char* text;  // null: it cannot be read
    size_t len;
    bool ends;  // or runs on into the next page
};

inline a_piece find_piece(a_hist_pages& pages, uint64 address)
{
    const uint64 key = address / hist_page_size + 1, offset = address % hist_page_size;
    const a_hist_pages::a_found& found = place_of(pages, key);
    const char* const copy = found.key == key ? found.copy : add_pages(pages, key);
    if (copy == nullptr)
        return {nullptr, 0, true};
    const size_t len = strnlen(copy + offset, hist_page_size - offset);
    return {copy + offset, len, offset + len < hist_page_size};
}

}  // namespace

constinit a_hist_page_source hist_page_source = {read_own_pages, nullptr};

// Acquire: the texts of events up to that number stood where they were said to be before any page is copied.
void hist_empty_pages(a_hist_pages& pages)
{
    pages.newest = __atomic_load_n(&hist.hist_count, __ATOMIC_ACQUIRE);
    memset(pages.texts, 0, sizeof pages.texts);
    memset(pages.found, 0, sizeof pages.found);
    pages.used = 0;
    pages.ahead = 1;
}

// One of whose pages cannot be read is no text.
__attribute__((noinline)) a_hist_text hist_look_for_text(a_hist_pages& pages, uint64 address)
{
    a_hist_text& place = place_of_text(pages, address);
    if (place.address == address)
        return place;
    a_piece piece = find_piece(pages, address);
    if (piece.text != nullptr && piece.ends) {
        const a_hist_text found = {piece.text, piece.len, address};  // not read again from where it has just been put
        place = found;
        return found;
    }
    size_t len = piece.len;
    for (uint64 at = next_page(address); !piece.ends; at = next_page(at)) {
        piece = find_piece(pages, at);
        len += piece.len;
    }
    return piece.text != nullptr ? a_hist_text{nullptr, len, address} : hist_own_text(gone);
}

// Up to the length that was found: pages may have been copied anew since, and the text have changed.
__attribute__((noinline)) void hist_put_pieces(a_text& out, a_hist_pages& pages, const a_hist_text& text)
{
    size_t left = text.len;
    for (uint64 at = text.address; left > 0; at = next_page(at)) {
        const a_piece piece = find_piece(pages, at);
        const size_t len = piece.len < left ? piece.len : left;
        if (len > 0)
            out.mem(piece.text, len);
        left = piece.ends ? 0 : left - len;
    }
}

void hist_copy_text(a_hist_pages& pages, const char* text, char* copy, size_t max)
{
    size_t used = 0;
    a_piece piece = {nullptr, 0, false};
    for (uint64 at = a_ptrint(text); !piece.ends && used < max; at = next_page(at)) {
        piece = find_piece(pages, at);
        if (piece.text == nullptr) {
            piece = {gone, strlen(gone), true};
            used = 0;
        }
        const size_t len = piece.len < max - used ? piece.len : max - used;
        memcpy(copy + used, piece.text, len);
        used += len;
    }
    copy[used] = '\0';
}
