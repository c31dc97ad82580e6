// utonsig.cpp: the chain of prioritised on-signal callbacks: eight slots in static storage.
//
// A slot is free while func is null. It is claimed by a compare-and-swap of func from null, after which the claimer
// stores priority and arg; it is freed by one to null, which leaves both as they were. A chain that runs between a
// claim and its two stores calls the new func with the slot's last priority and arg; registering before handlers are
// installed avoids that. No locks, no allocation. Signal-safe: all of it.
#include "utils/unix/utonsig.h"

#include "utils/etc/utcswap.h"
#include "utils/unix/utending.h"

namespace {

struct a_sig_handler {
    int priority;
    a_sig_handler_func func;  // null: the slot is free
    void* arg;
};

constexpr int num_slots = 8;
constexpr int no_priority = onsig_last_priority + 1;

a_sig_handler sig_handlers[num_slots];

// Acquire: who sees a claimed slot's func sees what was stored before the claim.
a_sig_handler_func func_of(const a_sig_handler& slot) { return __atomic_load_n(&slot.func, __ATOMIC_ACQUIRE); }

// Relaxed here and below: one word, and no other depends on it.
int priority_of(const a_sig_handler& slot) { return __atomic_load_n(&slot.priority, __ATOMIC_RELAXED); }

bool change(a_sig_handler& slot, a_sig_handler_func from, a_sig_handler_func to)
{
    uint64 expected = uint64(reinterpret_cast<a_ptrint>(from));
    return CSwap64(reinterpret_cast<uint64*>(&slot.func), &expected, uint64(reinterpret_cast<a_ptrint>(to))) != 0;
}

// The smallest priority above `last` among the registered ones; no_priority when there is none that runs. Each is read
// once: a slot that is taken anew meanwhile must not bring a priority of `last` or below, which would repeat callbacks.
int next_priority(int last)
{
    int found = no_priority;
    for (const a_sig_handler& slot : sig_handlers) {
        const int priority = func_of(slot) != nullptr ? priority_of(slot) : no_priority;
        if (priority > last && priority < found)
            found = priority;
    }
    return found;
}

void run_plainly(a_sig_handler_func func, void* arg, const an_onsig_call& call)
{
    func(call.sig, arg, call.chained, call.chaining, call.cleanup, call.siginfo, call.context);
}

}  // namespace

void* ut_onsig_call_add(int priority, a_sig_handler_func func, void* arg)
{
    for (a_sig_handler& slot : sig_handlers)
        if (change(slot, nullptr, func)) {
            __atomic_store_n(&slot.priority, priority, __ATOMIC_RELAXED);
            __atomic_store_n(&slot.arg, arg, __ATOMIC_RELAXED);
            return &slot;
        }
    return nullptr;
}

void ut_onsig_call_del(void* void_p, a_sig_handler_func func)
{
    a_sig_handler* slot = static_cast<a_sig_handler*>(void_p);
    if (slot != nullptr)
        change(*slot, func, nullptr);
}

void ut_onsig_call_range(int first, int last, const an_onsig_call& call, an_onsig_runner run)
{
    for (int priority = first - 1; (priority = next_priority(priority)) <= last;)
        for (const a_sig_handler& slot : sig_handlers) {
            // Read afresh: an earlier callback may have removed this one.
            const a_sig_handler_func func = func_of(slot);
            if (func != nullptr && priority_of(slot) == priority)
                run(func, __atomic_load_n(&slot.arg, __ATOMIC_RELAXED), call);
        }
}

void ut_onsig_call_now(int sig, a_bool chained, a_bool chaining, a_bool cleanup, void* siginfo, void* context)
{
    ut_onsig_call_range(0, onsig_last_priority, {sig, chained, chaining, cleanup, siginfo, context}, run_plainly);
}

int ut_onsig_will_do_cleanup(void) { return __atomic_load_n(&will_do_cleanup, __ATOMIC_ACQUIRE); }
