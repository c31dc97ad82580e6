// hist_lifecycle_test.cpp: what the history says of its options and settings, when it is off, and where threads crowd.
#include "tests/process/hist_played.h"

namespace {

// Only the event's text is shown.
const std::string brief = "ia-id-in-it-ii-ic-ip-il-is-";

// As the listing shows them; the number behind a "/" is what the second listing has.
const char* const settings =
    "ut_hist_debug=1 ut_hist_debug_rec_stats=1 ut_hist_debug_num=2000/7 ut_hist_debug_data=1/0 "
    "ut_hist_debug_data_size=16384/9 ut_hist_debug_q_by_thr=0_(num_q=3)/1_(num_q=4) ut_hist_dump_on_sig=1/0 "
    "ut_hist_dump_on_fini=0 ut_hist_dump_append=1/0 ut_hist_dump_report=1/0 ut_hist_dump_err_name=stderr "
    "ut_hist_dump_log_name=<errout>/ut_hist.log ut_hist_exit_cleanup=1/0 ut_hist_z_messages=1/2 "
    "(a)ut_hist_inc_tod=1/0 (c)ut_hist_inc_class=1 (d)ut_hist_inc_dur=1 (e)ut_hist_inc_event=1 (i)ut_hist_inc_id=1 "
    "(l)ut_hist_inc_line=1 (n)ut_hist_inc_num=1 (p)ut_hist_inc_parms=1 (q)ut_hist_inc_queue=0/1 (q)ut_hist_inc_prio=0 "
    "(s)ut_hist_inc_file=1 (t)ut_hist_inc_thread=1";

}  // namespace

TEST(HistLifecycle, StaysOffUnlessAsked)
{
    for (const a_text_list& env : {a_text_list{}, {"UT_HIST="}, {"UT_HIST=off"}}) {
        const a_run result = run("hist_play", env,
                                 {"debug", "id A 1 f.c a", "ev - A a", "dump", "file", "handler", "fini", "setting 4",
                                  "setting -1", "debug", "setting 1", "debug"});
        EXPECT_EQ(result.out + result.err, "debug 0\nA=text\nSIGUSR1 default\ndebug 0\ndebug 1\n");
        EXPECT_TRUE(result.exited_well());
    }
}

TEST(HistLifecycle, ListsItsSettings)
{
    const std::string banner = "********** HISTORY z-messages settings begin **********\n";
    std::string listing = stamp + banner, changed = listing, word;
    for (std::istringstream words(settings); words >> word;) {
        const size_t equals = word.find('='), slash = std::min(word.size(), word.find('/'));
        const std::string name = word.substr(0, equals).append(23 - equals, ' ') + " = ";
        const std::string value = replaced(word.substr(equals + 1, slash - equals - 1), "_(", " (");
        listing += name + value + "\n";
        changed += name + (slash < word.size() ? replaced(word.substr(slash + 1), "_(", " (") : value) + "\n";
    }
    EXPECT_EQ(played("f-z", {}).err, listing + replaced(banner, "begin", "end"));
    EXPECT_EQ(played("f-Zn7k5d-9q4s-a-r-e=s.err,e-lXx-ia-iq", {}).err.substr(0, changed.size()), changed);
}

TEST(HistLifecycle, ExplainsItsOptions)
{
    const std::string help = played("f-h", {}).err.substr(stamp.size());
    EXPECT_EQ(played("f-h", {}, {"TZ=CET-1CEST,M3.5.0,M10.5.0/3"}).err, "@ 2023/11/14 23:13:20 ..........\n" + help);
    const auto unknown = [&](const char* what) { return stamp + "unknown UT_HIST option char " + what + "\n" + help; };
    EXPECT_EQ(played("f-cib", {}).err, replaced(unknown("'i' in ib") + unknown("'b' in b"), "\n", "\r\n"));
    EXPECT_EQ(played("OFf-", {}).err, unknown("'O' in OFf-"));
    EXPECT_EQ(played("f-", {}, {"UT_HIST_THREAD_SLOT=Dense"}).err,
              stamp + "unknown UT_HIST_THREAD_SLOT value 'Dense', using 'handle'\n");
    EXPECT_EQ(played("f-" + std::string(146, ',') + "h", {}).err, stamp + help) << "149 characters count";

    // An option, a column or a handled signal without its row in the guide is missing there.
    const std::string guide = read_file(SOURCE_DIR "/docs/guide.md"), sub_letter = "\t             ";
    const auto in_guide = [&](const std::string& name) { return guide.find(name) != std::string::npos; };
    std::istringstream lines(help), words(read_file(SOURCE_DIR "/utils/unix/utcore.cpp"));
    std::string letter, letters;
    for (std::string line; std::getline(lines, line);) {
        const bool sub = line.starts_with(sub_letter), raised = sub && line[14] == '-';
        if (line[0] == '\t' && !sub)
            letters += letter = line.substr(1, 1);
        const std::string name = raised ? line.substr(16, 1) : sub ? letter + line[14] : letter;
        EXPECT_TRUE(name.empty() || letter == "m" || in_guide("`" + name + "`")) << line;
    }
    EXPECT_EQ(letters, "acdefhiklmnqrsxyz");
    for (std::string word; words >> word;)
        EXPECT_TRUE(!word.starts_with("{SIG") || in_guide(word.substr(1, word.find(',') - 1))) << word;
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
    for (const auto& [n, left] :
         {std::pair("imn9", "a\na\nc\nc\nc\n"), {"imn7", "a\na\nc\nc\nc\n"}, {"imn4", "c\nc\nc\n"}})
        EXPECT_EQ(replaced(replaced(rows(played(brief + n, meeting).err), gap, ""), " ", ""), left) << n;
}

TEST(HistLifecycle, AHandlersEventMayComeAtEachInstructionOfAnothersAfterARestart)
{
    // ThreadSanitizer runs handlers later.
    if (std::string(CORVEX_SANITIZE).find("thread") != std::string::npos)
        return;
    // The other start-ups keep other texts and other queues.
    const char* const options[] = {"s-f+l-", "s-f-", "s-f+l-q4", "s-f+l-me63"};
    a_text_list script = {"ev - - e"};
    for (int i = 0; i < 4 * 60; i++) {
        const std::string step = "step " + std::to_string(1 + i / 4) + " ev - SIG h";
        script.insert(script.end(), {"fini", std::string("env UT_HIST ") + options[i % 4], "init", step, "ev - - e"});
    }
    const std::string dumps = played("s-f+l-", script, {"TZ=UTC", "UT_HIST_EXT=dense"}).err;
    EXPECT_EQ(count(dumps, " h -"), 3 * 60u);
    EXPECT_EQ(count(dumps, " e -"), 1 + 3 * 60u);
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
