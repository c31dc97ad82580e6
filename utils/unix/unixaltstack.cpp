// unixaltstack.cpp: gives threads alternate signal stacks (see unixaltstack.h) and keeps those of ended threads.
//
//     | guard page | 256 KiB, no page of it present until a handler runs there |
//
// A stack belongs to one thread or stands in one place of `kept`; who exchanges it out of there owns it. So there is no
// lock and no link inside a stack, and a process forked at any moment has a sound table. Signal-safe: all of it.
#include "utils/unix/unixaltstack.h"

#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/syscall.h>

namespace {

constexpr size_t guard_size = 4096;
constexpr size_t usable_size = size_t(256) * 1024;

char* kept[64] = {};  // mappings of ended threads, from their guard pages on; beyond that many they are unmapped
bool stacks_wanted = false;

alignas(16) char nested_stack[64 * 1024];  // room for a handler's frame with all registers, and for what it calls
bool nested_taken = false;

// The mapping which the thread was given. initial-exec: no first touch allocates.
constinit __attribute__((tls_model("initial-exec"))) thread_local char* own = nullptr;

// Acquire and release: who finds a mapping finds it as its last thread left it.
char* take_kept()
{
    for (char*& place : kept)
        if (__atomic_load_n(&place, __ATOMIC_RELAXED) != nullptr)
            if (char* stack = __atomic_exchange_n(&place, nullptr, __ATOMIC_ACQUIRE))
                return stack;
    return nullptr;
}

void unmap(char* stack) { munmap(stack, guard_size + usable_size); }

char* map_one()
{
    void* const at = mmap(nullptr, guard_size + usable_size, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (at == MAP_FAILED)
        return nullptr;
    char* const stack = static_cast<char*>(at);
    if (mprotect(stack, guard_size, PROT_NONE) == 0)
        return stack;
    unmap(stack);  // an overflow of it must not reach the mapping below
    return nullptr;
}

void keep(char* stack)
{
    for (char*& place : kept) {
        char* none = nullptr;
        if (__atomic_load_n(&place, __ATOMIC_RELAXED) == nullptr &&
            __atomic_compare_exchange_n(&place, &none, stack, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED))
            return;
    }
    unmap(stack);
}

}  // namespace

// Relaxed: it orders nothing.
void unix_want_signal_stacks(bool wanted) { __atomic_store_n(&stacks_wanted, wanted, __ATOMIC_RELAXED); }

void unix_give_signal_stack()
{
    stack_t has;
    if (!__atomic_load_n(&stacks_wanted, __ATOMIC_RELAXED) || own != nullptr || sigaltstack(nullptr, &has) != 0 ||
        (has.ss_flags & SS_DISABLE) == 0)
        return;
    char* stack = take_kept();
    if (stack == nullptr)
        stack = map_one();
    if (stack == nullptr)
        return;
    const stack_t given = {stack + guard_size, 0, usable_size};
    if (sigaltstack(&given, nullptr) == 0)
        own = stack;
    else
        keep(stack);
}

// A thread that ends in a handler still runs on it: then it is left mapped. One which the program has put in its place
// stays in force.
void unix_take_signal_stack()
{
    stack_t has;
    if (own == nullptr || sigaltstack(nullptr, &has) != 0)
        return;
    const stack_t none = {nullptr, SS_DISABLE, 0};
    if (has.ss_sp == own + guard_size && sigaltstack(&none, nullptr) != 0)
        return;
    keep(own);
    own = nullptr;
}

// The kernel refuses to change a stack that the stack pointer is on: for the call it points elsewhere. No handler may
// run meanwhile, or it would find the stack free and begin over this thread's frames. Once for a process.
void unix_use_nested_signal_stack()
{
    stack_t now;
    sigset_t all, mask;
    if (sigaltstack(nullptr, &now) != 0 || (now.ss_flags & SS_ONSTACK) == 0 ||
        __atomic_exchange_n(&nested_taken, true, __ATOMIC_RELAXED))
        return;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &mask);
    const stack_t nested = {nested_stack, 0, sizeof nested_stack};
    long result = SYS_sigaltstack;
    __asm__ volatile("mov %%rsp, %%rbx\n\tmov %[elsewhere], %%rsp\n\tsyscall\n\tmov %%rbx, %%rsp"
                     : "+a"(result)
                     : "D"(&nested), "S"(nullptr), [elsewhere] "r"(nested_stack + sizeof nested_stack)
                     : "rbx", "rcx", "r11", "memory");
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

void unix_release_signal_stacks()
{
    unix_want_signal_stacks(false);
    unix_take_signal_stack();
    while (char* stack = take_kept())
        unmap(stack);
}
