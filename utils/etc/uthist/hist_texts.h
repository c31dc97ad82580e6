// hist_texts.h: how texts and data blocks lie in the store, and their ways in and out.
//
// Copy mode: file, id and event text of slot 0, then of slot 1, each in whole blocks of 16 characters:
//
//     |file........|id..........|ev..........|file........|...        ev_text_at, text_stride (hist_config.h)
//
// A writer stores whole blocks in order, as store_block says, or words and bytes with release order; a reader loads
// words with acquire order, both between their looks at the record's sequence word (hist_ring.h). What comes along
// behind a text's NUL is never shown.
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

// The room of a text of so many characters.
inline constexpr size_t text_bytes(size_t max_len) { return (max_len + text_block) / text_block * text_block; }

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

void hist_store_long_text(char* dst, const char* src, size_t max);  // null: hist_no_ev
const char* hist_file_elsewhere(const char* file, char* room);      // null: hist_no_file
void hist_store_number(char* dst, const char* id);                  // of an id that is no address, or none

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

// Null is not readable, and a text at the very beginning of a page counts as if it were not: one comparison.
inline bool blocks_readable(const char* text, size_t blocks)
{
    constexpr size_t page = 4096;
    return (a_ptrint(text) - 1) % page < page - blocks * text_block;
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
    if (max >= 2 * text_block || !blocks_readable(src, max >= text_block ? 2 : 1)) [[unlikely]] {
        hist_store_long_text(dst, src, max);
        return;
    }
    copy_block(dst, src);
    if (max >= text_block) [[likely]]
        copy_block(dst + text_block, src + text_block);
}

// What stands for a text that is not there; two whole blocks each.
alignas(2 * text_block) inline constexpr char hist_no_file[2 * text_block] = "<no_file>";
alignas(2 * text_block) inline constexpr char hist_no_id[2 * text_block] = "-";
alignas(2 * text_block) inline constexpr char hist_no_ev[2 * text_block] = "?";

// What is shown of a file text, where two blocks are the most there may be readable to their end: of a path too long
// the end, which tells more than the beginning. In one of less than four blocks it is found here, at once; the others
// may need the room.
READS_WHOLE_BLOCKS inline const char* hist_file_shown(const char* file, char (&room)[2 * text_block], size_t max)
{
    if (max >= 2 * text_block || !blocks_readable(file, 6)) [[unlikely]]
        return hist_file_elsewhere(file, room);
    const __m128i first = load_any(file), second = load_any(file + text_block);
    if (nuls_of(_mm_min_epu8(first, second)) != 0) {
        const uint32 nuls = nuls_of(first) | nuls_of(second) << text_block;
        return (nuls & hist.file_fits) != 0 ? file : file + __builtin_ctz(nuls) - (hist.max_file_len - 1);
    }
    file += 2 * text_block;
    const uint32 nuls = nuls_of(load_any(file)) | nuls_of(load_any(file + text_block)) << text_block;
    if (nuls == 0) [[unlikely]]
        return hist_file_elsewhere(file, room);
    return file + __builtin_ctz(nuls) - (hist.max_file_len - 1);
}

inline void hist_store_id(char* dst, const char* id, size_t max)
{
    if (id == nullptr)
        copy_block(dst, hist_no_id);
    else if (a_ptrint(id) < hist_first_address) [[unlikely]]
        hist_store_number(dst, id);
    else
        store_text(dst, id, max);
}

// The texts of a record in copy mode, the file's as it is shown, into its piece of the queue's block. The two blocks of
// a short name may reach into the id's text, which is stored after it.
[[gnu::always_inline]] inline void hist_store_texts(char* dst, const char* file, const char* id, const char* ev,
                                                    size_t max_file, size_t max_id, size_t max_ev)
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (max_file < 2 * text_block) {
        copy_block(dst, file);
        copy_block(dst + text_block, file + text_block);
    } else {
        store_text(dst, file, max_file);
    }
    dst += hist.id_text_at;
    hist_store_id(dst, id, max_id);
    store_text(dst + text_bytes(max_id), ev, max_ev);
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

// The same outside copy mode.
inline void hist_store_pointers(a_ut_hist_event& r, const char* file, const char* id, const char* ev)
{
    __atomic_store_n(&r.file, const_cast<char*>(file), __ATOMIC_RELEASE);
    __atomic_store_n(&r.id, a_ut_hist_id(const_cast<char*>(id)), __ATOMIC_RELEASE);
    __atomic_store_n(&r.ev, const_cast<char*>(ev), __ATOMIC_RELEASE);
}
