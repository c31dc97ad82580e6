/* write_turn.cpp: the library hands the semaphore out, the kernel's semop operates on it. */
#include "write_turn.h"

#include <cerrno>
#include <sys/sem.h>

c_write_turn::c_write_turn() { opened = sysv_open_semaphore(&semaphore, 1); }

c_write_turn::~c_write_turn() { sysv_close_semaphore(&semaphore); }

bool c_write_turn::change(short by)
{
    sembuf operation = {static_cast<unsigned short>(semaphore.offset), by, SEM_UNDO};
    int result;
    do
        result = semop(semaphore.ident, &operation, 1);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

bool c_write_turn::take() { return change(-1); }

void c_write_turn::give() { change(1); }
