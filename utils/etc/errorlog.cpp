// errorlog.cpp: opens the process-wide system log, writes one message, closes it: a connection that the
// process had opened itself is closed too. No lock. Not signal-safe.
#include "utils/etc/errorlog.h"

void GenerateErrorLog(const char* log_msg, const char* engine_name)
{
    openlog(engine_name, 0, SyslogFacility);
    syslog(LOG_ERR, "%s", log_msg);
    closelog();
}
