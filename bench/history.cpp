// history.cpp: restarts the history between groups and checks its rings.
#include "bench/history.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "bench/floor.h"

namespace {

// Locks are cheaper in a process that never had a second thread. A server has had one.
const bool had_second_thread [[maybe_unused]] = (std::thread([] {}).join(), true);

// Folders of history files; they go with the process that made them, and with what its children have left.
class a_folder {
public:
    explicit a_folder(const std::string& in) : path(in + "/corvex-bench-XXXXXX") { (void)!mkdtemp(path.data()); }
    ~a_folder()
    {
        ut_hist_fini();
        std::error_code error;
        std::filesystem::remove_all(path, error);
    }
    a_folder& operator=(a_folder&&) = delete;  // nor copies

    std::string path;
};

}  // namespace

void restart_history(const char* options, const char* slots, const char* ext)
{
    ut_hist_fini();
    const std::string value = "x,s-,r-,l=/dev/null,n" + std::to_string(ring_size) + "," + options;
    setenv("UT_HIST", value.c_str(), 1);
    setenv("UT_HIST_THREAD_SLOT", slots, 1);
    setenv("UT_HIST_EXT", ext, 1);
    ut_hist_init();
}

void restart_with_file(const char* options, const char* folder, const char* name)
{
    static std::map<std::string, a_folder> folders;
    const a_folder& made = folders.try_emplace(folder, folder).first->second;
    restart_history(options, "dense", ("file=" + made.path + "/" + name).c_str());
}

int64_t dump_lines()
{
    char* text = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    ut_hist_dump_to_file(stream);
    fclose(stream);
    const int64_t lines = std::count(text, text + size, '\n');
    free(text);
    return lines;
}

void expect_recorded(benchmark::State& state)
{
    if (dump_lines() < std::min<int64_t>(state.iterations(), ring_size - 1))
        state.SkipWithError("the history did not record");
}
