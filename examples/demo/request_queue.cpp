/* request_queue.cpp: see the header. Each condition has its own condition variable, so no wake-up is wasted.
 */
#include "request_queue.h"

#include <utility>

void c_request_queue::push(a_request request)
{
    std::unique_lock lock(mutex);
    not_full.wait(lock, [this] { return waiting.size() < capacity; });
    waiting.push_back(std::move(request));
    unfinished++;
    not_empty.notify_one();
}

std::optional<a_request> c_request_queue::pop()
{
    std::unique_lock lock(mutex);
    not_empty.wait(lock, [this] { return !waiting.empty() || closed; });
    if (waiting.empty())
        return std::nullopt;
    a_request request = std::move(waiting.front());
    waiting.pop_front();
    not_full.notify_one();
    return request;
}

void c_request_queue::finished()
{
    std::lock_guard lock(mutex);
    if (--unfinished == 0)
        idle.notify_all();
}

void c_request_queue::wait_until_idle()
{
    std::unique_lock lock(mutex);
    idle.wait(lock, [this] { return unfinished == 0; });
}

void c_request_queue::close()
{
    std::lock_guard lock(mutex);
    closed = true;
    not_empty.notify_all();
}
