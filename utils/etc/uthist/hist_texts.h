// hist_texts.h: how texts and data blocks lie in the store, and their ways in and out.
//
// Copy mode: file, id and event text of slot 0, then of slot 1, each in whole blocks of 16 characters:
//
//     |file........|id..........|ev..........|file........|...        ev_text_at, text_stride (hist_config.h)
//
// A writer stores whole blocks in order, as store_block says, or words with release order; a reader loads words with
// acquire order, both between their looks at the record's sequence word (hist_ring.h). What comes along behind a text's
// NUL is never shown.
//
// Data ring: generation and fill offset share one word, moved before the bytes are copied: a reader that copied a byte
// of a newer block then also sees that its own block is gone. Signal-safe: all of it.
#pragma once

#include <emmintrin.h>

#include <atomic>

#include "utils/etc/uthist/hist_store.h"

inline constexpr size_t text_block = 16;  // bytes; texts are stored in whole blocks

// An id below this that is not registered is a number, say of an earlier life of the registry, and never an address.
inline constexpr a_ptrint hist_first_address = 65536;

inline const char* const hist_absent_id = reinterpret_cast<const char*>(~a_ptrint(0));  // what marks no id in a record

struct a_data_pos {
    uint32 data_gen;
    uint32 data_fil;
};
inline constexpr uint64 pack_data(a_data_pos at) { return uint64(at.data_gen) << 32 | at.data_fil; }
inline constexpr a_data_pos unpack_data(uint64 word) { return {uint32(word >> 32), uint32(word)}; }

void hist_lay_out_texts();      // into the settings, before the store is mapped
size_t hist_row_texts_bytes();  // of the texts of one row
void hist_load_words(char* dst, const char* src, size_t bytes);

inline bool hist_is_text(const char* id) { return a_ptrint(id) >= hist_first_address && id != hist_absent_id; }

// An id's text as it is shown: "-" for none, "#" and the number, put into buf, for one that is no address.
const char* hist_id_text(const char* id, char (&buf)[2 * text_block]);

// What a row's texts are copied from and to: out of the queue's block, or as addresses.
struct a_hist_row_texts {
    const char* file;
    const char* id;
    const char* ev;
};
a_hist_row_texts hist_load_texts(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, char* copy);

void hist_store_data(a_ut_hist_event_list& queue, a_ut_hist_event& r, const void* block, int64_t length);
bool hist_data_intact(const a_ut_hist_event_list& queue, uint32 data_gen, uint32 data_idx);
const char* hist_load_data(const a_ut_hist_event_list& queue, uint32 data_idx, uint32 len, char* copy);

// Texts are copied by blocks of 16 characters, as the C library's string functions do: a block is read whole when it
// cannot reach into another page, wherever the text ends in it. The sanitizers must not look at that.
#define READS_WHOLE_BLOCKS __attribute__((no_sanitize("address", "thread")))

#ifdef __SANITIZE_THREAD__
#define UNDER_THREAD_SANITIZER 1
#elif defined(__has_feature)
#define UNDER_THREAD_SANITIZER __has_feature(thread_sanitizer)
#else
#define UNDER_THREAD_SANITIZER 0
#endif

void hist_store_long_text(char* dst, const char* src, size_t max);
void hist_store_path_end(char* dst, const char* file);
void hist_store_number(char* dst, const char* id);  // of an id that is no address, or none

READS_WHOLE_BLOCKS inline __m128i load_any(const char* src)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
}

// One store of a vector: the processor keeps each of its words whole and all stores in their order, and the compiler
// moves none over the fences of hist_store_texts. That is what two releasing stores of words say, which cost more; the
// thread sanitizer is shown those.
inline void store_block(char* dst, __m128i block)
{
#if UNDER_THREAD_SANITIZER
    uint64* const to = reinterpret_cast<uint64*>(dst);
    __atomic_store_n(to, uint64(_mm_cvtsi128_si64(block)), __ATOMIC_RELEASE);
    __atomic_store_n(to + 1, uint64(_mm_cvtsi128_si64(_mm_unpackhi_epi64(block, block))), __ATOMIC_RELEASE);
#else
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), block);
#endif
}

// Of a text whose bytes may all be read.
inline void copy_block(char* dst, const char* src) { store_block(dst, load_any(src)); }

inline bool blocks_readable(const char* text, size_t blocks)
{
    constexpr size_t page = 4096;
    return a_ptrint(text) % page <= page - blocks * text_block;
}

// Bit i is set where byte i of the block is NUL.
inline uint32 nuls_of(__m128i block) { return uint32(_mm_movemask_epi8(_mm_cmpeq_epi8(block, _mm_setzero_si128()))); }

// A block of a text that may end before it: at the end of a page byte by byte.
READS_WHOLE_BLOCKS inline __m128i load_block(const char* src)
{
    if (blocks_readable(src, 1)) [[likely]]
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    char bytes[text_block] = {};
    for (size_t i = 0; i < text_block && src[i] != '\0'; i++)
        bytes[i] = src[i];
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// Copies at least what a reader looks at: up to the text's NUL or to character max, where the reader puts one. So a
// text of at most two blocks is copied without a look at its end.
READS_WHOLE_BLOCKS inline void store_text(char* dst, const char* src, size_t max)
{
    if (max >= 2 * text_block || !blocks_readable(src, 2)) [[unlikely]] {
        hist_store_long_text(dst, src, max);
        return;
    }
    copy_block(dst, src);
    if (max >= text_block) [[likely]]
        copy_block(dst + text_block, src + text_block);
}

// Bit i is set where one of two blocks, as one, has a NUL at character i.
READS_WHOLE_BLOCKS inline uint32 nuls_of_two(const char* text)
{
    const __m128i* const blocks = reinterpret_cast<const __m128i*>(text);
    return nuls_of(_mm_loadu_si128(blocks)) | nuls_of(_mm_loadu_si128(blocks + 1)) << text_block;
}

// What stands for a text that is not there; two whole blocks each.
alignas(2 * text_block) inline constexpr char hist_no_file[2 * text_block] = "<no_file>";
alignas(2 * text_block) inline constexpr char hist_no_id[2 * text_block] = "-";
alignas(2 * text_block) inline constexpr char hist_no_ev[2 * text_block] = "?";

// Of a path too long the end tells more than the beginning: of one of less than four blocks it is found here, at once.
// The two blocks of a short name may reach into the id's text, which is stored after it.
inline void store_file(char* dst, const char* file)
{
    if (file == nullptr) [[unlikely]] {
        store_text(dst, hist_no_file, size_t(hist_cfg.hist_max_file_len));
        return;
    }
    if (!blocks_readable(file, 4)) [[unlikely]]
        return hist_store_path_end(dst, file);
    const uint32 nuls = nuls_of_two(file);
    if ((nuls & hist_cfg.file_fits) == 0) {
        const uint64 all = nuls | uint64(nuls_of_two(file + 2 * text_block)) << 2 * text_block;
        if (all == 0 || hist_cfg.file_fits == UINT32_MAX) [[unlikely]]
            return hist_store_path_end(dst, file);
        file += size_t(__builtin_ctzll(all)) - size_t(hist_cfg.hist_max_file_len - 1);
        if (!blocks_readable(file, 2)) [[unlikely]]
            return hist_store_path_end(dst, file);
    }
    copy_block(dst, file);
    copy_block(dst + text_block, file + text_block);
}

inline void hist_store_id(char* dst, const char* id)
{
    if (id == nullptr)
        id = hist_no_id;
    if (a_ptrint(id) < hist_first_address) [[unlikely]]
        hist_store_number(dst, id);
    else
        store_text(dst, id, size_t(hist_cfg.hist_max_id_len));
}

// The texts of a record in copy mode, into its piece of the queue's block.
[[gnu::always_inline]] inline void hist_store_texts(char* dst, const char* file, const char* id, const char* ev)
{
    if (ev == nullptr) [[unlikely]]
        ev = hist_no_ev;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    store_file(dst, file);
    hist_store_id(dst + hist_cfg.id_text_at, id);
    store_text(dst + hist_cfg.ev_text_at, ev, size_t(hist_cfg.hist_max_ev_len));
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

// The same outside copy mode.
inline void hist_store_pointers(a_ut_hist_event& r, const char* file, const char* id, const char* ev)
{
    __atomic_store_n(&r.file, const_cast<char*>(file), __ATOMIC_RELEASE);
    __atomic_store_n(&r.id, a_ut_hist_id(const_cast<char*>(id)), __ATOMIC_RELEASE);
    __atomic_store_n(&r.ev, const_cast<char*>(ev), __ATOMIC_RELEASE);
}
