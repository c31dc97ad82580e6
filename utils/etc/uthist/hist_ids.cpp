// hist_ids.cpp: the id registry's one operation, ut_hist_id_alloc.
//
// The registry only grows while the history runs, so an index stays valid; an entry below hist_num_ids never
// changes but for its timer lists, which have locks of their own. Lock: hist_ids_mutex, alone. Nothing here
// is signal-safe.
#include <string.h>

#include "utils/etc/uthist/hist_config.h"
#include "utils/utmem/utmem.h"

namespace {

// Not signal-safe: it allocates.
char* copy_text(const char* text)
{
    const size_t size = strlen(text) + 1;
    char* copy = static_cast<char*>(ut_calloc(size));
    if (copy != nullptr)
        memcpy(copy, text, size);
    return copy;
}

// Gives back what a half-filled entry got.
// Not signal-safe: it frees.
bool drop_entry(a_ut_hist_id_data& entry)
{
    for (a_ut_hist_timer_list& list : entry.by_key)
        ut_safe_pthread_mutex_destroy(&list.mutex);
    ut_free(entry.file);
    ut_free(entry.desc);
    entry = {};
    return false;
}

// Fills the next free entry; false when its description or a lock cannot be had.
// Not signal-safe: it allocates.
bool fill_entry(a_ut_hist_id_data& entry, const char* file, uint32 line, const char* desc)
{
    entry.desc = copy_text(desc);
    if (entry.desc == nullptr)
        return false;
    entry.file = file != nullptr ? copy_text(file) : nullptr;
    entry.line = line;
    for (a_ut_hist_timer_list& list : entry.by_key)
        if (ut_safe_pthread_mutex_init(&list.mutex, nullptr) != 0)
            return drop_entry(entry);
    return true;
}

}  // namespace

// Not signal-safe: it allocates and locks.
a_ut_hist_id ut_hist_id_alloc(const char* file, uint32 line, const char* desc)
{
    a_ut_hist_id id = const_cast<char*>(desc);
    const a_hist_user user;
    if (!__atomic_load_n(&hist.hist_initialized, __ATOMIC_ACQUIRE) || !user.has_store() || hist.hist_ids == nullptr)
        return id;
    const a_hist_lock lock(&hist.hist_ids_mutex);
    const int32 index = hist.hist_num_ids;
    if (index < hist_cfg.ut_hist_debug_knum && fill_entry(hist.hist_ids[index], file, line, desc)) {
        id = a_ut_hist_id(a_ptrint(index));
        // Release: who sees the new count sees the entry.
        __atomic_store_n(&hist.hist_num_ids, index + 1, __ATOMIC_RELEASE);
    }
    return id;
}
