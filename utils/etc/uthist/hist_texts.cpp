// hist_texts.cpp: the layout of texts, and those copies of texts and data blocks that are not inlined into the recorder
// (hist_texts.h draws the layout). Signal-safe: all of it, but hist_lay_out_texts runs in start-up.
#include "utils/etc/uthist/hist_texts.h"

#include <string.h>

namespace {

// Copies a data block. Release, so that a reader of any of these bytes sees the ring's position that was stored before
// them: vectors keep their order, as store_block says. The last may overlap the one before it.
void store_bytes(char* dst, const char* src, size_t len)
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (len < text_block || UNDER_THREAD_SANITIZER) {
        for (size_t i = 0; i < len; i++)
            __atomic_store_n(dst + i, src[i], __ATOMIC_RELEASE);
        return;
    }
    const auto block = [](const char* at) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at)); };
    for (size_t i = 0; i < len - text_block; i += text_block)
        store_block(dst + i, block(src + i));
    store_block(dst + len - text_block, block(src + len - text_block));
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace

void hist_load_words(char* dst, const char* src, size_t bytes)
{
    for (size_t i = 0; i < bytes; i += 8) {
        const uint64 word = __atomic_load_n(reinterpret_cast<const uint64*>(src + i), __ATOMIC_ACQUIRE);
        memcpy(dst + i, &word, 8);
    }
}

void hist_lay_out_texts()
{
    const size_t file = text_bytes(size_t(hist_cfg.hist_max_file_len)),
                 id = text_bytes(size_t(hist_cfg.hist_max_id_len));
    hist_cfg.id_text_at = file;
    hist_cfg.ev_text_at = file + id;
    hist_cfg.text_stride = file + id + text_bytes(size_t(hist_cfg.hist_max_ev_len));
    hist.text_stride = hist_cfg.text_stride;
    hist.id_text_at = uint32(file);
    hist.max_file_len = uint32(hist_cfg.hist_max_file_len);
    hist.file_fits = hist.max_file_len < 2 * text_block ? (1u << hist.max_file_len) - 1 : UINT32_MAX;
}

size_t hist_row_texts_bytes() { return hist_cfg.copies ? hist_cfg.text_stride : 0; }

__attribute__((noinline, cold)) const char* hist_id_text(const char* id, char (&buf)[2 * text_block])
{
    if (id == nullptr || id == hist_absent_id)
        return hist_no_id;
    if (a_ptrint(id) >= hist_first_address)
        return id;
    memset(buf, '\0', sizeof buf);
    buf[0] = '#';
    char* at = buf + 1;
    for (a_ptrint rest = a_ptrint(id); rest >= 10; rest /= 10)
        at++;
    for (a_ptrint rest = a_ptrint(id); *at != '#'; rest /= 10)
        *at-- = char('0' + rest % 10);
    return buf;
}

// Copies a text block by block until one holds its NUL.
READS_WHOLE_BLOCKS __attribute__((noinline)) void hist_store_long_text(char* dst, const char* src, size_t max)
{
    if (src == nullptr)
        src = hist_no_ev;
    for (size_t at = 0; at < max; at += text_block) {
        const __m128i block = load_block(src + at);
        store_block(dst + at, block);
        if (nuls_of(block) != 0)
            break;
    }
}

__attribute__((noinline, cold)) void hist_store_number(char* dst, const char* id)
{
    char number[2 * text_block];
    store_text(dst, hist_id_text(id, number), size_t(hist_cfg.hist_max_id_len));
}

// The end of a path too long. Of less than two blocks it is copied into the room, which can be read to its end.
__attribute__((noinline)) const char* hist_file_elsewhere(const char* file, char* room)
{
    if (file == nullptr)
        return hist_no_file;
    const size_t len = strlen(file), max = hist.max_file_len;
    const char* const shown = len < max ? file : file + len - (max - 1);
    return max < 2 * text_block ? strncpy(room, shown, 2 * text_block) : shown;
}

// In copy mode the texts go to `copy`, where they are ended: the recorder ends none that is too long.
a_hist_row_texts hist_load_texts(const a_ut_hist_event_list& queue, const a_ut_hist_event& r, char* copy)
{
    if (queue.texts == nullptr)
        return {__atomic_load_n(&r.file, __ATOMIC_ACQUIRE),
                static_cast<const char*>(__atomic_load_n(&r.id, __ATOMIC_ACQUIRE)),
                __atomic_load_n(&r.ev, __ATOMIC_ACQUIRE)};
    const a_ut_hist_settings& cfg = *hist.cfg;
    hist_load_words(copy, queue.texts + size_t(&r - queue.evs) * cfg.text_stride, cfg.text_stride);
    char *const id = copy + cfg.id_text_at, *const ev = copy + cfg.ev_text_at;
    copy[cfg.hist_max_file_len] = id[cfg.hist_max_id_len] = ev[cfg.hist_max_ev_len] = '\0';
    return {copy, id, ev};
}

// Stores the block of a data event and notes in the record where it lies; generation 0 where there is none. Only
// records of this class are asked for it.
__attribute__((noinline)) void hist_store_data(a_ut_hist_event_list& queue, a_ut_hist_event& r, const void* block,
                                               int64_t length)
{
    __atomic_store_n(&r.data_gen, 0u, __ATOMIC_RELEASE);
    __atomic_store_n(&r.data_idx, 0u, __ATOMIC_RELEASE);
    if (block == nullptr || length <= 0 || queue.data_buf == nullptr)
        return;
    const uint32 size = uint32(hist_cfg.ut_hist_debug_data_size);
    const uint32 len = uint64(length) > size ? size : uint32(length);
    // Relaxed: only this writer moves the position.
    a_data_pos at = unpack_data(__atomic_load_n(&queue.data_pos, __ATOMIC_RELAXED));
    if (size - len < at.data_fil)
        at = {at.data_gen + 1, 0};
    __atomic_store_n(&r.data_gen, at.data_gen, __ATOMIC_RELEASE);
    __atomic_store_n(&r.data_idx, at.data_fil, __ATOMIC_RELEASE);
    __atomic_store_n(&queue.data_pos, pack_data({at.data_gen, at.data_fil + len}), __ATOMIC_RELAXED);
    store_bytes(queue.data_buf + at.data_fil, static_cast<const char*>(block), len);
}

bool hist_data_intact(const a_ut_hist_event_list& queue, uint32 data_gen, uint32 data_idx)
{
    // Acquire on one word: generation and fill offset of one moment.
    const a_data_pos at = unpack_data(__atomic_load_n(&queue.data_pos, __ATOMIC_ACQUIRE));
    return data_gen == at.data_gen || (data_gen == at.data_gen - 1 && data_idx >= at.data_fil);
}

// Copies len bytes at data_idx out of the ring, by whole words; gives where they stand. The ring has room for the last
// word beyond its end, and so has the copy.
const char* hist_load_data(const a_ut_hist_event_list& queue, uint32 data_idx, uint32 len, char* copy)
{
    const uint32 start = data_idx & ~7u;
    hist_load_words(copy, queue.data_buf + start, (size_t(data_idx) + len - start + 7) & ~7ull);
    return copy + (data_idx - start);
}
