// run.h: runs a program in a fresh process with an environment of its own and collects what it wrote.
//
// The child gets PATH, HOME and the given variables, nothing else of the environment (sanitizer options are passed on),
// and the given directory as its working directory.
#ifndef PROCESS_RUN_H
#define PROCESS_RUN_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using a_text_list = std::vector<std::string>;

struct a_run {
    int status = -1;  // as waitpid gives it
    std::string out;
    std::string err;
    bool exited_well() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
    bool died_of(int sig) const { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }
};

inline std::string read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// A fresh directory that goes with the object.
class a_scratch_dir {
public:
    a_scratch_dir()
    {
        char name[] = "/tmp/corvex-test-XXXXXX";
        path = mkdtemp(name);
    }
    ~a_scratch_dir() { std::filesystem::remove_all(path); }
    std::string path;
};

inline void become(const std::string& program, const a_text_list& args, const a_text_list& env, const std::string& dir)
{
    std::vector<char*> argv{const_cast<char*>(program.c_str())}, envp;
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    for (const std::string& variable : env)
        envp.push_back(const_cast<char*>(variable.c_str()));
    for (const char* name : {"PATH", "HOME", "ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
        if (const char* value = getenv(name))
            envp.push_back(const_cast<char*>((new std::string(std::string(name) + "=" + value))->c_str()));
    envp.push_back(nullptr);
    const int out = open((dir + "/.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open((dir + "/.err").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_TRUNC, 0600);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    if (chdir(dir.c_str()) == 0)
        execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
}

// A program that hangs fails its test.
inline int end_of(pid_t child)
{
    const int seconds = 120;
    struct pollfd ended = {int(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
    if (ended.fd >= 0 && poll(&ended, 1, seconds * 1000) == 0) {
        ADD_FAILURE() << "the program did not end in " << seconds << " s";
        kill(child, SIGKILL);
    }
    close(ended.fd);
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

// Runs a program of tests/process/programs (or an absolute path) to its end, in `dir`.
inline a_run run(const std::string& program, const a_text_list& env, const a_text_list& args, const std::string& dir)
{
    const std::string path = program[0] == '/' ? program : std::string(PROGRAM_DIR) + "/" + program;
    a_run result;
    const pid_t child = fork();
    if (child == 0)
        become(path, args, env, dir);
    result.status = end_of(child);
    result.out = read_file(dir + "/.out");
    result.err = read_file(dir + "/.err");
    return result;
}

inline a_run run(const std::string& program, const a_text_list& env, const a_text_list& args = {})
{
    const a_scratch_dir dir;
    return run(program, env, args, dir.path);
}

#endif
