// utcrashreport.h: the record of what the process died of, the report of it, and further lines on what the handler was
// at. Settings are read where handlers are installed. Signal-safe: all of it, but what says otherwise.
#pragma once

#include "corvex/crash.h"
#include "utils/unix/utcrashguard.h"

// Reads ZT_CRASH_REPORT. Not signal-safe: it looks at the zone and takes the unwinder's first use.
void ut_report_configure();
bool ut_reports(const a_crash_hooks* hooks);  // whether a crash is reported

// True for the first signal that ends the process: who keeps the record writes the report.
bool ut_keep_record(const an_onsig_call& call);

void ut_report_program();  // looks where the program is; for reports and notes
void ut_write_report(a_crash& crash);
void ut_note_fault(a_crash& crash);  // the part that runs has faulted
void ut_note_limit(a_crash& crash);  // the part that runs has reached the limit
