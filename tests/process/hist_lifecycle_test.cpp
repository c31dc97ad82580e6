// hist_lifecycle_test.cpp: start-up and shut-down of the history, its messages and files, ids, signals, thread slots.
#include "tests/process/hist_played.h"

namespace {

const std::string stamp = "@ 2023/11/14 22:13:20 ..........\n";

std::string dumped(const std::string& body)
{
    return "********** HISTORY DUMP BIGIN @ 2023/11/14 22:13:20 (res=0) **********\n" + body +
           "********** HISTORY DUMP END @ 2023/11/14 22:13:20 (0 missed, thr=0) **********\n";
}

std::string report(const std::string& name, int number)
{
    const std::string line = stamp + "********** Dumping history to (" + name + ") # " + std::to_string(number);
    return line + "\n" + line + " done\n";
}

// Only the event's text is shown.
const std::string brief = "ia-id-in-it-ii-ic-ip-il-is-";
const std::string header = " Event\n";
std::string shown(const std::string& row) { return dumped(header + "........ ......\n" + row); }

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
    EXPECT_EQ(played("f-" + std::string(147, ',') + "h", {}).err, "") << "only 149 characters are read";
    EXPECT_EQ(played("f-" + std::string(146, ',') + "h", {}).err, stamp + help);
}

TEST(HistLifecycle, TellsItsStepsOnDemand)
{
    const std::string err = without_number(
        played("ZlS" + brief, {"ev - SIG s @-:3", "ev - - a 1 2", "dump", "fini", "fini", "ev - - b"}).err,
        "hist_log.cpp:");
    EXPECT_EQ(err.substr(err.find("settings end **********\n") + 24),
              "** HISTORY z-messages ** init done\n"
              "** HISTORY ** add (<no_file>:3) P=0((nil),(nil),(nil),(nil)) ...\n"
              "** HISTORY z-messages ** add done q=1, n=0\n"
              "** HISTORY ** add (play.c:1) P=2(0x1,0x2,(nil),(nil)) ...\n" +
                  stamp +
                  "** HISTORY z-messages ** add signal handler ...\n"
                  "** HISTORY z-messages ** add signal handler done = 1\n"
                  "** HISTORY z-messages ** add done q=0, n=0\n"
                  "** HISTORY ** add (utils/etc/uthist/hist_log.cpp:) P=0((nil),(nil),(nil),(nil)) ...\n"
                  "** HISTORY z-messages ** add done q=0, n=1\n" +
                  report("ut_hist.log", 3) + stamp + "** HISTORY z-messages ** fini ...\n" + report("ut_hist.log", 3) +
                  stamp + "** HISTORY z-messages ** fini done\n");
}

TEST(HistLifecycle, DumpsToTheLogOrWhereItCan)
{
    const a_text_list script = {"setting 0", "ev - - a", "dump", "ev - - b"};
    const std::string first = shown("     a\n"), second = shown("     a\n     b\n");
    struct a_case {
        const char* options;
        std::string log, err, errout;
    };
    const std::string failed = stamp + "********** Failed to dump to (/no/x.log) - dumping to stderr # ";
    const a_case cases[] = {
        {"", "", stamp + first + stamp + second, ""},
        {"l", first + second, report("ut_hist.log", 1) + report("ut_hist.log", 2), ""},
        {"lr-", first + second, "", ""},
        {"la-", second, report("ut_hist.log", 1) + report("ut_hist.log", 2), ""},
        {"f-l", first, report("ut_hist.log", 1), ""},
        {"le", first + second, "", report("ut_hist.log", 1) + report("ut_hist.log", 2)},
        {"ea-", "", "", stamp + first + stamp + second},
        {"l=/no/x.log,r-", "", failed + "1\n" + first + failed + "2\n" + second, ""},
        {"l=,f-", "", stamp + "********** Failed to dump to () - dumping to stderr # 1\n" + first, ""},
        {"l=/no/x.log,f-e", "", "", replaced(failed, "stderr", "ut_hist.out") + "1\n" + first},
        {"e=", "", stamp + first + stamp + second, ""},
        {"l=/no/x.log,e=/no/x.out,f-", "", failed + "1\n" + first, ""},
        {"lr-e", first + second, "", ""},
    };
    for (const a_case& c : cases) {
        const a_played seen = played(brief + c.options, script);
        EXPECT_EQ(seen.log, c.log) << c.options;
        EXPECT_EQ(seen.err, c.err) << c.options;
        EXPECT_EQ(seen.errout, c.errout) << c.options;
    }
}

TEST(HistLifecycle, RestartsWithTheSettingsThatWereLeft)
{
    const a_played seen = played("n4lk2e=ut_hist.out,r-" + brief + "in",
                                 {"id A 1 - a", "setting 0", "repeat 5 ev - A x", "fini", "dump", "ev - - lost",
                                  "env UT_HIST zi?", "init", "id A 1 - a", "ev - A y", "fini", "id A 1 - a"});
    EXPECT_EQ(seen.out, "A=0\nA=0\nA=text\n");
    const std::string statistics = "********** STATISTICS DUMP BIGIN @ 2023/11/14 22:13:20 (res=0) **********\n"
                                   "ID Description                 Count Min_s..milli Avg_s..milli Max_s..milli\n"
                                   " 0 a                           ----- -----.------ -----.------ -----.------\n";
    const std::string timed = "   > EV  -  0 EV  a                4     0.000000     0.000000     0.000000\n";
    EXPECT_EQ(seen.log, dumped("  Ev_Num Event\n........ ......\n       3     x\n       4     x\n       5     x\n" +
                               statistics + timed) +
                            dumped("  Ev_Num Event\n........ ......\n       6     y\n" + statistics))
        << "numbers go on; the log's name, the sizes and the columns stay";
    EXPECT_EQ(seen.err.substr(0, stamp.size() + 41), stamp + "unknown UT_HIST option char 'i' in i?\n***")
        << "the errout stream is standard error again";
    EXPECT_NE(seen.err.find("log_name   = ut_hist.log\n"), std::string::npos);
}

TEST(HistLifecycle, KeepsItsStoreWithoutCleanUp)
{
    EXPECT_EQ(played("x-f-" + brief, {"ev - - a", "fini", "ev - - b", "dump", "usr1"}).err,
              stamp + dumped(" Event\n........ ......\n     a\n"));
    EXPECT_EQ(played("f-" + brief, {"ev - - a", "fini", "file x", "dump"}).err, "");
}

TEST(HistLifecycle, TakesAndGivesBackItsSignal)
{
    const std::string dump = stamp + shown("     a\n");
    struct a_case {
        const char* options;
        a_text_list script;
        std::string out, err;
    };
    const a_case cases[] = {
        {"", {"handler", "ev - - a", "usr1", "fini", "handler", "usr1"}, "SIGUSR1 history\nSIGUSR1 ignored\n", dump},
        {"s-", {"handler", "ev - - a", "mine", "usr1", "fini", "usr1"}, "SIGUSR1 default\nmine\nmine\n", ""},
        {"S",
         {"ev - SIG s", "handler", "ev - - a", "handler", "fini", "handler", "usr1"},
         "SIGUSR1 default\nSIGUSR1 history\nSIGUSR1 history\n",
         ""},
        {"",
         {"fini", "mine", "init", "handler", "ev - - a", "usr1", "fini", "handler", "usr1"},
         "SIGUSR1 history\nSIGUSR1 mine\nmine\n",
         dump},
        {"S", {"mine", "ev - - a", "usr1", "fini", "init", "ev - - a", "fini", "usr1"}, "", dump},
    };
    for (const a_case& c : cases) {
        const a_played seen = played("f-" + brief + c.options, c.script);
        EXPECT_EQ(seen.out, c.out) << c.options;
        EXPECT_EQ(seen.err, c.err) << c.options;
    }
    EXPECT_EQ(played("el" + brief, {"ev - - a", "usr1", "dump"}).errout,
              report("ut_hist.log", 1) + report("ut_hist.log", 2) + report("ut_hist.log", 2))
        << "an errout file that the handler opened first is the stream of later messages";
}

TEST(HistLifecycle, SurvivesSignalsInsideItself)
{
    // The clock is read inside ut_hist_add and inside dumps; there the signal arrives.
    for (const char* when : {"trap 1 usr1", "trap 2 usr1", "trap 3 usr1"})
        EXPECT_EQ(played("lr-f-s" + brief, {"setting 0", "ev - - a", when, "dump"}).log,
                  shown("     a\n") + shown("     a\n"))
            << "a signal inside a dump: another dump follows it";
    const std::string from_add = played("lr-f-" + brief, {"ev - - a", "trap 1 usr1", "ev - - b"}).log;
    EXPECT_EQ(from_add, shown("     a\n")) << "the unfinished row is left out, the queue's lock is not needed";
    EXPECT_EQ(
        rows(played(brief + "initiq", {"trap 1 ev - SIG inner", "ev - - outer", "trap 1 ev - SIG dropped",
                                       "ev - SIG outer", "ev - SIG next"})
                 .err),
        "........ ......\n  1       1   7 inner\n  0       2   7 outer\n  1       3   7 outer\n  1       4   7  next\n")
        << "an event inside another of the same thread and queue is dropped";
    // ThreadSanitizer's own code reads the signal mask as well, so there the trap below springs anywhere.
    if (std::string(CORVEX_SANITIZE).find("thread") != std::string::npos)
        return;
    // Queue 1 belongs to one handler at a time. When two threads' handlers meet in it all the same, one event of
    // theirs is lost, but none of the others, and none is shown twice.
    const a_text_list meeting = {"repeat 2 ev - SIG a", "on x slot 8", "trap 2 on x ev - SIG b", "ev - SIG b",
                                 "repeat 3 ev - SIG c"};
    for (const char* n : {"imn9", "imn7"})
        EXPECT_EQ(replaced(replaced(rows(played(brief + n, meeting).err), "........ ......\n", ""), " ", ""),
                  "a\na\nb\nc\nc\nc\n");
    EXPECT_EQ(replaced(replaced(rows(played(brief + "imn4", meeting).err), "........ ......\n", ""), " ", ""),
              "c\nc\nc\n");
}

TEST(HistLifecycle, RecordsByThreadSlot)
{
    const std::string columns = brief + "itiq";
    EXPECT_NE(played("n8", {"slot 256", "ev - - a", "slot 1023", "ev - - a", "slot 1279", "ev - - b"})
                  .err.find("(2 missed, thr=1023)"),
              std::string::npos);
    EXPECT_EQ(rows(played(columns + "q5", {"slot 1024", "ev - - a", "slot 3", "ev - - b", "ev - Q2 c", "slot 4",
                                           "ev - - d", "ev - SIG e"})
                       .err),
              "........ ......\n  1   0     a\n  4   3     b\n  0   3     c\n  0   4     d\n  1   4     e\n");
    const a_text_list dense = {"TZ=UTC", "UT_HIST_THREAD_SLOT=dense"};
    EXPECT_EQ(rows(played(columns + "q8k",
                          {"id A 1 - a", "ev - - main", "on x ev - A x", "on y ev - A y", "stop x", "on z ev - A z",
                           "on y ev - A y2"},
                          dense)
                       .err),
              "........ ......\n  1   0  main\n  2   1     x\n  3   2     y\n  2   1     z\n  3   2    y2\n");
    const std::string timers = played("q8k", {"id A 1 - a", "on x ev - A x", "stop x", "on y ev - A y"}, dense).err;
    EXPECT_EQ(count(timers, "   > "), 0u) << "a reused slot starts without a last marker";
    a_text_list crowd = {"ev - - main"};
    for (int i = 0; i < 256; i++)
        crowd.push_back("on t" + std::to_string(i) + " ev - - e");
    crowd.insert(crowd.end(), {"stop t7", "repeat 99 on t255 ev - - late"});
    const std::string full = played(columns, crowd, dense).err;
    EXPECT_EQ(count(full, "  0 255     e\n"), 1u);
    EXPECT_GT(count(full, "  0   8  late\n"), 20u) << "the freed slot is taken before long";
    EXPECT_NE(full.find(" missed, thr=256)"), std::string::npos);
}

TEST(HistLifecycle, GoesOnInAForkedChild)
{
    const a_text_list env = {"TZ=UTC", "UT_HIST_THREAD_SLOT=dense"};
    const a_played seen =
        played("lr-" + brief + "in",
               {"setting 0", "ev - - a", "on t ev - - b", "on t child ev - - c", "child dump", "child fini"}, env);
    const std::string both = dumped("  Ev_Num Event\n........ ......\n       1     a\n       2     b\n");
    EXPECT_EQ(seen.log, both + both + both)
        << "dumps: the child's own, its shut-down, the parent's; none at the exit of a child";
    EXPECT_EQ(seen.out + seen.err, "");
}
