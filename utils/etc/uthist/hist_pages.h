// hist_pages.h: the program's texts that records point at outside copy mode, read so that no address can end a dump.
//
// A text may be gone by the time of a dump: its library unloaded, its memory unmapped or closed, its file cut. A dump
// prints from copies of whole pages, each made once a dump by a system call which says when a page cannot be read:
//
//     address -> texts[hash of it] ----------------v             texts that were looked for before
//             -> found[hash of its page] -> |..... text\0.....te|
//
// A text in one page is printed out of the copy, one that runs on in pieces. One dump runs at a time and has the one
// cache, in its buffers; when that is full it begins anew. A text stands until the next look. Signal-safe: all of it.
#pragma once

#include "utils/etc/uthist/hist_texts.h"
#include "utils/etc/uttext.h"

// Copies whole pages; false when they cannot all be read. A tool that looks at another process, a file or a core sets
// its own before it dumps.
using a_page_reader = bool (*)(void* from, uint64 address, void* to, size_t length);
struct a_hist_page_source {
    a_page_reader read;
    void* from;
};
extern a_hist_page_source hist_page_source;

inline constexpr uint64 hist_page_size = 4096;
inline constexpr uint32 hist_cached_pages = 80;  // 64 that texts stand in, and some that were copied ahead
inline constexpr uint32 hist_page_places = 256;
inline constexpr uint32 hist_text_places = 1024;

// A text as it is printed.
struct a_hist_text {
    const char* text;  // null: in pieces, from the address on
    size_t len;
    uint64 address;
};

struct alignas(cache_line) a_hist_pages {
    struct a_found {
        uint64 key;        // 1 + number of the page; 0: free
        const char* copy;  // null: the page cannot be read
    };
    a_hist_text texts[hist_text_places];  // whole ones, at the place of their hash or soon behind; all zero: none
    a_found found[hist_page_places];      // a page stands at the place of its hash, or the next free one behind
    uint32 used;
    uint32 ahead;   // how many pages the last look wanted at once; 0: one each from now on
    uint32 newest;  // events up to this number were recorded before any page here was copied
    alignas(cache_line) char copies[hist_cached_pages][hist_page_size];
};

void hist_empty_pages(a_hist_pages& pages);

// Pages that were copied before an event was recorded may lack its texts: they are copied again.
inline void hist_cover_event(a_hist_pages& pages, uint32 num)
{
    if (int32(num - pages.newest) > 0) [[unlikely]]
        hist_empty_pages(pages);
}

// The upper bits of a product: neighbours get places far apart.
inline uint64 hist_spread(uint64 key) { return key * 0x9E3779B97F4A7C15 >> 40; }
inline uint32 hist_text_hash(uint64 address) { return uint32(hist_spread(address) % hist_text_places); }

a_hist_text hist_look_for_text(a_hist_pages& pages, uint64 address);
void hist_put_pieces(a_text& out, a_hist_pages& pages, const a_hist_text& text);

// At most max characters of a text, ended by a NUL.
void hist_copy_text(a_hist_pages& pages, const char* text, char* copy, size_t max);

// A text that lies in the library or in the dump's own copy.
inline a_hist_text hist_own_text(const char* text) { return {text, strlen(text), 0}; }

// A row's text: in copy mode, without pages, it is the dump's own copy.
inline a_hist_text hist_find_text(a_hist_pages* pages, const char* text)
{
    if (pages == nullptr)
        return hist_own_text(text);
    const uint64 address = a_ptrint(text);
    const a_hist_text& known = pages->texts[hist_text_hash(address)];
    return known.address == address ? known : hist_look_for_text(*pages, address);
}

inline void hist_put_text(a_text& out, a_hist_pages* pages, const a_hist_text& text)
{
    if (text.text != nullptr) [[likely]]
        out.mem(text.text, text.len);
    else
        hist_put_pieces(out, *pages, text);
}
