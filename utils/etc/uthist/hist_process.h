// hist_process.h: which process an image is of: what its header says of that, and whether the process still lives; and
// the image's magic. By plain system calls, since a forked child needs it. Signal-safe: all of it.
#pragma once

#include "corvex/hist_image.h"

void hist_process_fill(a_ut_hist_image& image);  // of the calling process

// Boot and pid namespace of the calling process; empty and 0 where they are not known.
struct a_hist_system {
    char boot_id[sizeof a_ut_hist_image::boot_id];
    uint64 pid_namespace;
};
void hist_find_system(a_hist_system& here);

// Whether the image's process has surely ended: it was of the same boot and pid namespace, and its pid has gone or is
// another process's.
bool hist_process_is_dead(const a_ut_hist_image& image, const a_hist_system& here);

void hist_put_magic(a_ut_hist_image& image);  // release: who finds it finds what was written before
bool hist_has_magic(const a_ut_hist_image& image);
