/* request_queue: hands requests from the listening thread to the workers, and knows when all of them are
 * done.
 *
 * A bounded queue under one mutex: the listener waits when the workers fall behind. `unfinished` counts the
 * requests that wait or are being worked on; it reaches 0 when a phase is over.
 *
 * Who has nothing to do parks (OS_Wait). A worker enters itself into a list first; the listener takes it out
 * and wakes it with the request as the wake-up's value. Whoever takes a thread out of its list or slot wakes
 * it, once: each park ends by one wake-up. One thread is the listener: it pushes, waits and closes. */
#ifndef DEMO_REQUEST_QUEUE_H
#define DEMO_REQUEST_QUEUE_H

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "corvex/thread.h"
#include "unicode_files.h"

enum class a_action {
    load,       // insert the lines
    look_up,    // one character by its code
    search,     // characters by a word of their name
    report,     // characters per script
    visit,      // count a visit of one character
    add_again,  // a mistake: a code that is already there
    misspell,   // a mistake: a table that does not exist
    hang,       // a statement that takes its time
    crash       // a statement whose function follows a null pointer
};

struct a_request {
    a_action action;
    const a_source* source = nullptr;     // load: where the lines come from
    std::vector<std::string> lines = {};  // load
    long code = 0;                        // look_up, visit, add_again; hang: milliseconds
    const char* word = "";                // search
};

class c_request_queue {
public:
    void push(a_request request);      // waits while the queue is full
    std::unique_ptr<a_request> pop();  // waits for a request; null once the queue is closed and empty
    void finished();                   // one popped request is done
    void wait_until_idle();
    void close();

private:
    static constexpr size_t capacity = 64;

    /* Parks the listener, unlocked meanwhile, until somebody takes it out of the slot. */
    static void park_listener(std::unique_lock<std::mutex>& lock, p_os_thread& slot);

    std::mutex mutex;  // guards all below
    std::deque<std::unique_ptr<a_request>> waiting;
    p_os_thread parked_workers = nullptr;  // through next; only while no request waits
    p_os_thread waits_for_room = nullptr;  // the listener, while it is parked for that
    p_os_thread waits_for_idle = nullptr;
    size_t unfinished = 0;
    bool closed = false;
};

#endif
