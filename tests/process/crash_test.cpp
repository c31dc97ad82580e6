// crash_test.cpp: crash reports, the record, callbacks that crash or hang, and the silence without settings.
#include <sys/sem.h>

#include <regex>

#include "tests/process/hist_played.h"

namespace {

const bool sanitized = std::string(CORVEX_SANITIZE) != "";
const std::string on = "ZT_CRASH_REPORT=stderr";

// What a line of the report begins with, as a regular expression, and its parts.
const std::string line = "\\*{10} ", place = "\\S+\\+0x[0-9a-f]+", callers = "(" + line + "#\\d+ .*\n)+";
const std::string head = line + "CRASH @ \\d{4}/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} [+-]\\d\\d:\\d\\d pid=\\d+ "
                                "prog=/\\S+/programs/crash tid=\\d+ thread=worker \\.3 slot=-\n";
const std::string symbols = line + "symbols: addr2line -Cfpe /\\S+/programs/crash( 0x[0-9a-f]+)+\n";
const std::string end = line + "CRASH END\n";
std::string cause(const std::string& text) { return line + "signal " + text + "\n"; }
std::string pc(const std::string& module)
{
    return line + "pc 0x[0-9a-f]+ " + module + "\\+0x[0-9a-f]+ build-id \\w+\n";
}
const std::string null = "11 SIGSEGV code 1 \\(address not mapped\\) address 0x10";
const std::string fault = head + cause(null) + pc("crash") + callers + symbols + end;

void expect_report(const a_run& ran, const std::string& text)
{
    EXPECT_TRUE(std::regex_match(ran.err, std::regex(text))) << ran.err << "\nis not\n" << text;
    EXPECT_LT(semctl(atoi(ran.out.c_str()), 0, GETVAL), 0) << "the kernel sets are removed";
}

void expect(const a_run& ran, const std::string& text)
{
    EXPECT_TRUE(ran.died_of(SIGABRT)) << ran.status;
    expect_report(ran, text);
}

TEST(CrashReport, TellsCauseCallersAndSender)
{
    expect(run("crash", {on}, {"fault"}), fault);
    expect(run("crash", {on}, {"terminate"}), head + cause("15 SIGTERM code 0 \\(kill\\)") + line +
                                                  "sent by pid \\d+ uid \\d+\n" + pc("\\S+") + "(" + callers + symbols +
                                                  ")?" + end);  // none in a sanitizer's code
    expect(run("crash", {on}, {"nowhere"}), head + cause("11 SIGSEGV code 1 \\(address not mapped\\) address 0x0") +
                                                line + "pc 0x0\n" + callers + symbols + end);
}

// addr2line names the function that crashed and the one that called it.
TEST(CrashReport, NamesAddressesOfTheProgramsFile)
{
    const a_run ran = run("crash", {on}, {"unwinder"});
    std::smatch command;
    ASSERT_TRUE(std::regex_search(ran.err, command, std::regex("symbols: (.*)")));
    const std::string names = run("/bin/sh", {}, {"-c", command[1].str() + " 2>/dev/null"}).out;
    EXPECT_TRUE(std::regex_search(names, std::regex("fault\\(\\).*\n.*unwinder\\(\\)"))) << names;
}

TEST(CrashReport, ComesFromWhereLocksAreHeldAndFramesAreWrong)
{
    expect(run("crash", {on}, {"loader"}), fault);
    expect(run("crash", {on}, {"unwinder"}), fault);
    if (sanitized)
        return;  // their own allocator, and frames of their own
    expect(run("crash", {on}, {"heap"}), head + "(.*\n)*" + callers + symbols + end);
    const a_run wrong = run("crash", {on}, {"frame", "stack"});
    expect(wrong, head + cause(null.substr(0, null.size() - 2) + "8") + pc("crash") + line +
                      "backtrace ends here: fault at libgcc_s.so.1\\+0x[0-9a-f]+: signal 11 .* address 0x18\n" +
                      symbols + end + "stack \\d+\n");
    EXPECT_LT(std::stoi(wrong.err.substr(wrong.err.find("\nstack ") + 7)), 8 * 1024 + 2 * sysconf(_SC_MINSIGSTKSZ))
        << "bytes";
}

TEST(CrashReport, IsTheOneOfItsProcess)
{
    expect(run("crash", {on, "ZT_INSTALL_SIG_HANDLERS=c"}, {"fault", "sets"}), fault + "(sets removed\n){2}");
    expect(run("crash", {on}, {"fault", "fork"}), fault);
    for (int i = 0; i < 20; i++) {
        const a_run both = run("crash", {on}, {"both"});
        // The second fault may come when the handlers have been taken away for the abort.
        EXPECT_TRUE(both.died_of(SIGABRT) || both.died_of(SIGSEGV)) << both.status;
        expect_report(both, fault);
    }
    expect(run("crash", {}, {"fault", "record"}), "record 1 2 11 1 0x10 1 1\n");
}

TEST(CrashReport, GoesWhereItIsToldOrNowhere)
{
    const a_scratch_dir dir;
    expect(run("crash", {"ZT_CRASH_REPORT=%e-%p.%t%%"}, {"fault"}, dir.path), "");
    for (const auto& file : std::filesystem::directory_iterator(dir.path))
        if (file.path().filename().string()[0] != '.') {
            EXPECT_TRUE(std::regex_match(file.path().filename().string(), std::regex("crash-\\d+\\.\\d+%")));
            EXPECT_TRUE(std::regex_match(read_file(file.path()), std::regex(fault)));
            EXPECT_EQ(file.status().permissions(), std::filesystem::perms(0600));
        }
    EXPECT_EQ(3, std::distance(std::filesystem::directory_iterator(dir.path), {})) << "beside .out and .err";
    expect(run("crash", {"ZT_CRASH_REPORT=/no/such"}, {"fault"}),
           fault + line + "cannot open /no/such: No such file or directory\n");
    for (const char* silent : {"ZT_CRASH_REPORT=", "ZT_CRASH_REPORT=off", "-="})
        expect(run("crash", {silent}, {"fault"}), "");
}

// As is all that these tests let a crash do: the program has stand-ins for what is not.
TEST(CrashReport, IsSignalSafeWithTheHistorysDump)
{
    const std::string in_slot = replaced(fault, "slot=-", "slot=0"), skipped = line + "callback .*is skipped.*\n";
    for (const char* options : {"f-ke", "f-kle", "f-kcl=/no/such/x.log,e"}) {
        const a_scratch_dir dir;
        const a_run ran =
            run("crash", {std::string("UT_HIST=") + options, "UT_HIST_EXT=all"}, {"fault", "fault"}, dir.path);
        expect(ran, in_slot + skipped);
        const std::string all = read_file(dir.path + "/ut_hist.log") + read_file(dir.path + "/ut_hist.out");
        for (const char* part :
             {"* HISTORY DUMP END", "ending on signal -", "ending on signal  ", "* HISTORY THREADS END"})
            EXPECT_EQ(count(all, part), 1u) << options << "\n" << part << "\n" << all;
    }
    EXPECT_TRUE(sanitized || run("crash", {on}, {"fault", "flush"}).err.ends_with("fflush in a handler\n"));
}

TEST(Callbacks, ThatCrashAreSkipped)
{
    expect(run("crash", {on}, {"fault", "fault", "abort", "sets"}),
           fault + line + "callback crash\\+0x\\w+ is skipped, fault at crash\\+0x\\w+: signal " + null + "\n" + line +
               "callback crash\\+0x\\w+ is skipped, fault at libc.so.6\\+0x\\w+: signal 6 SIGABRT code -6 "
               "\\(tgkill\\)\nsets removed\n");
    if (sanitized)
        return;  // with stacks of their own
    for (const char* how : {"fault", "overflow"}) {
        const a_run deep = run("crash", {on}, {how, "overflow", "abort", "sets"});
        EXPECT_TRUE(deep.died_of(SIGABRT)) << deep.status;
        EXPECT_TRUE(std::regex_search(deep.err, std::regex(end + "(.* is skipped, .*\n){2}sets removed\n$")))
            << deep.err;
    }
}

TEST(Callbacks, ThatHangAreCutOff)
{
    const std::string cut = line + "callback crash\\+0x\\w+ has not ended within 1 s: the process ends\n";
    expect(run("crash", {on, "ZT_CRASH_TIMEOUT=1"}, {"fault", "loop"}), fault + cut);
    expect(run("crash", {"ZT_CRASH_TIMEOUT=1"}, {"terminate", "loop"}), cut);
    expect(run("crash", {on, "ZT_CRASH_TIMEOUT=1"}, {"fault", "timers"}), fault + cut);
    expect(run("crash", {on}, {"fault", "limit", "sets"}), fault + "sets removed\n");
    const a_run blocked = run("crash", {on, "ZT_CRASH_TIMEOUT=1"}, {"fault", "block"});
    EXPECT_TRUE(blocked.died_of(SIGKILL)) << blocked.status;
    semctl(atoi(blocked.out.c_str()), 0, IPC_RMID);
}

TEST(CrashDump, IsOneWhateverACallbackDoes)
{
    const std::vector<std::string> history = {"UT_HIST=f-l=x.log,r-", "UT_HIST_EXT=crash"};
    for (const char* mode : {"ZT_INSTALL_SIG_HANDLERS=c", "ZT_INSTALL_SIG_HANDLERS="})
        for (const char* callback : {"record", "dump", "exit"}) {
            const a_scratch_dir dir;
            run("crash", {history[0], history[1], mode}, {"fault", callback, "dump"}, dir.path);
            const std::string log = read_file(dir.path + "/x.log");
            EXPECT_EQ(count(log, "HISTORY DUMP END"), 1u) << mode << callback;
            EXPECT_EQ(count(log, "ending on signal"), 1u) << mode << callback;
        }
    const a_run late = run("crash", {}, {"late"});
    EXPECT_TRUE(sanitized || (late.died_of(SIGABRT) && count(late.err, "CRASH END") == 1)) << late.err;
}

}  // namespace
