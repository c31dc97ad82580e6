// Output by descriptor: streams that would kill or hang the process, and the files that are opened for it.
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <chrono>
#include <filesystem>

#include "tests/child.h"
#include "utils/etc/utfatal.h"
#include "utils/unix/unixout.h"
#include "utils/unix/utending.h"

static int pipe_to_fill = -1;
static const std::string much(1 << 20, 'x');

// Fills a stream as another writer would.
static void fill(int fd)
{
    fcntl(fd, F_SETFL, O_NONBLOCK);
    while (write(fd, much.data(), PIPE_BUF) > 0)
        continue;
    fcntl(fd, F_SETFL, 0);
}

// Between a poll and a write another writer fills the pipe.
extern "C" int poll(struct pollfd* fds, nfds_t num, int timeout)
{
    const int ready = int(syscall(SYS_poll, fds, num, timeout));
    if (ready > 0 && pipe_to_fill >= 0)
        fill(pipe_to_fill);
    return ready;
}

namespace {

template <typename F>
double seconds(F body)
{
    const auto from = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

const char* written_to(int fd)
{
    an_output out;
    out.open(fd);
    out.write(much.data(), much.size());
    out.close();
    return out.error() == 0 ? "ok" : strerrorname_np(out.error());
}

TEST(Output, RaisesNoSignalAndTellsWhyAStreamFailed)
{
    const a_child child = in_child([] {
        int dead[2];
        sigset_t set, pending;
        EXPECT_EQ(0, pipe(dead) + close(dead[0]));
        say("%s %s ", written_to(open("/dev/full", O_WRONLY)), written_to(-1));
        setvbuf(stdout, nullptr, _IONBF, 0);
        dup2(dead[1], STDOUT_FILENO);
        ut_fatal("fatal");
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        for (const bool blocked : {false, true}) {
            if (blocked)
                sigprocmask(SIG_BLOCK, &set, nullptr), raise(SIGPIPE);
            say("%s ", written_to(dead[1]));
            sigpending(&pending);
            say("pending %d ", sigismember(&pending, SIGPIPE));
        }
    });
    EXPECT_EQ("ENOSPC ok EPIPE pending 0 EPIPE pending 1 ", child.said);
}

// The ends for writing of streams that nobody reads: a pipe, a socket and two terminals, one of them stopped.
std::vector<int> stuck_streams()
{
    int ends[2], sockets[2], master, slave, stopped;
    EXPECT_EQ(0, pipe(ends) + socketpair(AF_UNIX, SOCK_STREAM, 0, sockets));
    EXPECT_EQ(0, openpty(&master, &slave, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, openpty(&master, &stopped, nullptr, nullptr, nullptr) + tcflow(stopped, TCOOFF));
    return {ends[1], sockets[1], slave, stopped};
}

void expect_give_up(int fd)
{
    an_output out;
    const auto write = [&] {
        out.open(fd);
        out.write(much.data(), much.size());
    };
    const double first = seconds(write), again = seconds(write);
    EXPECT_TRUE(first > 0.9 && first < 5 && again < 0.5) << fd << " " << first << " " << again;
    EXPECT_EQ(ETIMEDOUT, out.error()) << fd;
}

// As another user the process may not open its pipes and terminals once more.
TEST(Output, GivesUpAStreamThatTakesNothingForASecondAndAllOfThemInTwoWhenTheProcessEnds)
{
    for (const uid_t user : {geteuid(), uid_t(65534)}) {
        const a_child child = in_child([&] {
            std::vector<std::jthread> threads;
            const auto streams = stuck_streams();
            if (seteuid(user) == 0)
                for (int fd : streams)
                    threads.emplace_back(expect_give_up, fd);
        });
        EXPECT_EQ(0, child.status) << "user " << user;
    }
    const auto end_with_all = [] {
        for (int fd : stuck_streams())
            EXPECT_STREQ("ETIMEDOUT", written_to(fd));
    };
    EXPECT_EQ(0, in_child([&] {
                     unix_process_ends();
                     EXPECT_GT(3, seconds(end_with_all));
                 }).status);
}

TEST(Output, IsNotBlockedByAnotherWriterAndWaitsForASlowReader)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    EXPECT_EQ(0, in_child([&] {
                     pipe_to_fill = ends[1];
                     EXPECT_STREQ("ETIMEDOUT", written_to(ends[1]));
                 }).status);
    const std::jthread reader([&] {
        char taken[PIPE_BUF];
        for (int i = 0; i < 5; i++) {
            usleep(300000);
            EXPECT_LT(0, read(ends[0], taken, sizeof taken));
        }
    });
    fill(ends[1]);
    an_output out;
    out.open(ends[1]);
    out.write(much.data(), 5 * PIPE_BUF);
    EXPECT_EQ(0, out.error());
    out.close();
}

// The size of the file after a text of four bytes, or why it cannot be opened.
std::string opened(const std::string& name, int how = O_APPEND)
{
    struct stat about;
    const int fd = unix_open_output(name.c_str(), how);
    if (fd < 0)
        return strerrorname_np(errno);
    EXPECT_LT(2, fd) << "a standard number";
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(4, write(fd, "text", 4));
    EXPECT_EQ(0, fstat(fd, &about) + close(fd));
    return std::to_string(about.st_size);
}

TEST(OpenOutput, FollowsNoLinkThatAnotherUserPutIntoASharedFolder)
{
    char name[] = "/tmp/output_test.XXXXXX";
    const std::filesystem::path folder = mkdtemp(name);
    const auto link = [&](const std::string& target, const char* link_name, uid_t owner = geteuid()) {
        EXPECT_EQ(0, symlink(target.c_str(), (folder / link_name).c_str()));
        EXPECT_EQ(0, lchown((folder / link_name).c_str(), owner, gid_t(-1)));
    };
    EXPECT_EQ("4", opened(folder / "new"));
    EXPECT_EQ("4", opened(folder / "new", O_TRUNC));
    EXPECT_EQ(0, in_child([&] {
                     EXPECT_EQ(0, chdir(name) + close(STDIN_FILENO));
                     EXPECT_EQ("4", opened("relative"));
                 }).status);
    link("new", "to-new");
    link(folder / "to-new", "chain");
    link("loop", "loop");
    EXPECT_EQ("8", opened(folder / "chain"));
    EXPECT_EQ("ELOOP", opened(folder / "loop"));
    link("/proc/self/fd/" + std::to_string(open((folder / "new").c_str(), O_RDONLY)), "to-descriptor");
    EXPECT_EQ("12", opened(folder / "to-descriptor"));
    if (geteuid() == 0) {  // only root gives files away
        link("new", "planted", 65534);
        link("planted", "to-planted");
        EXPECT_EQ("16", opened(folder / "planted")) << "the folder is not shared";
        EXPECT_EQ(0, chmod(name, 01777));
        EXPECT_EQ("EACCES", opened(folder / "planted"));
        EXPECT_EQ("EACCES", opened(folder / "to-planted"));
        EXPECT_EQ(0, chown(name, 65534, gid_t(-1)));
        EXPECT_EQ("20", opened(folder / "planted")) << "the folder's owner put it there";
        EXPECT_EQ("24", opened(folder / "chain")) << "the caller put them there";
    }
    std::filesystem::remove_all(folder);
}

}  // namespace
