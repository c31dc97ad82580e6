// utline.h: one line of a text report: formatted on its writer's stack and written by one write, so that lines of
// different threads do not mix. Signal-safe: all of it.
#pragma once

#include "utils/etc/uttext.h"
#include "utils/unix/unixout.h"

// Written at the end of the scope. Lines that share an output share what they have waited for and given up.
class a_line {
public:
    a_line(an_output& to, int fd, const char* end_of_line, const char* beginning = "");
    ~a_line();
    a_line& operator=(a_line&&) = delete;  // nor copies

    a_text text;

private:
    an_output& out;
    char buf[512];  // what is longer is written in pieces
};

void ut_write_out(void* out, const char* text, size_t len);  // a formatter's sink: an an_output
