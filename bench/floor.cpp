// floor.cpp: the hand-written recorder. Out of line, as any recorder of a library is; nothing in it is optional.
#include "bench/floor.h"

#include <string.h>
#include <sys/time.h>

namespace {

// In whole blocks of 16 characters, copied without a look at what they hold.
constexpr size_t file_bytes = 32, id_bytes = 16, ev_bytes = 32, slot_text_len = file_bytes + id_bytes + ev_bytes;

alignas(cache_line) uint32 event_number = 0;

}  // namespace

void hand_ring_init(a_hand_ring& ring, uint32 thread, bool copies)
{
    ring.next = 0;
    ring.thread = thread;
    ring.wrapped = false;
    ring.events = std::make_unique<a_ut_hist_event[]>(ring_size);
    ring.texts = copies ? std::make_unique<char[]>(ring_size * slot_text_len) : nullptr;
    for (uint32 n = 0; copies && n < ring_size; n++) {
        a_ut_hist_event& r = ring.events[n];
        r.file = ring.texts.get() + n * slot_text_len;
        r.id = r.file + file_bytes;
        r.ev = r.file + file_bytes + id_bytes;
    }
}

template <bool locked, bool copies>
[[gnu::noinline]] void hand_add(a_hand_ring& ring, const char* file, uint32 line, int32 cl, const char* id,
                                const char* ev, int32 pn, void* p1, void* p2, void* p3, void* p4)
{
    if constexpr (locked)
        pthread_mutex_lock(&ring.mutex);
    a_ut_hist_event& r = ring.events[ring.next];
    gettimeofday(reinterpret_cast<struct timeval*>(&r.time_of_day), nullptr);
    if constexpr (copies) {
        char* const texts = ring.texts.get() + ring.next * slot_text_len;
        memcpy(texts, file, file_bytes);
        memcpy(texts + file_bytes, id, id_bytes);
        memcpy(texts + file_bytes + id_bytes, ev, ev_bytes);
    } else {
        r.file = const_cast<char*>(file);
        r.id = const_cast<char*>(id);
        r.ev = const_cast<char*>(ev);
    }
    r.line = line;
    r.num = __atomic_add_fetch(&event_number, 1u, __ATOMIC_RELAXED);
    r.thread = ring.thread;
    r.dur = hist_no_dur;
    r.cl = cl;
    r.pn = pn;
    r.p[0] = p1;
    r.p[1] = p2;
    r.p[2] = p3;
    r.p[3] = p4;
    if (++ring.next == ring_size) {
        ring.next = 0;
        ring.wrapped = true;
    }
    if constexpr (locked)
        pthread_mutex_unlock(&ring.mutex);
}

template void hand_add<false, false>(a_hand_ring&, const char*, uint32, int32, const char*, const char*, int32, void*,
                                     void*, void*, void*);
template void hand_add<false, true>(a_hand_ring&, const char*, uint32, int32, const char*, const char*, int32, void*,
                                    void*, void*, void*);
template void hand_add<true, false>(a_hand_ring&, const char*, uint32, int32, const char*, const char*, int32, void*,
                                    void*, void*, void*);
template void hand_add<true, true>(a_hand_ring&, const char*, uint32, int32, const char*, const char*, int32, void*,
                                   void*, void*, void*);
