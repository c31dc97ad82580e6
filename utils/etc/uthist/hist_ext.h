// hist_ext.h: UT_HIST_EXT, what goes beyond UT_HIST: words separated by commas, each a row of a table. Not signal-safe.
#pragma once

// Reads the variable into the settings, after UT_HIST and UT_HIST_THREAD_SLOT. What cannot be read is told by a note.
void hist_read_ext();
