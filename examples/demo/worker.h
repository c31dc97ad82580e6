/* worker: one server thread. It takes requests from the queue and answers them on a connection of its own. */
#ifndef DEMO_WORKER_H
#define DEMO_WORKER_H

#include <atomic>
#include <mutex>
#include <string>

#include "request_queue.h"

/* What all workers share. Owned by the main thread, outlives them. */
struct a_server {
    std::string database;
    bool traced = true;
    c_request_queue queue;
    /* Held over a transaction that writes. SQLite allows one writer at a time and lets the others poll; a
     * mutex wakes the next one at once. */
    std::mutex writing;
    /* Counters for the progress lines; relaxed, they order nothing. */
    std::atomic<long> rows = 0;
    std::atomic<long> answers = 0;
    std::atomic<long> failures = 0;
};

/* Body of a worker thread: runs until the queue is closed. number names its connection in the history. */
void work(a_server& server, long number);

#endif
