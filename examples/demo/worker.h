/* worker: the server threads. Each takes requests from the queue and answers them on a connection of its own. */
#ifndef DEMO_WORKER_H
#define DEMO_WORKER_H

#include <atomic>
#include <deque>
#include <string>
#include <vector>

#include "corvex/thread.h"
#include "request_queue.h"
#include "write_turn.h"

/* What all workers share. Owned by the main thread, outlives them. */
struct a_server {
    std::string database;
    bool traced = true;
    c_request_queue queue;
    c_write_turn turn;
    /* Counters for the progress lines; relaxed, they order nothing. */
    std::atomic<long> rows = 0;
    std::atomic<long> answers = 0;
    std::atomic<long> failures = 0;
};

/* The worker threads. They are started by the constructor and ended by the destructor, which closes the queue. */
class c_workers {
public:
    /* number of them, named "worker 1" and so on. */
    c_workers(a_server& server, long number);
    ~c_workers();
    c_workers(const c_workers&) = delete;
    c_workers& operator=(const c_workers&) = delete;

    bool all_started() const { return started; }

private:
    struct a_start {
        a_server& server;
        long number;  // names the worker's connection in the history
    };
    static void run(void* start);

    a_server& served;
    std::deque<a_start> starts;  // a worker reads its own
    std::vector<p_os_thread> threads;
    bool started = true;
};

#endif
