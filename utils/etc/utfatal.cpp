// utfatal.cpp: the fatal-error report. The process goes on; the caller handles the failed operation, and may hold a
// lock meanwhile. Where standard output takes nothing it waits, as any printf. Not signal-safe.
#include "utils/etc/utfatal.h"

#include <stdio.h>

#include "utils/etc/utcancel.h"
#include "utils/unix/unixout.h"

void GenerateErrorLog(const char* log_msg, const char* engine_name)
{
    openlog(engine_name, 0, SyslogFacility);
    syslog(LOG_ERR, "%s", log_msg);
    closelog();
}

void ut_fatal(const char* str)
{
    const an_uncancelled_scope uncancelled;
    const a_quiet_scope quiet;
    const char* message = str != nullptr ? str : "Unknown error";
    GenerateErrorLog(message, "Tessaline");
    printf("%s\n", message);
}
