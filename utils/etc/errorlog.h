// errorlog.h: one message to the system log.
#ifndef ETC_ERRORLOG_H
#define ETC_ERRORLOG_H

#include <syslog.h>

inline constexpr int SyslogFacility = 8;
static_assert(SyslogFacility == LOG_USER);

void GenerateErrorLog(const char* log_msg, const char* engine_name);

#endif
