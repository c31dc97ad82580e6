// hist_macros_test.cpp: one line of a caller's code becomes the event that it says, in C and in C++.
#include "tests/process/hist_played.h"

namespace {

std::string recorded_by(const std::string& program)
{
    const a_run result = run(program, {"UT_HIST=xkn99ia-id-in-it-il-is-", "UT_HIST_THREAD_SLOT=dense"});
    EXPECT_TRUE(result.exited_well()) << result.status;
    return std::regex_replace(rows(result.err), std::regex(" [+]0x[0-9a-f]+"), " +0x");
}

bool compile(const std::string& parms, bool cxx)
{
    const a_scratch_dir dir;
    const std::string file = dir.path + (cxx ? "/line.cpp" : "/line.c");
    std::ofstream(file) << "#include \"corvex/hist.h\"\nvoid f(int i) { (void)i; "
                        << "UT_HIST_EV(UT_HIST_ID_NONE, \"e\", " << parms << "); }\n";
    return run(cxx ? CXX_COMPILER : C_COMPILER, {},
               {"-fsyntax-only", cxx ? "-std=c++20" : "-std=c11", "-Wall", "-Wextra", "-pedantic", "-Werror",
                "-I" SOURCE_DIR "/include", file},
               dir.path)
        .exited_well();
}

}  // namespace

TEST(HistMacros, RecordWhatACProgramSays) { EXPECT_EQ(recorded_by("hist_macros"), expected("hist_macros.txt")); }

TEST(HistMacros, ScopesRecordBothEndsOrNone) { EXPECT_EQ(recorded_by("hist_scopes"), expected("hist_scopes.txt")); }

TEST(HistMacros, RefuseParametersThatAreNoPointerWide)
{
    for (const bool cxx : {false, true}) {
        EXPECT_TRUE(compile("1L, \"text\", &i, 2.0", cxx));
        for (const char* parms : {"i", "1L, 2.0f", "1L, 2L, 3L, 4L, 5L, 6L, 7L, 8L, 9L"})
            EXPECT_FALSE(compile(parms, cxx)) << parms;
    }
}
