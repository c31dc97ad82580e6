// utfatal.h: reports a fatal error to the system log and to standard output, and returns.
#pragma once

#include <syslog.h>

inline constexpr int SyslogFacility = 8;
static_assert(SyslogFacility == LOG_USER);

void ut_fatal(const char* str);  // null reads as "Unknown error"

// One message to the process-wide system log, which it opens and closes: also a connection of the process's own.
void GenerateErrorLog(const char* log_msg, const char* engine_name);
