/* auditor: a second process that writes to the same database: every tenth of a second it counts what is there.
 *
 * It is a fork of the server, made before any thread starts and while no connection is open. It takes turns with the
 * workers by the semaphore that it inherits, and ends when its pipe is closed: by finish, or by the server's death. */
#ifndef DEMO_AUDITOR_H
#define DEMO_AUDITOR_H

#include <string>
#include <sys/types.h>

#include "write_turn.h"

class c_auditor {
public:
    c_auditor(const std::string& database, c_write_turn& turn);
    ~c_auditor() { finish(); }
    c_auditor(const c_auditor&) = delete;
    c_auditor& operator=(const c_auditor&) = delete;

    pid_t process() const { return child; }  // -1 when it could not be started
    /* Lets it make its last count and waits for its end; false when it failed. */
    bool finish();

private:
    int pipe_end = -1;
    pid_t child = -1;
};

#endif
