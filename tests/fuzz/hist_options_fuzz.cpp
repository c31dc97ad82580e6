// hist_options_fuzz.cpp: feeds the option parser of the history; LLVMFuzzerTestOneInput as the fuzzer calls it. Built
// with CORVEX_FUZZ and clang it fuzzes (run it with a corpus directory and -max_total_time=<seconds>); built as part of
// the suite it replays the files and directories named as its arguments.
//
// Whatever the string, parsing ends, stays inside its copy and leaves settings that start-up can use.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
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

namespace {

void require(bool holds, const char* what)
{
    if (holds)
        return;
    fprintf(stderr, "violated: %s\n", what);
    abort();
}

bool is_flag(int32 value) { return value == 0 || value == 1; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const int nowhere = dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);  // the messages
    require(nowhere >= 0, "there is a stream");
    ut_hist_static_defaults();
    const size_t len = size < env_buf_size ? size : env_buf_size - 1;
    char* const options = static_cast<char*>(malloc(len + 1));  // its exact size, for the sanitizer
    memcpy(options, data, len);
    options[len] = '\0';
    hist_parse_options(options);
    free(options);
    hist_write_settings();
    hist_errout_close();

    const a_ut_hist_settings& cfg = hist_cfg;
    require(cfg.ut_hist_debug_num >= 1, "a ring has a slot");
    require(cfg.hist_num_q >= 3 && cfg.hist_num_q <= int32(hist_max_queues), "3 to 32 queues");
    require(cfg.hist_num_q == 3 || cfg.ut_hist_debug_q_by_thr == 1, "more queues only by thread");
    require(cfg.hist_max_file_len > 0 && cfg.hist_max_id_len > 0 && cfg.hist_max_ev_len > 0, "texts have room");
    require(cfg.ut_hist_debug_knum >= 0 && cfg.ut_hist_debug_data_size >= 0, "sizes do not wrap");
    require(is_flag(cfg.ut_hist_debug_data) && is_flag(cfg.ut_hist_dump_on_fini) &&
                is_flag(hist_streams.ut_hist_dump_append),
            "flags");
    require(cfg.ut_hist_dump_on_sig <= 2 && cfg.ut_hist_exit_cleanup <= 2 && cfg.ut_hist_z_messages <= 2, "levels");
    require(strlen(hist_errout_name()) < env_buf_size, "a name ends");
    require(cfg.ut_hist_dump_log_name == nullptr || strlen(cfg.ut_hist_dump_log_name) < env_buf_size, "a name ends");
    return 0;
}

#ifndef FUZZER
int main(int argc, char** argv)
{
    int replayed = 0;
    for (int i = 1; i < argc; i++)
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string input{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
            replayed++;
        }
    printf("replayed %d\n", replayed);
    return replayed > 0 ? 0 : 1;
}
#endif
