// floor.h: the floor, the history's record written by hand: same record layout, ring size and stores; a lock or none,
// text copies or none. What the history does beyond it (routing, re-entry guard, durations, torn-row detection)
// is what the ratio to the floor shows.
#ifndef BENCH_FLOOR_H
#define BENCH_FLOOR_H

#include <pthread.h>

#include <memory>

#include "utils/etc/uthist/hist_store.h"

inline constexpr uint32 ring_size = 2000;  // of the floor, of every peer and of the history itself

struct alignas(cache_line) a_hand_ring {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    uint32 next = 0;
    uint32 thread = 0;
    bool wrapped = false;
    std::unique_ptr<a_ut_hist_event[]> events;
    std::unique_ptr<char[]> texts;  // copy mode: what the records' text pointers point into
};

// An empty ring whose memory has been touched; copies: its records own text buffers.
void hand_ring_init(a_hand_ring& ring, uint32 thread, bool copies);

// Records one event of four parameters.
template <bool locked, bool copies>
void hand_add(a_hand_ring& ring, const char* file, uint32 line, int32 cl, const char* id, const char* ev, int32 pn,
              void* p1, void* p2, void* p3, void* p4);

#endif
