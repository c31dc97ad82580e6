// hist_played.h: runs hist_play in a scratch directory and collects all that the history wrote.
#ifndef PROCESS_HIST_PLAYED_H
#define PROCESS_HIST_PLAYED_H

#include <map>
#include <regex>

#include "tests/process/run.h"

const std::string stamp = "@ 2023/11/14 22:13:20 ..........\n", gap = "........ ......\n";

struct a_played {
    std::string out, err, log;  // the program's two streams, ut_hist.log
    std::map<std::string, std::string> files;
};

inline std::string replaced(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

// The matches in a text, each once where it follows itself, as lines.
inline std::string matches(const std::string& text, const char* pattern)
{
    const std::regex expression(pattern);
    std::string all, last;
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; last = (at++)->str())
        all += at->str() != last ? at->str() + "\n" : "";
    return all;
}

inline size_t count(const std::string& text, const std::string& part)
{
    size_t found = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; found++)
        at += part.size();
    return found;
}

inline a_played played(const std::string& options, const a_text_list& script, const a_text_list& more_env = {"TZ=UTC"})
{
    const a_scratch_dir dir;
    a_text_list env = more_env;
    env.push_back("UT_HIST=" + options);
    const a_run result = run("hist_play", env, script, dir.path);
    EXPECT_TRUE(result.exited_well()) << options << ": status " << result.status << "\n" << result.err;
    a_played seen = {result.out, result.err, read_file(dir.path + "/ut_hist.log"), {}};
    for (const auto& file : std::filesystem::directory_iterator(dir.path))
        if (file.is_regular_file())
            seen.files[file.path().filename()] = read_file(file.path());
    return seen;
}

// A text of tests/process/expected.
inline std::string expected(const std::string& name) { return read_file(SOURCE_DIR "/tests/process/expected/" + name); }

// The rows of the event table alone, without banners, header and statistics.
inline std::string rows(const std::string& dump)
{
    const size_t header = dump.find('\n', dump.find("HISTORY DUMP BIGIN"));
    const size_t first = dump.find('\n', header + 1) + 1;
    return dump.substr(first, dump.find("**********", first) - first);
}

#endif
