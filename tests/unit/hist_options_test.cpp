// The grammar of the option string, as a table of strings and the settings that they change.
#include <string.h>

#include <gtest/gtest.h>

#include "utils/etc/uthist/hist_config.h"
#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/uthist.h"

namespace {

using S = a_ut_hist_settings;
constexpr int32 S::*numbers[] = {
    &S::ut_hist_debug_num,       &S::hist_num_q,           &S::ut_hist_debug_q_by_thr, &S::ut_hist_debug_data,
    &S::ut_hist_debug_data_size, &S::ut_hist_dump_on_fini, &S::ut_hist_dump_on_sig,    &S::ut_hist_z_messages,
    &S::hist_max_file_len,       &S::hist_max_id_len,      &S::hist_max_ev_len,        &S::ut_hist_debug_rec_stats,
    &S::ut_hist_debug_knum,      &S::ut_hist_dump_report,  &S::ut_hist_exit_cleanup};
constexpr const char* names[] = {"num",  "num_q", "by_thr", "data",  "size", "fini",   "sig",    "z",
                                 "file", "id",    "ev",     "stats", "knum", "report", "cleanup"};

// Options, an arrow, and what they change.
const std::string table =
    R"(,,, ->  | A-+ ->  | a-5 -> append=0 ?5 | c+-+ -> crlf=2 | d1+2-3 -> data=0 size=3 | e -> err<ut_hist.out> | )"
    R"(e-+=a{b,c -> err<a{b> crlf=2 | e=my.err,Z -> z=2 err<my.err> | e{a,b}z -> z=1 err<a,b> | )"
    R"(e=a,=b,{c}z -> z=1 err<c> | ia-ic-id-ie- -> ia=0 ic=0 id=0 ie=0 | iP-iqIRis-it- -> ip=0 iq=1 ir=1 is=0 it=0 | )"
    R"(k- ->  | k25 -> knum=25 | l=a,l- ->  | l-l=a -> log<a> | me5mi6mf7 -> file=7 id=6 ev=5 | me5me0 ->  | )"
    R"(m -> ?m | n5000k -> num=5000 knum=100 | n99999999999999999999 -> num=2147483647 | q8 -> num_q=8 by_thr=1 | )"
    R"(q40 -> num_q=32 by_thr=1 | Q9+q- ->  | S -> sig=2 | x -> cleanup=2 | YS- -> stats=0 | y -> ?y | OFF -> ?O | )"
    R"(7 u"{} -> ?7 ?  ?u ?" ?{ ?} | a=b,z -> z=1 ?= ?b | k{5} -> knum=100 ?{ ?5 ?} | )";

// What parsing changes, in the order above, then the columns, names, line ending, switch and complaints.
std::string changes(const char* options)
{
    testing::internal::CaptureStderr();
    ut_hist_static_defaults();
    hist_cfg.ut_hist_debug_rec_stats = 1;
    const S defaults = hist_cfg;
    ut_hist_debug = 1;
    char* copy = strdup(options);
    hist_parse_options(copy);
    free(copy);
    const std::string text = testing::internal::GetCapturedStderr(), report = "unknown UT_HIST option char '";

    std::string seen;
    const auto add = [&](const std::string& name, auto value, auto usual) {
        if (value != usual)
            seen += name + "=" + std::to_string(value) + " ";
    };
    for (size_t i = 0; i < std::size(numbers); i++)
        add(names[i], hist_cfg.*numbers[i], defaults.*numbers[i]);
    add("append", hist_streams.ut_hist_dump_append, 1);
    for (char c = 'a'; c <= 'z'; c++)
        add(std::string("i") + c, hist_cfg.include[c - 'a'], defaults.include[c - 'a']);
    if (strcmp(hist_errout_name(), "stderr") != 0)
        seen += std::string("err<") + hist_errout_name() + "> ";
    if (hist_cfg.ut_hist_dump_log_name != nullptr)
        seen += std::string("log<") + hist_cfg.ut_hist_dump_log_name + "> ";
    add("crlf", strlen(hist_streams.ut_hist_eol), 1u);
    add("on", ut_hist_debug, 1);
    for (size_t at = 0; (at = text.find(report, at)) != std::string::npos; at += report.size())
        seen += std::string("?") + text[at + report.size()] + " ";
    return seen.substr(0, seen.empty() ? 0 : seen.size() - 1);
}

TEST(HistOptions, ChangeWhatTheyName)
{
    for (size_t at = 0, arrow, end; at < table.size(); at = end + 3) {
        arrow = table.find(" -> ", at);
        end = table.find(" | ", arrow + 3);
        const std::string options = table.substr(at, arrow - at);
        EXPECT_EQ(changes(options.c_str()), table.substr(arrow + 4, end - arrow - 4)) << "UT_HIST=" << options;
    }
    EXPECT_EQ(changes("\xffz"), "z=1 ?\xff");
}

}  // namespace
