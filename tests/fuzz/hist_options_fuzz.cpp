// hist_options_fuzz.cpp: whatever UT_HIST says, parsing ends, stays inside a copy of its exact size and leaves settings
// that start-up can use. Built with FUZZER it fuzzes, else it replays the files of the directory that is its argument.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "utils/etc/uthist/hist_config.h"
#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/uthist.h"

// Names come from the fuzzer: nothing but /dev/null is opened for writing.
extern "C" int open(const char* name, int flags, ...)
{
    return int(syscall(SYS_openat, AT_FDCWD, (flags & O_CREAT) != 0 ? (*name == '\0' ? "" : "/dev/null") : name,
                       flags & ~O_CREAT, 0));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ut_hist_static_defaults();
    char* const options = strndup(reinterpret_cast<const char*>(data), size < env_buf_size ? size : env_buf_size - 1);
    hist_parse_options(options);
    free(options);
    hist_write_settings(nullptr);
    hist_errout_close();

    const a_ut_hist_settings& cfg = hist_cfg;
    const bool usable = cfg.ut_hist_debug_num >= 1 && cfg.hist_num_q >= 3 && cfg.hist_num_q <= int32(hist_max_queues) &&
                        (cfg.hist_num_q == 3 || cfg.ut_hist_debug_q_by_thr == 1) && cfg.hist_max_file_len > 0 &&
                        cfg.hist_max_id_len > 0 && cfg.hist_max_ev_len > 0 && cfg.ut_hist_debug_knum >= 0 &&
                        cfg.ut_hist_debug_data_size >= 0;
    if (!usable)
        abort();
    return 0;
}

#ifndef FUZZER
int main(int, char** argv)
{
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    }
}
#endif
