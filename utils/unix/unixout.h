// unixout.h: output by descriptor which neither kills the process nor hangs it: writes whose signals are not delivered,
// to streams that get a second to take something; and files opened for it.
//
// All of it is signal-safe, takes no lock and allocates nothing. Who writes cannot be cancelled (utcancel.h).
#pragma once

#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// SIGPIPE and SIGXFSZ that a write in this scope raises are not delivered; one that was pending before stays pending.
// Keeps errno and the mask.
class a_quiet_scope {
public:
    a_quiet_scope();
    ~a_quiet_scope();
    a_quiet_scope& operator=(a_quiet_scope&&) = delete;  // nor copies

private:
    sigset_t raised, mask;  // what a write here may raise; the mask before
    int kept_errno;
};

// Which file a descriptor stands for.
struct a_file_node {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const a_file_node&) const = default;
};

// Where one dump, or one message, goes: the stream that it was opened for last. What its streams have made it wait adds
// up, and a stream that was given up stays given up, for the life of the object. It has no buffer: it may lie on the
// stack of a handler.
//
// A stream that takes nothing for one second is given up; in a process that is ending, also when its waits for all
// streams come near two seconds. One exception: a pipe or terminal that cannot be opened once more (another user's, no
// /proc) blocks when another writer fills it between the poll and the write.
class an_output {
public:
    void open(int to);  // to a descriptor, which stays the caller's; a negative one swallows everything
    void close();
    void write(const char* text, size_t len);  // after a failure or a give-up the rest is swallowed

    // Why something was swallowed since it was opened: an errno, ETIMEDOUT for a give-up; 0: nothing was.
    int error() const { return failure; }

    // To be called once, when the waits have come to one second.
    void when_waited(void (*call)(void*), void* arg);

private:
    bool reopen();
    bool takes_more(int max_ms) const;
    ssize_t put(const char* text, size_t len) const;
    bool wait(int64_t from);
    void fail(int why);

    int fd = -1, failure = 0;
    bool reopened = false, socket = false;
    size_t piece = 0;  // what the stream has room for when poll says so; SIZE_MAX: writes never block
    int64_t waited = 0, idle = 0, credit = 0;  // ns: in all, since it took something, granted to an ending process
    void (*hook)(void*) = nullptr;
    void* hook_arg = nullptr;
    a_file_node node, stuck[2];  // the stream's, and those given up: log and message stream
};

// Opens a file for writing as fopen does with "a" (how: O_APPEND) or "w" (O_TRUNC), but not for programs that the
// process starts, nor as its terminal, nor by the number of a standard stream that the process has closed: what it
// prints would get into the file. A FIFO without a reader fails with ENXIO. A symbolic link in a sticky folder that all
// may write to is followed only if the caller or the folder's owner owns it, else EACCES: the kernel's rule, also where
// that is off.
int unix_open_output(const char* name, int how, mode_t mode = 0666);
