// hist_header.h: the header that makes the store an image for readers from outside (corvex/hist_image.h describes it),
// and what it says of the process. Not signal-safe, but what says so.
#pragma once

void hist_header_fill();        // of a store that has just been mapped, but for its sections and its magic
void hist_header_publish();     // the store is whole: its magic, and the exported pointer. Signal-safe.
void hist_header_zone();        // the zone table as it is now. Signal-safe.
void hist_header_fork_child();  // in the child's own store. Signal-safe.
