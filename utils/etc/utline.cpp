// utline.cpp: one line, one write (utline.h). Signal-safe: all of it.
#include "utils/etc/utline.h"

void ut_write_out(void* out, const char* text, size_t len) { static_cast<an_output*>(out)->write(text, len); }

a_line::a_line(an_output& to, int fd, const char* end_of_line, const char* beginning) : out(to)
{
    text.use(buf, sizeof buf, end_of_line);
    text.direct(ut_write_out, &out);
    out.open(fd);
    text.str(beginning);
}

a_line::~a_line()
{
    text.eol();
    text.flush();
    out.close();
}
