/* write_turn: whose turn it is to write to the database, among the threads of all processes that use it.
 *
 * SQLite allows one writer at a time and lets the others poll; a semaphore wakes the next one at once. It is one
 * System V semaphore of the library, since the writers are not all in one process. The kernel takes a turn back from a
 * process that dies with it. */
#ifndef DEMO_WRITE_TURN_H
#define DEMO_WRITE_TURN_H

#include "corvex/sysvsem.h"

class c_write_turn {
public:
    c_write_turn();
    ~c_write_turn();  // in a forked child it leaves the semaphore to the parent
    c_write_turn(const c_write_turn&) = delete;
    c_write_turn& operator=(const c_write_turn&) = delete;

    bool is_open() const { return opened; }
    int kernel_set() const { return semaphore.ident; }
    bool take();  // waits for the turn; false when the semaphore is gone
    void give();

private:
    bool change(short by);

    a_sysv_semaphore semaphore = {0, 0};
    bool opened;
};

#endif
