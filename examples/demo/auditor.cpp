/* auditor.cpp: the audit process. Its events stay in its own copy of the history, which is not dumped at its exit: a
 * forked child leaves logs and kernel objects to its parent. */
#include "auditor.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "transaction.h"

namespace {

constexpr int interval_ms = 100;
constexpr long connection_number = 100;  // names its connection in the history

bool count(c_connection& connection, c_write_turn& turn)
{
    c_transaction transaction(turn, connection);
    return connection.run("INSERT INTO audit SELECT count(*), total(visits) FROM character") && transaction.commit();
}

/* The pipe never brings data: it becomes readable at its end. */
bool server_goes_on(int pipe_end)
{
    pollfd end = {pipe_end, POLLIN, 0};
    return poll(&end, 1, interval_ms) == 0;
}

/* Body of the process. Signals for a whole group come to both processes; this one ends after the server. */
bool audit(const std::string& database, c_write_turn& turn, int pipe_end)
{
    for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
        std::signal(sig, SIG_IGN);
    c_connection connection(database, connection_number, true);
    bool done = connection.is_open();
    long counts = 0;
    for (bool last = false; done && !last; counts++) {
        last = !server_goes_on(pipe_end);
        done = count(connection, turn);
    }
    if (done)
        std::printf("  the auditor had its turn to write %ld times\n", counts);
    return done;
}

}  // namespace

c_auditor::c_auditor(const std::string& database, c_write_turn& turn)
{
    int ends[2];
    if (pipe(ends) != 0)
        return;
    child = fork();
    if (child == 0) {
        close(ends[1]);
        std::exit(audit(database, turn, ends[0]) ? 0 : 1);
    }
    close(ends[0]);
    pipe_end = ends[1];
}

bool c_auditor::finish()
{
    if (pipe_end >= 0)
        close(pipe_end);
    pipe_end = -1;
    int status = -1;
    if (child > 0)
        waitpid(child, &status, 0);
    child = -1;
    return status == 0;
}
