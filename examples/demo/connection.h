/* connection: one SQLite connection, used by one thread, and the statements prepared on it.
 *
 * Statements are prepared once and kept under their text. A failure is recorded in the history and reported
 * by the result; a server goes on with its next request. */
#ifndef DEMO_CONNECTION_H
#define DEMO_CONNECTION_H

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "sql_trace.h"

class c_connection {
public:
    /* Opens the database file and creates it when it is missing. number names the connection in the history.
     */
    c_connection(const std::string& file, long number, bool traced);
    c_connection(const c_connection&) = delete;
    c_connection& operator=(const c_connection&) = delete;

    bool is_open() const { return opened; }
    /* Runs a statement without parameters; false when it failed. */
    bool run(const char* sql);

private:
    friend class c_query;
    struct a_closer {
        void operator()(sqlite3* handle) const { sqlite3_close(handle); }
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    /* The statement of that text, prepared on first use; null when SQLite refuses it. */
    sqlite3_stmt* prepared(const char* sql);

    /* In this order: the statements go first, then the handle, and the trace outlives both. */
    a_statement_trace trace;
    std::unique_ptr<sqlite3, a_closer> db;
    std::map<std::string_view, std::unique_ptr<sqlite3_stmt, a_closer>> statements;  // keys are literals
    bool opened = false;
};

/* One run of a prepared statement: bind its parameters in order, then run it or step through its rows. The
 * destructor ends the run. sql must be a literal. */
class c_query {
public:
    c_query(c_connection& of, const char* sql);
    ~c_query();
    c_query(const c_query&) = delete;
    c_query& operator=(const c_query&) = delete;

    c_query& bind(long value);
    c_query& bind(std::string_view text);  // text must stay valid until the run ends
    bool next_row();                       // false at the end and after a failure
    bool run();                            // steps to the end; false when the statement failed

private:
    c_connection& connection;
    const char* text;
    sqlite3_stmt* statement;
    int bound = 0;
    bool failed;
};

#endif
