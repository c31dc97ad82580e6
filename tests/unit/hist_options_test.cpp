// hist_options_test.cpp: the grammar of the option string, as a table of strings and the settings that they change.
#include <stdlib.h>
#include <string.h>

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
        seen += "?" + std::string(at + 29, 1) + " ";
    free(written);
    return seen.empty() ? seen : seen.substr(0, seen.size() - 1);
}

}  // namespace

TEST(HistOptions, ChangeWhatTheyName)
{
    struct a_case {
        const char* options;
        const char* changed;
    };
    const a_case cases[] = {
        {",,,", ""},
        {"a-", "append=0"},
        {"A-+", ""},
        {"a-5", "append=0 ?5"},
        {"c", "crlf"},
        {"C-", ""},
        {"c+-+", "crlf"},
        {"d-", "data=0"},
        {"d100-", "data=0 size=100"},
        {"D0", "size=0"},
        {"d1+2-3", "data=0 size=3"},
        {"e", "err<ut_hist.out>"},
        {"e-", ""},
        {"e=x.out,-", ""},
        {"e-+=a{b,c", "err<a{b> crlf"},
        {"e=my.err,Z", "z=2 err<my.err>"},
        {"e{a,b}z", "z=1 err<a,b>"},
        {"E=stderr", ""},
        {"e=", "err<>"},
        {"e{}", "err<>"},
        {"e{no-end,", "err<no-end,>"},
        {"e=a,=b,{c}z", "z=1 err<c>"},
        {"f-", "fini=0"},
        {"F", ""},
        {"ia-ic-id-ie-", "ia=0 ic=0 id_=0 ie=0"},
        {"ii-il-IM+in-", "ii=0 il=0 im=1 in=0"},
        {"iP-iqIRis-it-", "ip=0 iq=1 ir=1 is=0 it=0"},
        {"i", "?i"},
        {"I,z", "z=1 ?I"},
        {"ib", "?i ?b"},
        {"iz", "z=1 ?i"},
        {"iiz-", ""},
        {"k", "knum=100"},
        {"k0", "knum=100"},
        {"k-", ""},
        {"k-50", ""},
        {"k25", "knum=25"},
        {"k-+", "knum=100"},
        {"k25k", "knum=25"},
        {"k25k-", ""},
        {"k25,k0", "knum=100"},
        {"l", "log<ut_hist.log>"},
        {"l-", ""},
        {"l=/tmp/h.log", "log</tmp/h.log>"},
        {"L{a,}f-", "fini=0 log<a,>"},
        {"l=", "log<>"},
        {"l=a,l-", ""},
        {"l-l=a", "log<a>"},
        {"me0", ""},
        {"me5mi6mf7", "file=7 id=6 ev=5"},
        {"mE+-9MF", "ev=9"},
        {"me5me0", ""},
        {"m", "?m"},
        {"m5", "?m ?5"},
        {"n0", "num=1"},
        {"n10+20", "num=20"},
        {"N", ""},
        {"n5000k", "num=5000 knum=100"},
        {"n-7", "num=7"},
        {"n99999999999999999999", "num=2147483647"},
        {"d2147483648", "size=2147483647"},
        {"q", "by_thr=1"},
        {"q8", "num_q=8 by_thr=1"},
        {"q40", "num_q=32 by_thr=1"},
        {"q2", "by_thr=1"},
        {"q-8", ""},
        {"q8q", "by_thr=1"},
        {"q8-", ""},
        {"Q9+q-", ""},
        {"r-", "report=0"},
        {"R", ""},
        {"s-", "sig=0"},
        {"S", "sig=2"},
        {"S-", "sig=0"},
        {"s-S", "sig=2"},
        {"Ss", ""},
        {"x", "cleanup=2"},
        {"X", ""},
        {"x-", "cleanup=0"},
        {"X-", "cleanup=0"},
        {"xX", ""},
        {"ye-", "off"},
        {"YS-", "stats=0"},
        {"ye-ye+", ""},
        {"y", "?y"},
        {"yx", "cleanup=2 ?y"},
        {"z", "z=1"},
        {"Z", "z=2"},
        {"Z-", ""},
        {"zn5000k", "num=5000 z=1 knum=100"},
        {"zzZz", "z=1"},
        {"OFF", "?O"},
        {"+z", "z=1 ?+"},
        {"7 u\"{}", "?7 ?  ?u ?\" ?{ ?}"},
        {"\xe4z", "z=1 ?\xe4"},
        {"a=b,z", "z=1 ?= ?b"},
        {"k{5}", "knum=100 ?{ ?5 ?}"},
    };
    for (const a_case& c : cases)
        EXPECT_EQ(changes(c.options), c.changed) << "UT_HIST=" << c.options;
}
