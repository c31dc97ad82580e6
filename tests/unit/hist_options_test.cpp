// hist_options_test.cpp: the grammar of the option string, as a table of strings and the settings that they change.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "utils/etc/uthist/hist_config.h"
#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/uthist.h"

namespace {

struct a_number_setting {
    const char* name;
    int32 a_ut_hist_settings::*variable;
};
constexpr a_number_setting numbers[] = {
    {"num", &a_ut_hist_settings::ut_hist_debug_num},
    {"num_q", &a_ut_hist_settings::hist_num_q},
    {"by_thr", &a_ut_hist_settings::ut_hist_debug_q_by_thr},
    {"data", &a_ut_hist_settings::ut_hist_debug_data},
    {"size", &a_ut_hist_settings::ut_hist_debug_data_size},
    {"fini", &a_ut_hist_settings::ut_hist_dump_on_fini},
    {"sig", &a_ut_hist_settings::ut_hist_dump_on_sig},
    {"z", &a_ut_hist_settings::ut_hist_z_messages},
    {"file", &a_ut_hist_settings::hist_max_file_len},
    {"id", &a_ut_hist_settings::hist_max_id_len},
    {"ev", &a_ut_hist_settings::hist_max_ev_len},
    {"stats", &a_ut_hist_settings::ut_hist_debug_rec_stats},
    {"knum", &a_ut_hist_settings::ut_hist_debug_knum},
    {"report", &a_ut_hist_settings::ut_hist_dump_report},
    {"cleanup", &a_ut_hist_settings::ut_hist_exit_cleanup},
};

// What parsing changes, in the order above, then the columns, names, line ending, switch and complaints. What it writes
// on the message stream, which is standard error or a file in this directory, is found there.
std::string changes(const char* options)
{
    char captured[] = "/tmp/corvex-options-XXXXXX";
    const int file = mkstemp(captured), kept = dup(STDERR_FILENO);
    dup2(file, STDERR_FILENO);
    ut_hist_static_defaults();
    hist_cfg.ut_hist_debug_rec_stats = 1;
    const a_ut_hist_settings defaults = hist_cfg;
    ut_hist_debug = 1;
    char* copy = strdup(options);
    hist_parse_options(copy);
    free(copy);
    dup2(kept, STDERR_FILENO);
    close(kept);
    close(file);
    std::stringstream written;
    written << std::ifstream(captured).rdbuf();
    unlink(captured);

    std::string seen;
    for (const a_number_setting& number : numbers)
        if (hist_cfg.*number.variable != defaults.*number.variable)
            seen += std::string(number.name) + "=" + std::to_string(hist_cfg.*number.variable) + " ";
    if (hist_streams.ut_hist_dump_append != 1)
        seen += "append=" + std::to_string(hist_streams.ut_hist_dump_append) + " ";
    for (char c = 'a'; c <= 'z'; c++)
        if (hist_cfg.include[c - 'a'] != defaults.include[c - 'a'])
            seen += std::string("i") + c + "=" + std::to_string(hist_cfg.include[c - 'a']) + " ";
    if (strcmp(hist_errout_name(), "stderr") != 0)
        seen += "err<" + std::string(hist_errout_name()) + "> ";
    if (hist_cfg.ut_hist_dump_log_name != nullptr)
        seen += "log<" + std::string(hist_cfg.ut_hist_dump_log_name) + "> ";
    if (strcmp(hist_streams.ut_hist_eol, "\n") != 0)
        seen += "crlf ";
    if (ut_hist_debug != 1)
        seen += "off ";
    const std::string text = written.str(), report = "unknown UT_HIST option char '";
    for (size_t at = 0; (at = text.find(report, at)) != std::string::npos; at += report.size())
        seen.append("?").append(text, at + report.size(), 1).append(" ");
    return seen.empty() ? seen : seen.substr(0, seen.size() - 1);
}

}  // namespace

TEST(HistOptions, ChangeWhatTheyName)
{
    std::ifstream cases(SOURCE_DIR "/tests/unit/hist_options.txt");  // options, a tab, what they change
    std::string line;
    int read = 0;
    for (; std::getline(cases, line); read++) {
        const size_t tab = line.find('\t');
        EXPECT_EQ(changes(line.substr(0, tab).c_str()), line.substr(tab + 1)) << "UT_HIST=" << line.substr(0, tab);
    }
    EXPECT_GT(read, 90);
}
