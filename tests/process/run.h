// run.h: runs a program in a fresh process, in a directory and with an environment of its own (what is given, PATH,
// HOME and the sanitizers' options), and collects what it wrote.
#ifndef PROCESS_RUN_H
#define PROCESS_RUN_H

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using a_text_list = std::vector<std::string>;

struct a_run {
    int status = -1;  // as waitpid gives it
    std::string out, err;
    bool exited_well() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
    bool died_of(int sig) const { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }
};

inline std::string read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A fresh directory that goes with the object.
struct a_scratch_dir {
    char path_template[32] = "/tmp/corvex-test-XXXXXX";
    const std::string path = mkdtemp(path_template);
    ~a_scratch_dir() { std::filesystem::remove_all(path); }
};

inline std::vector<char*> pointers(a_text_list& texts)
{
    std::vector<char*> all(texts.size() + 1);
    std::transform(texts.begin(), texts.end(), all.begin(), [](std::string& text) { return text.data(); });
    return all;
}

// Runs a program of tests/process/programs (or an absolute path) to its end. One that hangs fails its test.
inline a_run run(const std::string& program, a_text_list env, a_text_list args = {},
                 const std::string& dir = a_scratch_dir().path)
{
    args.insert(args.begin(), program[0] == '/' ? program : std::string(PROGRAM_DIR) + "/" + program);
    for (const char* name : {"PATH", "HOME", "ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
        if (const char* value = getenv(name))
            env.push_back(std::string(name) + "=" + value);
    a_run result;
    const pid_t child = fork();
    if (child == 0) {
        alarm(120);  // which the program inherits
        dup2(open((dir + "/.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open((dir + "/.err").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_TRUNC, 0600), STDERR_FILENO);
        if (chdir(dir.c_str()) == 0)
            execve(args[0].c_str(), pointers(args).data(), pointers(env).data());
        _exit(127);
    }
    waitpid(child, &result.status, 0);
    EXPECT_FALSE(result.died_of(SIGALRM)) << program << " hung";
    result.out = read_file(dir + "/.out");
    result.err = read_file(dir + "/.err");
    return result;
}

#endif
