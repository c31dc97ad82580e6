/* request_queue: hands requests from the listening thread to the workers, and knows when all of them are
 * done.
 *
 * A bounded queue under one mutex: the listener waits when the workers fall behind. `unfinished` counts the
 * requests that wait or are being worked on; it reaches 0 when a phase is over. */
#ifndef DEMO_REQUEST_QUEUE_H
#define DEMO_REQUEST_QUEUE_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "unicode_files.h"

enum class a_action {
    load,       // insert the lines
    look_up,    // one character by its code
    search,     // characters by a word of their name
    report,     // characters per script
    visit,      // count a visit of one character
    add_again,  // a mistake: a code that is already there
    misspell    // a mistake: a table that does not exist
};

struct a_request {
    a_action action;
    const a_source* source = nullptr;     // load: where the lines come from
    std::vector<std::string> lines = {};  // load
    long code = 0;                        // look_up, visit, add_again
    const char* word = "";                // search
};

class c_request_queue {
public:
    void push(a_request request);    // waits while the queue is full
    std::optional<a_request> pop();  // waits for a request; nothing once the queue is closed and empty
    void finished();                 // one popped request is done
    void wait_until_idle();
    void close();

private:
    static constexpr size_t capacity = 64;

    std::mutex mutex;  // guards all below
    std::condition_variable not_full;
    std::condition_variable not_empty;
    std::condition_variable idle;
    std::deque<a_request> waiting;
    size_t unfinished = 0;
    bool closed = false;
};

#endif
