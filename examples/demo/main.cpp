/* demo_server: a small server on SQLite whose every statement is traced into the event history.
 *
 * The main thread plays the clients: it reads the Unicode tables and hands their lines to the workers, then
 * sends queries for a few seconds, mistakes among them. It also owns the signals: the workers block those
 * that end the process, so that the events that their handler records have one writer, this thread.
 *
 * The workers are threads of the library, parked and woken by it, and SQLite locks by the library's mutexes. A second
 * process, the auditor, writes to the same database; both take turns by a System V semaphore of the library.
 *
 * The history reaches the disk on SIGUSR1 while the server runs, at exit, and, with UT_HIST_EXT=all, when a signal is
 * about to end the process: all by the library, without a line here. */
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <unistd.h>

#include "auditor.h"
#include "connection.h"
#include "corvex/hist.h"
#include "corvex/onsig.h"
#include "corvex/thread.h"
#include "options.h"
#include "sqlite_mutexes.h"
#include "worker.h"

namespace {

using a_clock = std::chrono::steady_clock;

constexpr size_t lines_per_request = 500;
constexpr double progress_interval = 1.0;  // seconds

a_ut_hist_id phase = UT_HIST_ID_NONE;

// ---- signals ----

/* Without the history's handler SIGUSR1 would end the process. Signal-safe. */
bool dumps_on_sigusr1()
{
    struct sigaction now;
    return sigaction(SIGUSR1, nullptr, &now) == 0 && now.sa_handler != SIG_DFL && now.sa_handler != SIG_IGN;
}

/* While it lives, threads started here leave the signals that end the process to the main thread. */
class c_ending_signals_blocked {
public:
    c_ending_signals_blocked()
    {
        sigset_t ending;
        sigemptyset(&ending);
        for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
            sigaddset(&ending, sig);
        pthread_sigmask(SIG_BLOCK, &ending, &before);
    }
    ~c_ending_signals_blocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

private:
    sigset_t before;
};

// ---- progress ----

/* Prints where the server stands, at most once per interval, unless it only measures. */
class c_progress {
public:
    c_progress(const a_server& of, bool shown) : server(of), show(shown) {}

    double seconds() const { return std::chrono::duration<double>(a_clock::now() - start).count(); }
    void tell(const char* doing)
    {
        if (seconds() >= next)
            tell_now(doing);
    }
    void tell_now(const char* doing)
    {
        next = seconds() + progress_interval;
        if (!show)
            return;
        std::printf("  %4.1f s  %-8s %6ld rows  %6ld requests done  %4ld failed\n", seconds(), doing,
                    server.rows.load(std::memory_order_relaxed), server.answers.load(std::memory_order_relaxed),
                    server.failures.load(std::memory_order_relaxed));
        std::fflush(stdout);
    }

private:
    const a_server& server;
    bool show;
    a_clock::time_point start = a_clock::now();
    double next = progress_interval;
};

// ---- the phases ----

bool make_tables(const a_server& server)
{
    c_connection connection(server.database, 0, server.traced);
    return connection.is_open() &&
           connection.run("CREATE TABLE character (code INTEGER PRIMARY KEY, name TEXT, category TEXT,"
                          " visits INTEGER DEFAULT 0)") &&
           connection.run("CREATE TABLE range (source TEXT, first INTEGER, last INTEGER, value TEXT)") &&
           connection.run("CREATE TABLE audit (characters INTEGER, visits INTEGER)") &&
           connection.run("CREATE INDEX range_by_source ON range (source, first)");
}

/* Sends one file to the workers; false when it cannot be read. */
bool load_file(a_server& server, const a_options& options, const a_source& source, c_progress& progress)
{
    std::ifstream file(options.data + "/" + source.file);
    long count = 0;
    while (file) {
        a_request request{.action = a_action::load, .source = &source};
        std::string line;
        while (request.lines.size() < lines_per_request && std::getline(file, line))
            if (options.lines == 0 || count++ < options.lines)
                request.lines.push_back(line);
        if (request.lines.empty())
            break;
        server.queue.push(std::move(request));
        progress.tell("loading");
    }
    return file.eof();
}

bool load_files(a_server& server, const a_options& options, c_progress& progress)
{
    UT_HIST_EV(phase, "load files");
    progress.tell_now("loading");
    for (const a_source& source : sources) {
        if (!load_file(server, options, source, progress)) {
            std::fprintf(stderr, "cannot read %s/%s (package unicode-data)\n", options.data.c_str(), source.file);
            return false;
        }
    }
    server.queue.wait_until_idle();
    return true;
}

/* Mostly look-ups, some writes, a few searches and reports, now and then a mistake. */
a_request next_request(std::minstd_rand& dice)
{
    static constexpr const char* words[] = {"ARROW", "GREEK", "HAND", "TURTLE", "MUSICAL", "WITH DOT"};
    a_request request{.action = a_action::look_up, .code = 0x20 + static_cast<long>(dice() % 0x250)};
    unsigned chance = dice() % 200;
    if (chance == 0)
        request.action = a_action::report;
    else if (chance < 10)
        request.action = a_action::search;
    else if (chance < 50)
        request.action = a_action::visit;
    else if (chance < 52)
        request.action = a_action::add_again;
    else if (chance < 54)
        request.action = a_action::misspell;
    request.word = words[dice() % std::size(words)];
    return request;
}

void dump_by_signal(c_progress& progress)
{
    if (!dumps_on_sigusr1())
        return;
    progress.tell_now("SIGUSR1");
    kill(getpid(), SIGUSR1);
}

void serve(a_server& server, const a_options& options, c_progress& progress)
{
    UT_HIST_EV(phase, "serve requests");
    progress.tell_now("serving");
    std::minstd_rand dice;
    double begin = progress.seconds();
    bool dump_due = options.dump_midway, crash_due = options.crash_after > 0;
    if (options.hang > 0)
        server.queue.push({.action = a_action::hang, .code = static_cast<long>(options.hang * 1000)});
    while (progress.seconds() - begin < options.seconds) {
        server.queue.push(next_request(dice));
        progress.tell("serving");
        if (dump_due && progress.seconds() - begin >= options.seconds / 2) {
            dump_by_signal(progress);
            dump_due = false;
        }
        if (crash_due && progress.seconds() - begin >= options.crash_after) {
            server.queue.push({.action = a_action::crash});
            crash_due = false;
        }
    }
    server.queue.wait_until_idle();
    progress.tell_now("done");
}

// ---- the program ----

c_workers start_workers(a_server& server, long count)
{
    c_ending_signals_blocked blocked;
    return c_workers(server, count);
}

void remove_old_database(const std::string& database)
{
    for (const char* suffix : {"", "-wal", "-shm"})
        std::filesystem::remove(database + suffix);
}

/* A fresh database in a server that no worker uses yet. */
bool prepare(a_server& server, const a_options& options)
{
    if (!server.turn.is_open()) {
        std::fputs("cannot open a System V semaphore\n", stderr);
        return false;
    }
    server.database = options.directory + "/unicode.db";
    server.traced = options.traced;
    remove_old_database(server.database);
    UT_HIST_EV(phase, "make tables");
    bool made = make_tables(server);
    if (!made)
        std::fprintf(stderr, "cannot make the tables in %s\n", server.database.c_str());
    return made;
}

/* Load, then serve; the workers end with it. */
bool work(a_server& server, const a_options& options)
{
    c_progress progress(server, true);
    c_workers workers = start_workers(server, options.workers);
    bool loaded = workers.all_started() && load_files(server, options, progress);
    if (loaded)
        serve(server, options, progress);
    return loaded;
}

/* The whole run, beside the audit process. */
bool load_and_serve(const a_options& options)
{
    a_server server;
    if (!prepare(server, options))
        return false;
    c_auditor auditor(server.database, server.turn);
    std::printf("  semaphore in kernel set %d, shared with process %d, the auditor\n", server.turn.kernel_set(),
                static_cast<int>(auditor.process()));
    bool worked = work(server, options);
    bool audited = auditor.finish();
    if (!audited)
        std::fputs("the audit process failed\n", stderr);
    return worked && audited;
}

/* The seconds that one load into a fresh database takes; negative when it failed. */
double time_load(const a_options& options, long& rows)
{
    a_server server;
    if (!prepare(server, options))
        return -1;
    c_progress progress(server, false);
    c_workers workers = start_workers(server, options.workers);
    bool loaded = workers.all_started() && load_files(server, options, progress);
    double seconds = progress.seconds();
    rows = server.rows.load(std::memory_order_relaxed);
    return loaded ? seconds : -1;
}

/* While it lives, the process has the library's thread layer, and this thread a descriptor in it. */
class c_thread_layer {
public:
    c_thread_layer() { OS_Init(); }
    ~c_thread_layer() { OS_Fini(); }
};

/* Loads several times and prints the shortest time: the others were disturbed by something else. */
bool time_loads(const a_options& options)
{
    double best = -1;
    long rows = 0;
    for (long round = 0; round < options.loads; round++) {
        double seconds = time_load(options, rows);
        if (seconds < 0)
            return false;
        if (best < 0 || seconds < best)
            best = seconds;
    }
    std::printf("%.6f seconds to load %ld rows\n", best, rows);
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    std::optional<a_options> options = read_options(argc, argv);
    if (!options)
        return 2;
    ut_onsig_install_signal_handlers(FALSE);
    register_statement_kinds();
    phase = ut_hist_id_alloc(__FILE__, __LINE__, "phase");
    c_thread_layer threads;
    c_sqlite_on_library_mutexes sqlite;
    if (!sqlite.is_ready()) {
        std::fputs("cannot start SQLite on the library's mutexes\n", stderr);
        return 1;
    }
    bool done = options->loads > 0 ? time_loads(*options) : load_and_serve(*options);
    return done ? 0 : 1;
}
