// core_test.cpp: corvex-hist and the commands of gdb show of a core what the process wrote just before it died.
#include "tests/process/hist_played.h"

namespace {

std::string without_times(const std::string& dump)
{
    return std::regex_replace(dump, std::regex(" @ [0-9/]+ [0-9:.]+( [+-]..:..)?"), " @ ");
}

// A stripped program that has died of a signal, the core in its folder, and its own last dump.
struct a_crashed {
    explicit a_crashed(const std::string& options)
    {
        if (std::string(CORVEX_SANITIZE) != "")
            return;  // they keep the kernel from writing cores
        const std::string script = "strip -o crashed " PROGRAM_DIR "/hist_play; ulimit -c unlimited\n"
                                   "exec ./crashed 'id X 3 f.c reg' 'on A beg L request starts' 'tick 70000' \\\n"
                                   "    'data - X blob 0x100000 40' 'ev - #7 -' 'file' 'shell kill -SEGV $PID'";
        const a_run died = shell(script, {"UT_HIST=" + options, "UT_HIST_EXT=tables", "TZ=Europe/Berlin"});
        EXPECT_TRUE(died.died_of(SIGSEGV)) << died.err;
        own = without_times(died.out.substr(std::min(died.out.size(), died.out.find("*****"))));
        for (const auto& file : std::filesystem::directory_iterator(dir.path))
            if (file.path().filename().string().starts_with("core"))
                core = file.path();
    }
    a_run shell(const std::string& script, const a_text_list& env = {}) const
    {
        return run("/bin/sh", env, {"-c", script}, dir.path);
    }
    // What a command reads of the core, which is its $CORE.
    std::string read(const std::string& command, const std::string& expected_err = "") const
    {
        const a_run result = shell(command, {"CORE=" + core});
        EXPECT_EQ(result.err, expected_err) << command;
        return without_times(result.out);
    }

    const a_scratch_dir dir;
    std::string own, core;
};

const std::string dump = TOOL " dump --tables ";

class Core : public testing::TestWithParam<const char*> {};

TEST_P(Core, ShowsWhatTheProcessWroteItself)
{
    const a_crashed crashed(GetParam());
    // A core_pattern that is a pipe takes cores away, and the sanitizers' address spaces are too large for one.
    if (crashed.core.empty())
        GTEST_SKIP() << "the kernel writes no cores into the working folder: "
                     << read_file("/proc/sys/kernel/core_pattern");
    EXPECT_NE(crashed.own.find("f.c"), std::string::npos);
    EXPECT_EQ(crashed.read(dump + "$CORE"), crashed.own);
    EXPECT_EQ(crashed.read("cat $CORE | " + dump + "-"), crashed.own) << "a pipe";
    EXPECT_EQ(crashed.read("if zstd -q $CORE -o z; then " + dump + "z; else " + dump + "$CORE; fi 2>said"),
              crashed.own);
    const std::string in_gdb =
        crashed.read("gdb -nx -q -batch -ex 'source " SOURCE_DIR "/tools/corvex-hist-gdb.py' -ex "
                     "'set corvex-hist-tool " TOOL "' -ex 'corvex-hist dump --tables' -c $CORE "
                     "2>said || echo not in gdb");
    if (in_gdb.find("not in gdb") == std::string::npos) {
        EXPECT_EQ(in_gdb.substr(std::min(in_gdb.size(), in_gdb.find("*****"))), crashed.own);
    }
}
INSTANTIATE_TEST_SUITE_P(, Core, testing::Values("k8n50d64", "f-k8n50d64"));

TEST(CoreOfAProgramThatWasBuiltAnew, HasNoTextsOfTheOtherBuild)
{
    const a_crashed crashed("f-n50");
    if (crashed.core.empty())  // for the same reasons
        GTEST_SKIP() << "no core";
    std::filesystem::copy_file(PROGRAM_DIR "/interrupted", crashed.dir.path + "/crashed",
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(rows(crashed.read(dump + "$CORE 2>said")), replaced(rows(crashed.own), "play.c", "?"));
    EXPECT_EQ(count(read_file(crashed.dir.path + "/said"), "its build-id is not the one in the core"), 1u);
}

}  // namespace
