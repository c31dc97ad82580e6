/* worker.cpp: what a worker does for each kind of request. Nothing here knows about tracing: the connection's
 * hook sees every statement, the transactions included. */
#include "worker.h"

#include <cstdio>
#include <memory>

#include "transaction.h"

namespace {

bool add_character(c_connection& connection, const a_character& character)
{
    return c_query(connection, "INSERT INTO character (code, name, category) VALUES (?, ?, ?)")
        .bind(character.code)
        .bind(character.name)
        .bind(character.category)
        .run();
}

bool add_range(c_connection& connection, const a_source& source, const a_range& range)
{
    return c_query(connection, "INSERT INTO range (source, first, last, value) VALUES (?, ?, ?, ?)")
        .bind(source.file)
        .bind(range.first)
        .bind(range.last)
        .bind(range.value)
        .run();
}

/* True when the line became a row; comments do not. */
bool add_line(c_connection& connection, const a_source& source, std::string_view line)
{
    if (source.format == a_format::characters) {
        auto character = read_character(line);
        return character && add_character(connection, *character);
    }
    auto range = read_range(line);
    return range && add_range(connection, source, *range);
}

bool load(a_server& server, c_connection& connection, const a_request& request)
{
    c_transaction transaction(server.turn, connection);
    long rows = 0;
    for (const std::string& line : request.lines)
        rows += add_line(connection, *request.source, line);
    server.rows.fetch_add(rows, std::memory_order_relaxed);
    return transaction.commit();
}

bool look_up(c_connection& connection, const a_request& request)
{
    return c_query(connection, "SELECT name, category, visits FROM character WHERE code = ?").bind(request.code).run();
}

/* No index helps a word in the middle of a name: this one reads the whole table. */
bool search(c_connection& connection, const a_request& request)
{
    return c_query(connection, "SELECT code, name FROM character WHERE name LIKE '%' || ? || '%'")
        .bind(request.word)
        .run();
}

bool report(c_connection& connection)
{
    return connection.run("SELECT value, count(*) FROM range JOIN character ON code BETWEEN first AND last"
                          " WHERE source = 'Scripts.txt' GROUP BY value ORDER BY 2 DESC");
}

bool visit(a_server& server, c_connection& connection, const a_request& request)
{
    c_transaction transaction(server.turn, connection);
    return c_query(connection, "UPDATE character SET visits = visits + 1 WHERE code = ?").bind(request.code).run() &&
           transaction.commit();
}

bool add_again(a_server& server, c_connection& connection, const a_request& request)
{
    c_transaction transaction(server.turn, connection);
    return add_character(connection, {request.code, "ADDED TWICE", "So"}) && transaction.commit();
}

bool misspell(c_connection& connection) { return connection.run("SELECT name FROM charcater WHERE code = 65"); }

bool answer(a_server& server, c_connection& connection, const a_request& request)
{
    switch (request.action) {
    case a_action::load:
        return load(server, connection, request);
    case a_action::look_up:
        return look_up(connection, request);
    case a_action::search:
        return search(connection, request);
    case a_action::report:
        return report(connection);
    case a_action::visit:
        return visit(server, connection, request);
    case a_action::add_again:
        return add_again(server, connection, request);
    case a_action::misspell:
        return misspell(connection);
    case a_action::hang:
        return c_query(connection, "SELECT stall(?)").bind(request.code).run();
    case a_action::crash:
        return connection.run("SELECT price(name) FROM character WHERE code = 65");
    }
    return false;
}

/* Body of a worker: runs until the queue is closed. */
void work(a_server& server, long number)
{
    c_connection connection(server.database, number, server.traced);
    if (!connection.is_open())
        std::fprintf(stderr, "worker %ld cannot open %s\n", number, server.database.c_str());
    while (std::unique_ptr<a_request> request = server.queue.pop()) {
        bool done = connection.is_open() && answer(server, connection, *request);
        (done ? server.answers : server.failures).fetch_add(1, std::memory_order_relaxed);
        server.queue.finished();
    }
}

}  // namespace

void c_workers::run(void* start)
{
    auto& of = *static_cast<a_start*>(start);
    work(of.server, of.number);
}

c_workers::c_workers(a_server& server, long number) : served(server)
{
    while (started && static_cast<long>(starts.size()) < number) {
        a_start& start = starts.emplace_back(a_start{server, static_cast<long>(starts.size()) + 1});
        std::string name = "worker " + std::to_string(start.number);
        p_os_thread thread = OS_Begin_Thread_Attachable(run, nullptr, 0, &start, name.c_str(), TRUE);
        started = thread != nullptr;
        if (started)
            threads.push_back(thread);
        else
            std::fprintf(stderr, "cannot start %s\n", name.c_str());
    }
}

c_workers::~c_workers()
{
    served.queue.close();
    for (p_os_thread thread : threads)
        OS_WaitOnThreadTermination(thread);
}
