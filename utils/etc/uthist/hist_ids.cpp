// hist_ids.cpp: the id registry's one operation, ut_hist_id_alloc.
//
// The registry only grows while the history runs, so an index stays valid; an entry below hist_num_ids never changes
// but for its timer lists, which have locks of their own. Lock: hist_ids_mutex, alone. Nothing here is signal-safe.
#include <string.h>

#include "utils/etc/uthist/hist_store.h"

namespace {

// Copies the text into its place, or outside when it is longer: the place then holds its beginning. False when memory
// is short, with no text kept.
template <size_t size>
bool keep_text(a_hist_kept_text<size>& kept, const char* text)
{
    const size_t len = strlen(text);
    kept.text = len < size ? kept.place : static_cast<char*>(ut_calloc(len + 1));
    memcpy(kept.place, text, len < size ? len + 1 : size);
    if (kept.text != nullptr && kept.text != kept.place)
        memcpy(kept.text, text, len);
    return kept.text != nullptr;
}

// Gives back what a half-filled entry got.
bool drop_entry(a_ut_hist_id_data& entry, int32 index)
{
    for (int32 key = 0; key < K_LAST; key++)
        ut_safe_pthread_mutex_destroy(&hist_by_key(index, key).mutex);
    entry.file.release();
    entry.desc.release();
    return false;
}

// Fills the next free entry; false when its description or a lock cannot be had.
bool fill_entry(int32 index, const char* file, uint32 line, const char* desc)
{
    a_ut_hist_id_data& entry = hist.hist_ids[index];
    if (!keep_text(entry.desc, desc))
        return false;
    entry.file.text = nullptr;
    if (file != nullptr)
        keep_text(entry.file, file);
    entry.line = line;
    for (int32 key = 0; key < K_LAST; key++)
        if (ut_safe_pthread_mutex_init(&hist_by_key(index, key).mutex, nullptr) != 0)
            return drop_entry(entry, index);
    return true;
}

}  // namespace

a_ut_hist_id ut_hist_id_alloc(const char* file, uint32 line, const char* desc)
{
    a_ut_hist_id id = const_cast<char*>(desc);
    const a_hist_user user;
    if (!__atomic_load_n(&hist.hist_initialized, __ATOMIC_ACQUIRE) || !user.has_store() || hist.hist_ids == nullptr)
        return id;
    const a_safe_lock lock(&hist.hist_ids_mutex);
    const int32 index = hist.hist_num_ids;
    if (index < hist_cfg.ut_hist_debug_knum && fill_entry(index, file, line, desc)) {
        id = a_ut_hist_id(a_ptrint(index));
        // Release: who sees the new count sees the entry.
        __atomic_store_n(&hist.hist_num_ids, index + 1, __ATOMIC_RELEASE);
    }
    return id;
}
