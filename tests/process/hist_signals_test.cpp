// hist_signals_test.cpp: what holds inside signal handlers, in forked children and when memory is short.
#include "tests/process/hist_played.h"

namespace {

// Sanitizers bring their own malloc, locks and stacks: stand-ins are not tried with them.
const bool sanitized = std::string(CORVEX_SANITIZE) != "";

}  // namespace

TEST(HistSignals, HandlerUsesNothingUnsafeAndLittleStack)
{
    if (sanitized)
        return;
    for (const char* options : {"f-k", "f-kl", "f-kea-", "f-kle", "f-kcl=/no/such/x.log,e", "f-kq4iqimirn4"}) {
        const a_scratch_dir dir;
        const a_run result =
            run("hist_handler", {std::string("UT_HIST=") + options, "UT_HIST_THREAD_SLOT=dense"}, {}, dir.path);
        EXPECT_TRUE(result.exited_well()) << options << " " << result.status << result.err;
        EXPECT_EQ(result.out, "errno kept, dumps 4, stack small\n") << options;
        const std::string all =
            result.err + read_file(dir.path + "/ut_hist.log") + read_file(dir.path + "/ut_hist.out");
        EXPECT_EQ(count(all, "* HISTORY DUMP BIGIN"), 5u) << options;
        EXPECT_EQ(count(all, "* HISTORY DUMP END"), 5u) << options;
    }
    EXPECT_EQ(run("hist_handler", {"UT_HIST=f-"}, {"unsafe"}).err, "fflush in a handler\n") << "as they must";
}

TEST(HistFork, ChildrenRecordAndDumpAtOnce)
{
    for (const char* file : {"UT_HIST_EXT=tables", "UT_HIST_EXT=tables,file=x", "UT_HIST_EXT=tables,file=%p.x"}) {
        const a_run result = run("hist_forks", {"UT_HIST=xn50k300l=/dev/null,r-f-", "UT_HIST_THREAD_SLOT=dense", file},
                                 {sanitized ? "30" : "99"});
        EXPECT_TRUE(result.exited_well()) << result.status;
        EXPECT_EQ(result.out + result.err, "failed 0\n") << file;
    }
}

TEST(HistFork, ErroutFileHoldsWholeLinesOfEveryProcess)
{
    const a_scratch_dir dir;
    run("hist_forks", {"UT_HIST=xn400e=x.err,f-", "UT_HIST_THREAD_SLOT=dense"}, {"4"}, dir.path);
    const std::string text = read_file(dir.path + "/x.err");
    const std::regex whole(R"([@.].*\.{5}|\*.*\*{5}| .*e\.{4}|[^@. *].*\.cpp)");
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    EXPECT_GE(count(text, "* HISTORY DUMP BIGIN"), 4u);
    EXPECT_EQ(count(text, "* HISTORY DUMP BIGIN"), count(text, "* HISTORY DUMP END"));
}

TEST(HistFork, HandlersMayForkAtAnyLockAndThreadsMayBeCancelledInADump)
{
    if (sanitized)
        return;
    for (const char* ext : {"UT_HIST_EXT=dense", "UT_HIST_EXT=tsc"}) {
        const a_run result = run("hist_interrupted", {"UT_HIST=n50k300l=x.log,r-", ext});
        EXPECT_TRUE(result.exited_well()) << ext << result.status;
        EXPECT_EQ(result.out, "forked at every lock, 0 hung\n") << ext;
    }
}

TEST(HistShortage, LeavesTheHistoryOffAndNothingBehind)
{
    if (sanitized)
        return;
    // The store is mapped; the one allocation that it cannot do without is that of its first locks.
    for (const char* options : {"xs-l=/dev/null,r-q4k40n20", "xs-l=/dev/null,r-k40n20f-", "xl=/dev/null,e=x.err,zk"}) {
        const a_run result = run("hist_shortage", {"TZ=UTC", "UT_HIST_THREAD_SLOT=dense"}, {options});
        EXPECT_TRUE(result.exited_well()) << options << " " << result.status << result.err;
        EXPECT_EQ(result.out, "off 1, leaks 0\n") << options;
    }
    const a_run large = run(
        "/bin/sh", {"UT_HIST=n999999999mi999999999"},
        {"-c", "ulimit -v 1000000; exec " PROGRAM_DIR "/hist_play debug 'ev - - a' dump 'id A 1 - a' handler usr1"});
    const std::string note = "** HISTORY note ** history is off: no memory for a store of  bytes "
                             "(n=999999999, queues=3)\n";
    EXPECT_TRUE(large.exited_well());
    EXPECT_EQ(large.out + std::regex_replace(large.err, std::regex("of [0-9]+ bytes"), "of  bytes"),
              "debug 0\nA=text\nSIGUSR1 history\n" + note + note);
}
