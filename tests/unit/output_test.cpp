// Output by descriptor: streams that would kill or hang the process, and the files that are opened for it.
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "tests/child.h"
#include "utils/etc/utfatal.h"
#include "utils/unix/unixout.h"
#include "utils/unix/utending.h"

namespace {

int pipe_to_fill = -1;
const std::string much = [] {
    std::string lines;
    while (lines.size() < 1 << 20)
        lines += std::string(lines.size() % 300, 'x') + "\n";
    return lines;
}();

// Fills a stream as another writer would.
void fill(int fd)
{
    fcntl(fd, F_SETFL, O_NONBLOCK);
    while (write(fd, much.data(), PIPE_BUF) > 0)
        continue;
    fcntl(fd, F_SETFL, 0);
}

double seconds(const std::function<void()>& body)
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

}  // namespace

// Between a poll and a write another writer fills the pipe.
extern "C" int poll(struct pollfd* fds, nfds_t num, int timeout)
{
    const int ready = int(syscall(SYS_poll, fds, num, timeout));
    if (ready > 0 && pipe_to_fill >= 0)
        fill(pipe_to_fill);
    return ready;
}

namespace {

TEST(Output, RaisesNoSignalAndTellsWhyAStreamFailed)
{
    const a_child child = in_child([] {
        const rlimit limit = {1000, 1000};
        int dead[2];
        sigset_t set;
        EXPECT_EQ(0, pipe(dead));
        close(dead[0]);
        say("%s ", written_to(dead[1]));
        setvbuf(stdout, nullptr, _IONBF, 0);
        dup2(dead[1], STDOUT_FILENO);
        ut_fatal("fatal");
        say("%s ", written_to(open("/dev/full", O_WRONLY)));
        say("%s ", written_to(1000));
        say("%s ", written_to(-1));
        setrlimit(RLIMIT_FSIZE, &limit);
        say("%s ", written_to(open("/tmp", O_TMPFILE | O_WRONLY, 0600)));
        sigpending(&set);
        say("pending %d%d ", sigismember(&set, SIGPIPE), sigismember(&set, SIGXFSZ));
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        raise(SIGPIPE);
        written_to(dead[1]);
        sigpending(&set);
        say("%d", sigismember(&set, SIGPIPE));
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ("EPIPE ENOSPC EBADF ok EFBIG pending 00 1", child.said);
}

// Pairs of a stream's name and its end for writing, which nobody reads.
std::vector<std::pair<const char*, int>> stuck_streams()
{
    int ends[2], sockets[2], master, slave, stopped;
    EXPECT_EQ(0, pipe(ends));
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sockets));
    EXPECT_EQ(0, openpty(&master, &slave, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, openpty(&master, &stopped, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, tcflow(stopped, TCOOFF));
    return {{"pipe", ends[1]}, {"socket", sockets[1]}, {"terminal", slave}, {"stopped terminal", stopped}};
}

void expect_give_up(const char* name, int fd)
{
    bool hooked = false;
    an_output out;
    const auto write = [&] {
        out.open(fd);
        out.write(much.data(), much.size());
    };
    out.when_waited([](void* flag) { *static_cast<bool*>(flag) = true; }, &hooked);
    const double first = seconds(write), again = seconds(write);
    EXPECT_TRUE(first > 0.9 && first < 5 && again < 0.5) << name << " " << first << " " << again;
    EXPECT_EQ(ETIMEDOUT, out.error()) << name;
    EXPECT_TRUE(hooked) << name;
}

// As another user the process may not open its pipes and terminals once more.
TEST(Output, GivesUpAStreamThatTakesNothingForASecondAndAllOfThemInTwoWhenTheProcessEnds)
{
    for (const uid_t user : {geteuid(), uid_t(65534)}) {
        const a_child child = in_child([&] {
            std::vector<std::thread> threads;
            const auto streams = stuck_streams();
            if (seteuid(user) != 0)
                return;
            for (const auto& [name, fd] : streams)
                threads.emplace_back(expect_give_up, name, fd);
            for (std::thread& thread : threads)
                thread.join();
        });
        EXPECT_EQ(0, child.status) << "user " << user;
    }
    const a_child ending = in_child([] {
        unix_process_ends();
        EXPECT_GT(3, seconds([] {
                      for (const auto& [name, fd] : stuck_streams())
                          EXPECT_STREQ("ETIMEDOUT", written_to(fd)) << name;
                  }));
    });
    EXPECT_EQ(0, ending.status);
}

TEST(Output, IsNotBlockedByAnotherWriterAndWaitsForASlowReader)
{
    const a_child child = in_child([] {
        int ends[2];
        EXPECT_EQ(0, pipe(ends));
        pipe_to_fill = ends[1];
        EXPECT_STREQ("ETIMEDOUT", written_to(ends[1]));
    });
    EXPECT_EQ(0, child.status);

    int ends[2], hooked = 0;
    ASSERT_EQ(0, pipe(ends));
    fill(ends[1]);
    std::thread reader([&] {
        char taken[PIPE_BUF];
        for (int i = 0; i < 5; i++) {
            usleep(300000);
            EXPECT_LT(0, read(ends[0], taken, sizeof taken));
        }
    });
    an_output out;
    out.open(ends[1]);
    out.when_waited([](void* times) { ++*static_cast<int*>(times); }, &hooked);
    out.write(much.data(), 5 * PIPE_BUF);
    EXPECT_EQ(0, out.error());
    EXPECT_EQ(1, hooked);
    reader.join();
    out.close();
    close(ends[0]);
    close(ends[1]);
}

// A new folder, gone with the scope.
struct a_folder {
    a_folder() { EXPECT_NE(nullptr, mkdtemp(path)); }
    ~a_folder() { EXPECT_EQ(0, system((std::string("rm -r ") + path).c_str())); }
    std::string operator/(const char* name) const { return std::string(path) + "/" + name; }
    char path[32] = "/tmp/output_test.XXXXXX";
};

const char* opened(const std::string& name, int how = O_APPEND)
{
    const int fd = unix_open_output(name.c_str(), how);
    if (fd < 0)
        return strerrorname_np(errno);
    EXPECT_LT(2, fd);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(4, write(fd, "text", 4));
    close(fd);
    return "ok";
}

off_t size_of(const std::string& name)
{
    struct stat about;
    return stat(name.c_str(), &about) == 0 ? about.st_size : -1;
}

TEST(OpenOutput, OpensAsStdioDoesButWaitsForNobodyAndTakesNoStandardNumber)
{
    const a_folder folder;
    EXPECT_STREQ("ok", opened(folder / "file"));
    EXPECT_STREQ("ok", opened(folder / "file"));
    EXPECT_EQ(8, size_of(folder / "file"));
    EXPECT_STREQ("ok", opened(folder / "file", O_TRUNC));
    EXPECT_EQ(4, size_of(folder / "file"));
    EXPECT_STREQ("ENOENT", opened(folder / "none/file"));
    EXPECT_STREQ("ENAMETOOLONG", opened(std::string(2000, '/')));
    EXPECT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
    EXPECT_STREQ("ENXIO", opened(folder / "fifo"));
    const a_child child = in_child([&] {
        EXPECT_EQ(0, chdir(folder.path));
        close(STDIN_FILENO);
        EXPECT_STREQ("ok", opened("file"));
    });
    EXPECT_EQ(0, child.status);
}

TEST(OpenOutput, FollowsNoLinkThatAnotherUserPutIntoASharedFolder)
{
    const a_folder folder;
    const auto link = [&](const char* target, const char* name, uid_t owner = geteuid()) {
        EXPECT_EQ(0, symlink(target, (folder / name).c_str()));
        EXPECT_EQ(0, lchown((folder / name).c_str(), owner, gid_t(-1)));
    };
    link("new", "to-new");
    link((folder / "to-new").c_str(), "chain");
    link("loop", "loop");
    EXPECT_STREQ("ok", opened(folder / "chain"));
    EXPECT_EQ(4, size_of(folder / "new"));
    EXPECT_STREQ("ELOOP", opened(folder / "loop"));
    const int fd = open((folder / "new").c_str(), O_RDONLY);
    link(("/proc/self/fd/" + std::to_string(fd)).c_str(), "to-descriptor");
    EXPECT_STREQ("ok", opened(folder / "to-descriptor"));
    EXPECT_EQ(8, size_of(folder / "new"));
    close(fd);

    if (geteuid() != 0)
        GTEST_SKIP() << "only root gives files away";
    link("new", "planted", 65534);
    link("planted", "to-planted");
    EXPECT_STREQ("ok", opened(folder / "planted")) << "the folder is not shared";
    EXPECT_EQ(0, chmod(folder.path, 01777));
    EXPECT_STREQ("EACCES", opened(folder / "planted"));
    EXPECT_STREQ("EACCES", opened(folder / "to-planted"));
    EXPECT_EQ(0, chown(folder.path, 65534, gid_t(-1)));
    EXPECT_STREQ("ok", opened(folder / "planted")) << "the folder's owner put it there";
    EXPECT_STREQ("ok", opened(folder / "chain")) << "the caller put them there";
}

}  // namespace
