// child.h: runs a piece of a test in a forked process and collects how that ended and what it said; threads beside a
// test.
#ifndef TESTS_CHILD_H
#define TESTS_CHILD_H

#include <stdarg.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

inline constexpr bool under_asan = CORVEX_SANITIZE[0] == 'a', under_tsan = CORVEX_SANITIZE[0] == 't';
inline int child_pipe[2];

// Adds to the child's text, in signal handlers too.
__attribute__((format(printf, 1, 2))) inline void say(const char* format, ...)
{
    char text[100];
    va_list args;
    va_start(args, format);
    if (write(child_pipe[1], text, size_t(vsnprintf(text, sizeof text, format, args))) < 0)
        _exit(126);
    va_end(args);
}

struct a_child {
    int status;  // 0: no check failed; the number of the signal that killed it without a core (SIGALRM: it hung)
    std::string said;
};

template <typename F>
a_child in_child(F body)
{
    a_child child = {};
    EXPECT_EQ(0, pipe(child_pipe));
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(120);
        prctl(PR_SET_DUMPABLE, 0);
        body();
        fflush(stdout);
        _exit(testing::Test::HasFailure());
    }
    close(child_pipe[1]);
    for (char c; read(child_pipe[0], &c, 1) == 1;)
        child.said += c;
    close(child_pipe[0]);
    waitpid(pid, &child.status, 0);
    return child;
}

// A thread that repeats something until the end of the scope.
template <typename F>
std::jthread repeated(F operation)
{
    return std::jthread([operation](std::stop_token stop) mutable {
        while (!stop.stop_requested())
            operation();
    });
}

#endif
