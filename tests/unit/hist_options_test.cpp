// hist_options_test.cpp: the grammar of the option string, as a table of strings and the settings that they change.
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "utils/etc/uthist/hist_config.h"

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
    {"append", &a_ut_hist_settings::ut_hist_dump_append},
    {"report", &a_ut_hist_settings::ut_hist_dump_report},
    {"cleanup", &a_ut_hist_settings::ut_hist_exit_cleanup},
    {"ia", &a_ut_hist_settings::ut_hist_inc_tod},
    {"ic", &a_ut_hist_settings::ut_hist_inc_class},
    {"id_", &a_ut_hist_settings::ut_hist_inc_dur},
    {"ie", &a_ut_hist_settings::ut_hist_inc_event},
    {"ii", &a_ut_hist_settings::ut_hist_inc_id},
    {"il", &a_ut_hist_settings::ut_hist_inc_line},
    {"im", &a_ut_hist_settings::ut_hist_inc_sigmask},
    {"in", &a_ut_hist_settings::ut_hist_inc_num},
    {"ip", &a_ut_hist_settings::ut_hist_inc_parms},
    {"iq", &a_ut_hist_settings::ut_hist_inc_queue},
    {"ir", &a_ut_hist_settings::ut_hist_inc_prio},
    {"is", &a_ut_hist_settings::ut_hist_inc_file},
    {"it", &a_ut_hist_settings::ut_hist_inc_thread},
};

// What parsing changes, in the order above, then the names, the line ending, the switch and the complaints.
std::string changes(const char* options)
{
    hist_cfg = {};
    ut_hist_debug = 1;
    hist_cfg.ut_hist_debug_rec_stats = 1;
    char* written = nullptr;
    size_t size = 0;
    FILE* err = open_memstream(&written, &size);
    hist_cfg.ut_hist_dump_err_file = err;
    char* copy = strdup(options);
    hist_parse_options(copy);
    free(copy);
    fclose(err);

    a_ut_hist_settings defaults;
    defaults.ut_hist_debug_rec_stats = 1;
    std::string seen;
    for (const a_number_setting& number : numbers)
        if (hist_cfg.*number.variable != defaults.*number.variable)
            seen += std::string(number.name) + "=" + std::to_string(hist_cfg.*number.variable) + " ";
    if (strcmp(hist_cfg.ut_hist_dump_err_name, "stderr") != 0)
        seen += "err<" + std::string(hist_cfg.ut_hist_dump_err_name) + "> ";
    if (hist_cfg.ut_hist_dump_log_name != nullptr)
        seen += "log<" + std::string(hist_cfg.ut_hist_dump_log_name) + "> ";
    if (strcmp(hist_cfg.ut_hist_eol, "\n") != 0)
        seen += "crlf ";
    if (ut_hist_debug != 1)
        seen += "off ";
    for (const char* at = written; (at = strstr(at, "unknown UT_HIST option char '")) != nullptr; at++)
        seen.append("?").append(at + 29, 1).append(" ");
    free(written);
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
