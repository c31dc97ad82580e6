// hist_ids.cpp: the id registry's one operation, ut_hist_id_alloc.
//
// The registry only grows while the history runs, so an index stays valid; an entry below hist_num_ids never changes
// but for its timer lists, which have locks of their own. Lock: hist_ids_mutex, alone. Nothing here is signal-safe.
#include <string.h>

#include "utils/etc/uthist/hist_store.h"

namespace {

// Room for a text that is longer than its place: in the store, where readers from outside find it, while there is any.
char* long_text_room(size_t bytes)
{
    if (bytes > size_t(hist.id_texts_end - hist.id_texts))
        return static_cast<char*>(ut_calloc(bytes));
    char* const room = hist.id_texts;
    hist.id_texts += bytes;
    return room;
}

// Copies the text into its place, or elsewhere when it is longer: the place then holds its beginning. False when memory
// is short, with no text kept.
bool keep_text(char*& kept, char* place, size_t size, const char* text)
{
    const size_t len = strlen(text);
    char* const room = len < size ? place : long_text_room(len + 1);
    memcpy(place, text, len < size ? len + 1 : size);
    if (room != nullptr)
        memcpy(room, text, len + 1);
    kept = room;
    return room != nullptr;
}

// Gives back what a half-filled entry got.
bool drop_entry(a_ut_hist_id_data& entry, int32 index)
{
    for (int32 key = 0; key < K_LAST; key++)
        ut_safe_pthread_mutex_destroy(&hist_by_key(index, key).mutex);
    hist_release_id_texts(entry);
    return false;
}

// Fills the next free entry; false when its description or a lock cannot be had.
bool fill_entry(int32 index, const char* file, uint32 line, const char* desc)
{
    a_ut_hist_id_data& entry = hist.hist_ids[index];
    if (!keep_text(entry.desc, entry.desc_place, sizeof entry.desc_place, desc))
        return false;
    entry.file = nullptr;
    if (file != nullptr)
        keep_text(entry.file, entry.file_place, sizeof entry.file_place, file);
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
    if (!hist_runs() || !user.has_store() || hist.hist_ids == nullptr)
        return id;
    const a_safe_lock lock(hist.hist_ids_mutex);
    const int32 index = hist.hist_num_ids;
    if (index < hist_cfg.ut_hist_debug_knum && fill_entry(index, file, line, desc)) {
        id = a_ut_hist_id(a_ptrint(index));
        // Release: who sees the new count sees the entry.
        __atomic_store_n(&hist.hist_num_ids, index + 1, __ATOMIC_RELEASE);
        __atomic_store_n(&hist.live->ids, uint32(index + 1), __ATOMIC_RELEASE);
    }
    return id;
}
