// hist_lifecycle_test.cpp: start-up and shut-down of the history, its messages and files, ids, signals, thread slots.
#include "tests/process/hist_played.h"

namespace {

const std::string stamp = "@ 2023/11/14 22:13:20 ..........\n";

// Only the event's text is shown.
const std::string brief = "ia-id-in-it-ii-ic-ip-il-is-";

const std::string help = expected("help.txt"), settings = expected("settings.txt");

}  // namespace

TEST(HistLifecycle, StaysOffUnlessAsked)
{
    for (const a_text_list& env : {a_text_list{}, {"UT_HIST="}, {"UT_HIST=off"}}) {
        const a_scratch_dir dir;
        const a_run result = run("hist_play", env,
                                 {"debug", "id A 1 f.c a", "ev - A a", "dump", "file x", "handler", "fini", "setting 4",
                                  "setting -1", "debug", "setting 1", "debug"},
                                 dir.path);
        EXPECT_EQ(result.out, "debug 0\nA=text\nSIGUSR1 default\ndebug 0\ndebug 1\n");
        EXPECT_EQ(result.err + read_file(dir.path + "/x"), "");
        EXPECT_TRUE(result.exited_well());
    }
}

TEST(HistLifecycle, ListsItsSettings)
{
    EXPECT_EQ(played("f-z", {}).err, stamp + replaced(settings, "fini    = 1", "fini    = 0"));
    std::istringstream listing(played("f-Zn7k5d-9q4s-a-r-e=s.err,e-lXx-ia-iq", {}).err);
    std::string changed;
    for (std::string line; std::getline(listing, line) && line.find("settings end") == std::string::npos;)
        if (settings.find(line + "\n") == std::string::npos && line + "\n" != stamp)
            changed += line + "\n";
    EXPECT_EQ(changed,
              "ut_hist_debug_num       = 7\nut_hist_debug_data      = 0\nut_hist_debug_data_size = 9\n"
              "ut_hist_debug_q_by_thr  = 1 (num_q=4)\nut_hist_dump_on_sig     = 0\nut_hist_dump_on_fini    = 0\n"
              "ut_hist_dump_append     = 0\nut_hist_dump_report     = 0\nut_hist_dump_log_name   = ut_hist.log\n"
              "ut_hist_exit_cleanup    = 0\nut_hist_z_messages      = 2\n(a)ut_hist_inc_tod      = 0\n"
              "(q)ut_hist_inc_queue    = 1\n");
}

TEST(HistLifecycle, ExplainsItsOptions)
{
    EXPECT_EQ(played("f-h", {}, {"TZ=CET-1CEST,M3.5.0,M10.5.0/3"}).err, "@ 2023/11/14 23:13:20 ..........\n" + help);
    EXPECT_EQ(played("f-cib", {}).err, replaced(stamp + "unknown UT_HIST option char 'i' in ib\n" + help + stamp +
                                                    "unknown UT_HIST option char 'b' in b\n" + help,
                                                "\n", "\r\n"));
    EXPECT_EQ(played("OFf-", {}).err, stamp + "unknown UT_HIST option char 'O' in OFf-\n" + help);
    EXPECT_EQ(played("f-", {}, {"UT_HIST_THREAD_SLOT=Dense"}).err,
              stamp + "unknown UT_HIST_THREAD_SLOT value 'Dense', using 'handle'\n");
    for (const char* known : {"UT_HIST_THREAD_SLOT=", "UT_HIST_THREAD_SLOT=handle", "UT_HIST_THREAD_SLOT=dense"})
        EXPECT_EQ(played("f-", {}, {known}).err, "");
    EXPECT_EQ(played("f-" + std::string(147, ',') + "h", {}).err,
              "** HISTORY note ** UT_HIST is too long: only its first 149 characters count\n");
    EXPECT_EQ(played("f-" + std::string(146, ',') + "h", {}).err, stamp + help);
}

// An option, a column or a handled signal without its row in the guide is missing there.
TEST(HistLifecycle, HasARowInTheGuideForEachOptionColumnAndSignal)
{
    const std::string guide = read_file(SOURCE_DIR "/docs/guide.md"), sub_letter = "\t             ";
    const auto in_guide = [&](const std::string& name) { return guide.find(name) != std::string::npos; };
    std::istringstream lines(help), words(read_file(SOURCE_DIR "/utils/unix/utcore.cpp"));
    std::string letter;
    for (std::string line; std::getline(lines, line);) {
        const bool sub = line.compare(0, sub_letter.size(), sub_letter) == 0, raised = sub && line[14] == '-';
        if (line[0] == '\t' && !sub)
            letter = line.substr(1, 1);
        const std::string name = raised ? line.substr(16, 1) : sub ? letter + line[14] : letter;
        EXPECT_TRUE(name.empty() || letter == "m" || in_guide("`" + name + "`")) << line;
    }
    for (std::string word; words >> word;)
        EXPECT_TRUE(word.compare(0, 4, "{SIG") != 0 || in_guide(word.substr(1, word.find(',') - 1))) << word;
}

TEST(HistLifecycle, TellsItsStepsOnDemand)
{
    const std::string err = without_number(
        played("ZlS" + brief, {"ev - SIG s @-:3", "ev - - a 1 2", "dump", "fini", "fini", "ev - - b"}).err,
        "hist_log.cpp:");
    EXPECT_EQ(err.substr(err.find("settings end **********\n") + 24), expected("steps.txt"));
}

TEST(HistLifecycle, LosesLittleWhereTwoHandlersMeetInOneQueue)
{
    // ThreadSanitizer's own code reads the signal mask as well, so there the trap below springs anywhere.
    if (std::string(CORVEX_SANITIZE).find("thread") != std::string::npos)
        return;
    // Queue 1 belongs to one handler at a time. When two threads' handlers meet in it all the same, their events are
    // lost, but none of the others, and none is shown mixed or twice.
    const a_text_list meeting = {"repeat 2 ev - SIG a", "on x slot 8", "trap 2 on x ev - SIG b", "ev - SIG b",
                                 "repeat 3 ev - SIG c"};
    for (const char* n : {"imn9", "imn7"})
        EXPECT_EQ(replaced(replaced(rows(played(brief + n, meeting).err), "........ ......\n", ""), " ", ""),
                  "a\na\nc\nc\nc\n");
    EXPECT_EQ(replaced(replaced(rows(played(brief + "imn4", meeting).err), "........ ......\n", ""), " ", ""),
              "c\nc\nc\n");
}

TEST(HistLifecycle, GivesAFreedSlotToOneOfTheCrowd)
{
    a_text_list crowd = {"ev - - main"};
    for (int i = 0; i < 256; i++)
        crowd.push_back("on t" + std::to_string(i) + " ev - - e");
    crowd.insert(crowd.end(), {"stop t7", "repeat 99 on t255 ev - - late"});
    const std::string full = played(brief + "itiq", crowd, {"TZ=UTC", "UT_HIST_THREAD_SLOT=dense:256"}).err;
    EXPECT_EQ(count(full, "  0 255     e\n"), 1u);
    EXPECT_GT(count(full, "  0   8  late\n"), 20u) << "the freed slot is taken before long";
    EXPECT_NE(full.find(" missed, thr=256)"), std::string::npos);
}
