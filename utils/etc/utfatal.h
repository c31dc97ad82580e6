// utfatal.h: reports a fatal error to the system log and to standard output, and returns.
#ifndef ETC_UTFATAL_H
#define ETC_UTFATAL_H

void ut_fatal(const char* str);  // null reads as "Unknown error"

#endif
