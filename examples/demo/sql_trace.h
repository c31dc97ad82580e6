/* sql_trace: every SQL statement of a connection, traced into the event history.
 *
 * SQLite calls a hook when a statement starts and when it ends. The hook records a BEG event, the SQL text as
 * a data block, and an END event. Each kind of statement (insert, select, ...) has an id of its own, so that
 * the statistics of the dump tell the kinds apart; a connection runs one statement at a time, so one location
 * times them all. */
#ifndef DEMO_SQL_TRACE_H
#define DEMO_SQL_TRACE_H

#include <sqlite3.h>

#include "corvex/hist.h"

/* What the trace keeps per connection. It belongs to the connection's thread and outlives the sqlite3 handle.
 */
struct a_statement_trace {
    long connection;                         // shown as the first parameter of each row
    a_ut_hist_loc begin = UT_HIST_LOC_INIT;  // the BEG event of the running statement
    a_ut_hist_id kind = UT_HIST_ID_NONE;     // its kind
};

/* Registers the ids of all kinds of statements. Call it once, before the first connection is traced. */
void register_statement_kinds();

/* From now on each statement of db is recorded under trace. */
void trace_statements(sqlite3* db, a_statement_trace& trace);

/* Records the failure that db has just reported: its text, and the statement with its values filled in. sql
 * is the text of the statement; failed is null when it could not even be prepared. */
void record_failure(sqlite3* db, const a_statement_trace& trace, const char* sql, sqlite3_stmt* failed);

#endif
