// hist_threads.h: what each thread does now: its newest event and its open spans, kept in the view of its slot, and the
// thread table behind a dump (UT_HIST_EXT=tables). Nothing is looked up in the rings: a thread that hangs is shown
// however much the others have recorded since.
//
// A view lies in the store:  |a_hist_view|id|event|id of span 0|id of span 1|...   texts in copy mode, in whole blocks
//
// Its sequence word is odd while the slot's thread changes it; a reader takes the word, the view and the word again.
// All fields are stored with release and loaded with acquire order, as in the rings. Signal-safe: all of it.
#pragma once

#include "utils/etc/uthist/hist_texts.h"
#include "utils/etc/uttext.h"

void hist_see_event(uint32 t, int32 cl, a_ut_hist_id id, const char* id_text, const char* ev, a_ut_hist_loc* loc,
                    const struct timeval& now);
void hist_views_fork_child();

void hist_put_threads(a_text& out, char* copy);  // the table; `copy` has room for one view
