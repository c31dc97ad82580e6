/* connection.cpp: opening, preparing, running. Not thread-safe: each thread has a connection of its own. */
#include "connection.h"

namespace {

constexpr int busy_wait_ms = 5000;

struct a_price {
    int cents;
};

/* stall(ms) hangs for a while. */
void stall(sqlite3_context* context, int, sqlite3_value** arguments)
{
    sqlite3_sleep(sqlite3_value_int(arguments[0]));
    sqlite3_result_null(context);
}

/* price(name) looks a price up and forgets that there may be none. */
void price(sqlite3_context* context, int, sqlite3_value**)
{
    const a_price* volatile found = nullptr;
    sqlite3_result_int(context, found->cents);
}

}  // namespace

c_connection::c_connection(const std::string& file, long number, bool traced) : trace{number}
{
    sqlite3* handle = nullptr;
    opened = sqlite3_open(file.c_str(), &handle) == SQLITE_OK;
    db.reset(handle);
    if (!opened)
        return;
    sqlite3_busy_timeout(handle, busy_wait_ms);
    sqlite3_create_function(handle, "stall", 1, SQLITE_UTF8, nullptr, stall, nullptr, nullptr);
    sqlite3_create_function(handle, "price", 1, SQLITE_UTF8, nullptr, price, nullptr, nullptr);
    if (traced)
        trace_statements(handle, trace);
    /* Write-ahead logging lets readers go on beside the writer; it needs no sync at each commit. */
    opened = run("PRAGMA journal_mode = WAL") && run("PRAGMA synchronous = NORMAL");
}

bool c_connection::run(const char* sql) { return c_query(*this, sql).run(); }

sqlite3_stmt* c_connection::prepared(const char* sql)
{
    auto known = statements.find(sql);
    if (known != statements.end())
        return known->second.get();
    sqlite3_stmt* fresh = nullptr;
    if (sqlite3_prepare_v2(db.get(), sql, -1, &fresh, nullptr) != SQLITE_OK) {
        record_failure(db.get(), trace, sql, nullptr);
        return nullptr;
    }
    statements[sql].reset(fresh);
    return fresh;
}

c_query::c_query(c_connection& of, const char* sql)
    : connection(of), text(sql), statement(of.prepared(sql)), failed(statement == nullptr)
{
}

c_query::~c_query()
{
    /* The result repeats the failure of the last step, which is recorded already. */
    if (statement)
        sqlite3_reset(statement);
}

c_query& c_query::bind(long value)
{
    if (statement)
        sqlite3_bind_int64(statement, ++bound, value);
    return *this;
}

c_query& c_query::bind(std::string_view value)
{
    if (statement)
        sqlite3_bind_text(statement, ++bound, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    return *this;
}

bool c_query::next_row()
{
    if (failed)
        return false;
    int result = sqlite3_step(statement);
    if (result == SQLITE_ROW)
        return true;
    failed = result != SQLITE_DONE;
    if (failed)
        record_failure(connection.db.get(), connection.trace, text, statement);
    return false;
}

bool c_query::run()
{
    while (next_row()) {
    }
    return !failed;
}
