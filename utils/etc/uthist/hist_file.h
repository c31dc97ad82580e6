// hist_file.h: the history file (UT_HIST_EXT=file=<pattern>): its name, the mapping of it that the store is made in,
// and its end.
//
// A file is made under a name that is free, gets its disk space before it is mapped, and is never made larger or
// smaller after that: no store to it raises a signal. Who holds it is told by its header (hist_process.h). It is
// removed by the process that made it, at its clean exit, and by a start-up with the same pattern once that
// process is dead, as one of the older ones. Not signal-safe, but what says so.
#pragma once

#include "utils/etc/uthist/hist_config.h"

struct a_hist_range {
    size_t from, to;
};
struct a_hist_used {
    a_hist_range ranges[2];  // of a mapping, which have to be present from the start
};
void hist_touch(void* mapping, const a_hist_used& used);

bool hist_file_is_pattern(const char* text);

// Makes the file and maps it; removes files of dead processes first. Null where none is asked for, and where none can
// be had, which is told by a note.
void* hist_file_map(size_t bytes, const a_hist_used& used);
// A page that a forked child finds wiped, once a file has been asked for; it stays when the library goes, since a
// thread may be looking at it then.
void* hist_file_wiped_page();

const char* hist_file_name();  // empty without a file. Signal-safe.
bool hist_file_is_mapped();    // the store is in a file. Signal-safe.
void hist_file_end();          // removes the file, unless it is to be kept. Signal-safe.
void hist_file_forget();       // the file is not this process's, or not its present store's. Signal-safe.

// In a forked child, which has forgotten its parent's file: a mapping of its own, with a file if the pattern tells
// processes apart, else, and where none can be had, without. Null when memory is short. Signal-safe.
void* hist_file_map_child(size_t bytes);
