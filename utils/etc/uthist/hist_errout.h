// hist_errout.h: the message stream ("errout"), by descriptor alone: standard error or the file of option e, opened at
// the first message by whoever comes first, a signal handler or not.
//
// A line is formatted on its writer's stack and written by one write. Messages are the lines that begin a group with
// the timestamp line; notes are lines of their own that tell what went wrong. Lines of different threads do not mix;
// nothing is locked. Signal-safe: all of it.
#pragma once

#include "utils/etc/utline.h"

inline constexpr const char* stderr_str = "stderr";
inline constexpr size_t hist_name_size = 150;  // of a file name given by an option, the terminating NUL included

// How lines end and files are opened. Set by the options, while nobody else writes.
struct a_hist_streams {
    const char* ut_hist_eol = "\n";
    int32 ut_hist_dump_append = 1;
    const char* ut_hist_dump_err_name = stderr_str;  // becomes stderr_str when the file cannot be opened
    bool err_name_cut = false;                       // the name is not whole: no file is created under it
};
extern a_hist_streams hist_streams;

int hist_open_file(const char* file);  // as fopen with mode "a" or "w" would; -1 and errno on failure

void hist_errout_load();     // while the library loads
void hist_errout_rename();   // the name has been set: it is opened at the next message
int hist_errout();           // the stream's descriptor; opens it first where that is pending
int hist_errout_as_it_is();  // the same, but standard error while it is pending
int hist_stderr();           // standard error; -1 where its number has become another's
const char* hist_errout_name();
void hist_errout_close();
void hist_errout_fork_child();

// The lines of one group, or of one dump, share what they have waited for and given up.
void hist_begin_message(an_output& out);  // the timestamp line
inline a_line hist_line(an_output& out, int fd, const char* begin)
{
    return a_line(out, fd, hist_streams.ut_hist_eol, begin);
}
inline a_line hist_message(an_output& out) { return hist_line(out, hist_errout(), ""); }
inline a_line hist_note(an_output& out, int fd) { return hist_line(out, fd, "** HISTORY note ** "); }

// Diagnostics are told no more once the stream has taken nothing for a second: recording does not stop for it again.
extern bool hist_errout_is_stuck;
void hist_note_stuck(const an_output& out);

// Tells once why the file of option e could not be opened.
void hist_tell_open_error(an_output& out);

// What the error number means.
const char* hist_reason(int error);
