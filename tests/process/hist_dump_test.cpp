// hist_dump_test.cpp: what the history writes, to the byte, under a fixed clock. Most of it stands in
// tests/process/cases: a case is a line "UT_HIST=options", perhaps with " columns: " and the only ones shown, further
// variables, the steps of hist_play, indented, and what comes out, each text between "name:" and a line ".".
#include <algorithm>
#include <map>

#include "tests/process/hist_played.h"

namespace {

struct a_case {
    std::string options;
    a_text_list env, script;
    std::map<std::string, std::string> expected;

    void check() const
    {
        const a_played seen = played(options, script, env.empty() ? a_text_list{"TZ=UTC"} : env);
        const std::map<std::string, std::string> all = {
            {"rows", rows(seen.err)}, {"err", seen.err}, {"out", seen.out}, {"log", seen.log}, {"errout", seen.errout}};
        for (const auto& [name, text] : expected)
            EXPECT_EQ(all.at(name), text) << name << " of UT_HIST=" << options;
    }
};

// The options with a switch for each column before them.
std::string with_columns(const std::string& line)
{
    const std::string separator = " columns: ";
    const size_t at = line.find(separator);
    if (at == std::string::npos)
        return line;
    const std::string shown = line.substr(at + separator.size()) + " ";
    std::string switches;
    for (const std::string word : {"a time", "c class", "d duration", "e event", "i id", "l line", "m sigmask",
                                   "n number", "p parms", "q queue", "r priority", "s file", "t thread"})
        switches += std::string("i") + word[0] + (shown.find(word.substr(2) + " ") != std::string::npos ? "+" : "-");
    return switches + line.substr(0, at);
}

std::vector<a_case> read_cases(const std::string& path)
{
    std::vector<a_case> cases;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, 8, "UT_HIST=") == 0)
            cases.push_back({with_columns(line.substr(8)), {}, {}, {}});
        else if (line.compare(0, 2, "  ") == 0)
            cases.back().script.push_back(line.substr(2));
        else if (line.find('=') != std::string::npos && line[0] != '#')
            cases.back().env.push_back(line);
        else if (!line.empty() && line.back() == ':')
            for (std::string &text = cases.back().expected[line.substr(0, line.size() - 1)], shown;
                 std::getline(file, shown) && shown != ".";)
                text += shown + "\n";
    }
    return cases;
}

a_text_list case_files()
{
    a_text_list names;
    for (const auto& file : std::filesystem::directory_iterator(SOURCE_DIR "/tests/process/cases"))
        names.push_back(file.path().stem());
    std::sort(names.begin(), names.end());
    return names;
}

class HistDumpComesOutAsIn : public testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(HistDumpComesOutAsIn, cases)
{
    for (const a_case& one : read_cases(SOURCE_DIR "/tests/process/cases/" + GetParam() + ".txt"))
        one.check();
}

INSTANTIATE_TEST_SUITE_P(, HistDumpComesOutAsIn, testing::ValuesIn(case_files()),
                         [](const auto& file) { return file.param; });

TEST(HistDump, ReadsNoTextBeyondItsEnd)
{
    a_text_list script;
    std::string expected = "........ ......\n", text;
    for (size_t len = 0; len <= 50; len++, text += char('a' + (len - 1) % 26)) {
        script.push_back("page-end " + std::to_string(len));
        const std::string id = text.substr(0, 15), ev = text.substr(0, 31);
        expected += std::string(16 - id.size(), ' ') + id + std::string(32 - ev.size(), ' ') + ev + " " +
                    (len < 23 ? text : text.substr(len - 22)) + "\n";
    }
    EXPECT_EQ(rows(played("ia-id-in-it-ic-il-", script).err), expected);
}

TEST(HistDump, EndsEveryLineAsConfigured)
{
    const a_text_list script = {"id Q 12 q.c query",        "beg L Q a",         "end L Q b",
                                "data - - blob 0x100000 3", "repeat 9 ev - - e", "dump"};
    const a_played unix_lines = played("n8kzl", script), dos_lines = played("cn8kzl", script);
    EXPECT_EQ(dos_lines.log, replaced(unix_lines.log, "\n", "\r\n"));
    EXPECT_EQ(dos_lines.err, replaced(unix_lines.err, "\n", "\r\n"));
}

TEST(HistDump, CountsSamplesPerPairAndReportsThoseWithoutATimer)
{
    a_text_list script = {"id A 1 a.c a"};
    for (int i = 0; i < 34; i++)
        script.push_back("id B" + std::to_string(i) + " 2 - description-of-20chr");
    for (int round = 0; round < 2; round++)
        for (int i = 0; i < 34; i++)
            script.insert(script.end(), {"ev - A x", "tick 3", "data - B" + std::to_string(i) + " x 0 0"});
    const std::string dump = played("k200il-", script).err;
    EXPECT_NE(
        dump.find("\nID Description                         Count Min_s..milli Avg_s..milli Max_s..milli File....\n"
                  " 0 a                                   ----- -----.------ -----.------ -----.------ a.c\n"
                  "   > EV  -  1 DAT description-of-20chr     2     0.000003     0.000003     0.000003 (4 missed)\n"
                  "   > EV  -  2 DAT description-of-20chr     2     0.000003     0.000003     0.000003\n"),
        std::string::npos)
        << dump.substr(dump.find("STATISTICS"), 900);
    EXPECT_EQ(count(dump, "   > EV  - "), 32u);
    EXPECT_EQ(count(dump, "missed)"), 1u);
    EXPECT_EQ(count(dump, "   > DAT -  0 EV  a "), 34u);
}
