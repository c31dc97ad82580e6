// hist_fork.cpp: copies what has been used of the store in a forked child (see hist_fork.h). The parent's other threads
// go on writing what is read here: of the rings those records are taken that stand whole where the ring's position has
// them, and of the data what no later block has overwritten. Memory that was never used is left as it comes: as zeros.
//
// The copy is made elsewhere and then moved to where the store was, by one call, so that nothing ever points to a hole.
// Until then the process's words say that the history is not its own (hist_store.h), so that signal handlers stay away.
// Signal-safe: all of it.
#include "utils/etc/uthist/hist_fork.h"

#include <string.h>
#include <sys/mman.h>

#include "utils/etc/uthist/hist_file.h"
#include "utils/etc/uthist/hist_header.h"
#include "utils/etc/uthist/hist_ring.h"
#include "utils/etc/uthist/hist_slots.h"

namespace {

char* copies_at;  // where the copy is being made

template <typename T>
T* copy_of(T* original)
{
    return reinterpret_cast<T*>(copies_at + (reinterpret_cast<char*>(original) - static_cast<char*>(hist.mapping)));
}

// By whole words: no section ends in the middle of one.
void copy(const void* original, size_t bytes)
{
    char* const from = static_cast<char*>(const_cast<void*>(original));
    hist_load_words(copy_of(from), from, (bytes + 7) / 8 * 8);
}

char* section(uint32 i) { return static_cast<char*>(hist.mapping) + hist.image->sections[i].at; }
void copy_section(uint32 i) { copy(section(i), hist.image->sections[i].bytes); }

// A record that is changed meanwhile, or was made after the fork, is left out.
void copy_record(const a_ut_hist_event_list& queue, size_t i, uint32 seq)
{
    a_ut_hist_event& r = queue.evs[i];
    copy_of(&r)->seq = seq_writing(0);
    if (__atomic_load_n(&r.seq, __ATOMIC_ACQUIRE) != seq ||
        int32(__atomic_load_n(&r.num, __ATOMIC_ACQUIRE) - hist.hist_count) > 0)
        return;
    copy(&r, sizeof r);
    copy(queue.texts + i * hist_cfg.text_stride, hist_cfg.text_stride);
    // Relaxed: the acquire loads above keep this one behind them.
    if (__atomic_load_n(&r.seq, __ATOMIC_RELAXED) != seq)
        copy_of(&r)->seq = seq_writing(0);
}

void copy_queue(a_ut_hist_event_list& queue)
{
    a_ut_hist_event_list& copied = *copy_of(&queue);
    copy(&queue, sizeof queue);
    const a_ring_pos at = unpack_ring(copied.ring_pos);
    // The oldest first: the parent overwrites them first.
    for (size_t i = at.next; at.wrapped() && i < size_t(hist_cfg.ut_hist_debug_num); i++)
        copy_record(queue, i, seq_whole(at.laps - 1));
    for (size_t i = 0; i < at.next; i++)
        copy_record(queue, i, seq_whole(at.laps));
    const a_data_pos data = unpack_data(copied.data_pos);
    if (queue.data_buf != nullptr)
        copy(queue.data_buf, data.data_gen > 1 ? hist.image->data_size : data.data_fil);
    // A block is copied after the position has moved: what is new in the copy lies before where that is now.
    copied.data_pos = __atomic_load_n(&queue.data_pos, __ATOMIC_ACQUIRE);
}

// The parent may have timed events meanwhile up to ids that the forking thread did not know of. What follows the last
// timer is as it was mapped.
void drop_unknown(a_ut_hist_timer_list& list, int32 ids)
{
    int32 kept = 0;
    for (int32 i = 0; i < list.num && i < int32(hist_max_timers); i++)
        if (list.ids[i].id < ids)
            list.ids[kept++] = list.ids[i];
    list.num = kept;
    memset(list.ids + kept, '\0', (hist_max_timers - size_t(kept)) * sizeof *list.ids);
}

// As many ids as the forking thread knew of.
void copy_ids()
{
    if (hist.hist_ids == nullptr)
        return;
    const size_t ids = size_t(hist.hist_num_ids);
    copy(hist.hist_ids, ids * sizeof *hist.hist_ids);
    copy(section(UT_HIST_ID_TEXTS), size_t(hist.id_texts - section(UT_HIST_ID_TEXTS)));
    copy(hist.timers, ids * K_LAST * sizeof *hist.timers);
    for (size_t i = 0; i < ids * K_LAST; i++)
        drop_unknown(copy_of(hist.timers)[i], int32(ids));
    copy_of(hist.live)->ids = uint32(ids);
}

void copy_threads()
{
    const uint32 end = copy_of(hist.live)->slots_end;
    const uint32 first =
        hist.num_threads < hist_handle_slots ? hist.num_threads : hist_handle_slots;  // filled at start
    copy(hist.threads, (end > first ? end : first) * sizeof *hist.threads);
    if (hist.views != nullptr)
        copy(hist.views, end * hist.view_stride);
}

void copy_used()
{
    copy(&hist.image->version, sizeof *hist.image - offsetof(a_ut_hist_image, version));  // the magic comes last
    for (int32 q = 0; q < hist_cfg.hist_num_q; q++)
        copy_queue(hist.hist_evs[q]);
    constexpr uint32 whole[] = {UT_HIST_ZONE, UT_HIST_SETTINGS, UT_HIST_LIVE, UT_HIST_TAKEN};
    for (const uint32 i : whole)
        copy_section(i);
    copy_ids();
    copy_threads();
    copy_of(hist.live)->state = hist.hist_initialized ? UT_HIST_IMAGE_RUNS : UT_HIST_IMAGE_ENDED;
}

}  // namespace

bool hist_fork_child_store()
{
    const bool shares = hist_file_is_mapped();
    hist_file_forget();
    if (!shares || hist.mapping == nullptr)
        return true;
    copies_at = static_cast<char*>(hist_file_map_child(hist.mapped_bytes));
    if (copies_at == nullptr)
        return false;
    copy_used();
    if (mremap(copies_at, hist.mapped_bytes, hist.mapped_bytes, MREMAP_MAYMOVE | MREMAP_FIXED, hist.mapping) ==
        MAP_FAILED)
        return false;
    if (!hist_file_is_mapped())
        hist.words = &hist.plain;
    hist.words->own = true;
    hist_set_running(hist.hist_initialized);
    return true;
}
