/* request_queue.cpp: see the header. Threads are woken outside the mutex: a descriptor outlives its wake-up, since
 * the listener ends the workers, and itself after them. */
#include "request_queue.h"

#include <utility>

namespace {

void wake(p_os_thread thread, void* value)
{
    if (thread)
        OS_Wakeup(thread, value);
}

}  // namespace

void c_request_queue::park_listener(std::unique_lock<std::mutex>& lock, p_os_thread& slot)
{
    slot = OS_Me();
    lock.unlock();
    OS_Wait();
    lock.lock();
}

void c_request_queue::push(a_request request)
{
    auto handed_over = std::make_unique<a_request>(std::move(request));
    std::unique_lock lock(mutex);
    while (waiting.size() >= capacity)
        park_listener(lock, waits_for_room);
    unfinished++;
    p_os_thread worker = parked_workers;
    if (!worker) {
        waiting.push_back(std::move(handed_over));
        return;
    }
    parked_workers = std::exchange(worker->next, nullptr);
    lock.unlock();
    OS_Wakeup(worker, handed_over.release());
}

std::unique_ptr<a_request> c_request_queue::pop()
{
    std::unique_lock lock(mutex);
    if (!waiting.empty()) {
        std::unique_ptr<a_request> request = std::move(waiting.front());
        waiting.pop_front();
        p_os_thread listener = std::exchange(waits_for_room, nullptr);
        lock.unlock();
        wake(listener, nullptr);
        return request;
    }
    if (closed)
        return nullptr;
    p_os_thread me = OS_Me();
    me->next = std::exchange(parked_workers, me);
    lock.unlock();
    return std::unique_ptr<a_request>(static_cast<a_request*>(OS_WaitEx(me)));
}

void c_request_queue::finished()
{
    std::unique_lock lock(mutex);
    p_os_thread listener = --unfinished == 0 ? std::exchange(waits_for_idle, nullptr) : nullptr;
    lock.unlock();
    wake(listener, nullptr);
}

void c_request_queue::wait_until_idle()
{
    std::unique_lock lock(mutex);
    while (unfinished != 0)
        park_listener(lock, waits_for_idle);
}

void c_request_queue::close()
{
    std::unique_lock lock(mutex);
    closed = true;
    p_os_thread worker = std::exchange(parked_workers, nullptr);
    lock.unlock();
    while (worker) {
        p_os_thread next = std::exchange(worker->next, nullptr);
        OS_Wakeup(worker, nullptr);
        worker = next;
    }
}
