// streams.h: makes standard error, or a FIFO, a stream that takes nothing, or takes it slowly. For one program file.
#ifndef PROGRAMS_STREAMS_H
#define PROGRAMS_STREAMS_H

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

static std::atomic<unsigned> pace{0};  // of a slow reader: microseconds a page

static void fill(int fd)
{
    static const char page[4096] = {};
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    while (write(fd, page, sizeof page) > 0)
        continue;
    fcntl(fd, F_SETFL, flags);
}

// A FIFO without a reader, or a full one whose reader, this process, reads nothing.
static void make_fifo(const char* name, bool full)
{
    if (mkfifo(name, 0600) != 0)
        printf("no FIFO\n");
    if (full)
        fill(open(name, O_RDWR | O_CLOEXEC));
}

static void read_slowly(int fd)
{
    sigset_t all;
    sigfillset(&all);  // a dump here would wait for its own reader
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (char page[4096]; read(fd, page, sizeof page) > 0;)
        usleep(pace);
}

// Standard error becomes a pipe whose reader has gone (dead), reads nothing and is full (full) or reads slowly (slow).
static void pipe_stderr(const char* kind)
{
    int ends[2];
    if (pipe(ends) != 0 || fcntl(ends[1], F_SETPIPE_SZ, 4096) < 0 || dup2(ends[1], STDERR_FILENO) < 0)
        printf("no pipe\n");
    close(ends[1]);
    if (strcmp(kind, "dead") == 0)
        close(ends[0]);
    else if (strcmp(kind, "full") == 0)
        fill(STDERR_FILENO);
    else
        std::thread(read_slowly, ends[0]).detach();
}

// Closes standard error and opens a file that gets its number.
static void reopen_stderr(const char* file, int how)
{
    close(STDERR_FILENO);
    if (open(file, O_CREAT | how, 0600) != STDERR_FILENO)
        printf("not standard error\n");
}

#endif
