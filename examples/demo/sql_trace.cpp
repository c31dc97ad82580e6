/* sql_trace.cpp: the hook between SQLite's trace interface and the event history.
 *
 * The hook stays installed while the history is off: it then returns after one test of a flag, and events can
 * be switched on in a running server. */
#include "sql_trace.h"

#include <cstring>
#include <iterator>
#include <strings.h>

namespace {

struct a_kind {
    const char* verb;  // first word of the statement; also the id's text in the dump
    a_ut_hist_id id;
};

/* Written by register_statement_kinds only, before any thread starts. The last row takes what no other took.
 */
a_kind kinds[] = {
    {"insert", UT_HIST_ID_NONE}, {"select", UT_HIST_ID_NONE},   {"update", UT_HIST_ID_NONE}, {"begin", UT_HIST_ID_NONE},
    {"commit", UT_HIST_ID_NONE}, {"rollback", UT_HIST_ID_NONE}, {"create", UT_HIST_ID_NONE}, {"other", UT_HIST_ID_NONE},
};
a_ut_hist_id failure = UT_HIST_ID_NONE;

a_ut_hist_id kind_of(const char* sql)
{
    const a_kind* kind = kinds;
    while (kind != std::end(kinds) - 1 && strncasecmp(sql, kind->verb, strlen(kind->verb)) != 0)
        kind++;
    return kind->id;
}

void statement_begins(a_statement_trace& trace, sqlite3_stmt* statement)
{
    const char* sql = sqlite3_sql(statement);
    trace.kind = kind_of(sql);
    /* A fresh location: the time since the previous statement's end says nothing about this one. */
    trace.begin = UT_HIST_LOC_INIT;
    UT_HIST_BEG(&trace.begin, trace.kind, "starts", trace.connection);
    /* A text id keeps the block out of the statistics: BEG is followed by END there. */
    UT_HIST_DATA(UT_HIST_ID_TEXT("sql"), "text", sql, strlen(sql));
}

void statement_ends(a_statement_trace& trace, sqlite3_stmt* statement)
{
    long steps = sqlite3_stmt_status(statement, SQLITE_STMTSTATUS_VM_STEP, 1);
    UT_HIST_END(&trace.begin, trace.kind, "ends", trace.connection, steps);
}

/* Called by SQLite on the connection's own thread. Its result is reserved and must be 0. */
int on_trace(unsigned what, void* trace, void* statement, void*)
{
    if (!ut_hist_is_on())
        return 0;
    auto& of_connection = *static_cast<a_statement_trace*>(trace);
    if (what == SQLITE_TRACE_STMT)
        statement_begins(of_connection, static_cast<sqlite3_stmt*>(statement));
    else
        statement_ends(of_connection, static_cast<sqlite3_stmt*>(statement));
    return 0;
}

void record_text(const char* what, const char* text)
{
    UT_HIST_DATA(UT_HIST_ID_TEXT("error"), what, text, strlen(text));
}

}  // namespace

void register_statement_kinds()
{
    for (a_kind& kind : kinds)
        kind.id = ut_hist_id_alloc(__FILE__, __LINE__, kind.verb);
    failure = ut_hist_id_alloc(__FILE__, __LINE__, "error");
}

void trace_statements(sqlite3* db, a_statement_trace& trace)
{
    sqlite3_trace_v2(db, SQLITE_TRACE_STMT | SQLITE_TRACE_PROFILE, on_trace, &trace);
}

void record_failure(sqlite3* db, const a_statement_trace& trace, const char* sql, sqlite3_stmt* failed)
{
    if (!ut_hist_is_on())
        return;
    int code = sqlite3_extended_errcode(db);
    UT_HIST_EV(failure, sqlite3_errstr(code), trace.connection, long{code});
    record_text("message", sqlite3_errmsg(db));
    char* with_values = failed ? sqlite3_expanded_sql(failed) : nullptr;
    record_text("statement", with_values ? with_values : sql);
    sqlite3_free(with_values);
}
