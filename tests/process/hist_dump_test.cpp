// hist_dump_test.cpp: what the history writes, to the byte, under a fixed clock. A case of tests/process/cases is a
// line of variables, UT_HIST first, perhaps with " columns:" and the only ones shown; steps of hist_play, indented,
// else those of the case before; and what comes out: "name: line | line" or "name:" and lines up to an empty one, see
// in_full.
#include <algorithm>

#include "tests/process/hist_played.h"

namespace {

a_text_list split(std::string text)
{
    a_text_list parts;
    for (size_t at; (at = text.find(" | ")) != std::string::npos && text[0] != '\t'; text.erase(0, at + 3))
        parts.push_back(text.substr(0, at));
    parts.push_back(text);
    return parts;
}

// "@" is the line before a message, "<n>" the two reports of a dump of n events, "<(log) ...>" that of one that failed,
// "[a b]" a whole dump of the texts a and b, "note ..." a note.
std::string in_full(const std::string& line)
{
    const std::string stars = "**********", banner = " @ 2023/11/14 22:13:20 ", inner = line.substr(1, line.size() - 2);
    const std::string report = stamp + stars + " Dumping history to (ut_hist.log) # " + inner;
    if (line == "@")
        return stamp;
    if (line.starts_with("<("))
        return stamp + stars + " Failed to dump to " + inner + "\n";
    if (line.starts_with("<"))
        return report + "\n" + report + " done\n";
    if (!line.starts_with("["))
        return (line.starts_with("note ") ? "** HISTORY note ** " + line.substr(5) : line) + "\n";
    std::string rows;
    std::istringstream events(inner);
    for (std::string event; events >> event;)
        rows += (rows.empty() ? gap : "") + std::string(6 - event.size(), ' ') + event + "\n";
    return stars + " HISTORY DUMP BIGIN" + banner + "(res=0) " + stars + "\n Event\n" + rows + stars +
           " HISTORY DUMP END" + banner + "(0 missed, thr=0) " + stars + "\n";
}

struct a_case {
    std::string options;
    a_text_list env, script;
    std::map<std::string, std::string> expected;

    void check() const
    {
        a_played seen = played(options, script, env);
        std::map<std::string, std::string>& all = seen.files;
        all["err"] = seen.err;
        all["out"] = seen.out;
        all["log"] = seen.log;
        all["errout"] = all["ut_hist.out"];
        all["rows"] = rows(seen.err).substr(rows(seen.err).starts_with(gap) ? gap.size() : 0);
        all["logged"] = matches(seen.log, " +[0-9]+     [a-z]|   > .*");
        all["pairs"] = matches(seen.err, "   > .*");
        all["dates"] = matches(seen.err, "20../../.. ..:..:..");
        all["losses"] = matches(seen.err, "[0-9]+ (missed, thr=[0-9]+|events were lost.*)");
        // Without what differs from run to run: thread id and name.
        all["threads"] = std::regex_replace(matches(seen.err, "[ 0-9]{3}[ 0-9]{7}[0-9] .{15} [ 0-9]{6}  .*"),
                                            std::regex("(^|\n)(...).{25}"), "$1$2");
        all["refused"] = std::regex_replace(matches(seen.err, "no word .*"), std::regex("no word |,.*"), "");
        all["steps"] = matches(seen.err, "[*] (init|add|fini) .*");
        for (const auto& [name, text] : expected)
            EXPECT_EQ(all[name], text) << name << " of " << options;
    }
};

// The options with a switch for each column before them.
std::string with_columns(const std::string& options, const std::string& columns)
{
    std::string switches;
    for (const std::string word : {"a time ", "c class ", "d duration ", "e event ", "i id ", "l line ", "m sigmask ",
                                   "n number ", "p parms ", "q queue ", "r priority ", "s file ", "t thread "})
        switches += std::string("i") + word[0] + (columns.find(word.substr(1)) != std::string::npos ? "+" : "-");
    return (columns == " " ? "" : switches) + options;
}

std::vector<a_case> read_cases(const std::string& path)
{
    std::vector<a_case> cases;
    std::ifstream file(path);
    for (std::string line, previous, word; std::getline(file, line); previous = line) {
        const size_t colon = line.find(':');
        if (line.starts_with("UT_HIST=")) {
            const size_t columns = std::min(line.size(), line.find(" columns:"));
            std::istringstream variables(line.substr(0, columns));
            variables >> word;
            const a_text_list steps = cases.empty() ? a_text_list{} : cases.back().script;
            cases.push_back({with_columns(word.substr(8), line.substr(columns) + " "), {}, steps, {}});
            while (variables >> word)
                cases.back().env.push_back(word);
            cases.back().env.push_back("TZ=UTC");  // the first of a name counts
        } else if (line.starts_with("  ")) {
            a_text_list& script = cases.back().script;
            if (previous.starts_with("UT_HIST="))
                script.clear();
            for (const std::string& step : split(line.substr(2)))
                script.push_back(step);
        } else if (!line.starts_with("#") && colon != std::string::npos) {
            std::string& text = cases.back().expected[line.substr(0, colon)];
            a_text_list shown = {colon + 1 < line.size() ? line.substr(colon + 2) : ""};
            while (shown[0].empty() && std::getline(file, word) && !word.empty())
                shown.push_back(word);
            for (const std::string& some : shown)
                for (const std::string& part : split(some))
                    text += some.empty() ? "" : in_full(part);
        }
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

// Texts before a page that cannot be read, or with some room behind them, kept at different lengths; in a thread with a
// slot by number and in one without.
TEST(HistDump, ReadsNoTextBeyondItsEndAndKeepsTheEndOfAFilesPath)
{
    const struct {
        const char* options;
        size_t id, ev, file;
    } lengths[] = {{"", 15, 31, 23}, {"mi7me17mf14", 7, 17, 14}, {"mi31me63mf47", 31, 63, 47}, {"mf4", 15, 31, 4}};
    for (const auto& kept : lengths)
        for (const char* behind : {"0", "40", "100"}) {
            a_text_list script;
            std::string expected = gap, text;
            for (size_t len = 0; len <= 100; len++, text += char('a' + (len - 1) % 26)) {
                script.push_back("page-end " + std::to_string(len) + " " + behind);
                const std::string id = text.substr(0, kept.id), ev = text.substr(0, kept.ev);
                expected += std::string(kept.id + 1 - id.size(), ' ') + id + std::string(kept.ev + 1 - ev.size(), ' ') +
                            ev + " " + (len < kept.file ? text : text.substr(len - (kept.file - 1))) + "\n";
            }
            const std::string options = std::string(kept.options) + "ia-id-in-it-ic-il-";
            EXPECT_EQ(rows(played(options, script).err), expected) << options << ", " << behind << " behind";
            EXPECT_EQ(rows(played(options, script, {"UT_HIST_EXT=dense"}).err), expected) << options << " dense";
        }
}

TEST(HistDump, PutsLongTextsTogetherFromTheirPagesHoweverManyTheyAre)
{
    a_text_list script;
    std::string expected = gap, text;
    for (size_t i = 0; i < 9000; i++)
        text += char('a' + i % 26);
    for (size_t i = 0; i < 50; i++, expected += " " + text + "\n")
        script.push_back("pages keep 100 9000");
    script.push_back("usr1");
    EXPECT_EQ(rows(played("f-ia-id-in-it-ic-il-ii-ie-", script).err), expected);
}

TEST(HistDump, EndsEveryLineAsConfigured)
{
    const a_text_list script = {"id Q 1 - q", "beg L Q a", "end L Q b", "data - - c 0x100000 3", "repeat 9 ev - - e"};
    const a_played unix_lines = played("n8kzl", script), dos_lines = played("cn8kzl", script);
    EXPECT_EQ(dos_lines.log, replaced(unix_lines.log, "\n", "\r\n"));
    EXPECT_EQ(dos_lines.err, replaced(unix_lines.err, "\n", "\r\n"));
}

TEST(HistDump, CountsSamplesPerPairAndReportsThoseWithoutATimer)
{
    a_text_list script = {"id A 1 a.c a"};
    for (int i = 0; i < 34; i++)
        script.push_back("id B" + std::to_string(i) + " 2 - description-of-20chr");
    for (int i = 0; i < 68; i++)
        script.insert(script.end(), {"ev - A x", "tick 3", "data - B" + std::to_string(i % 34) + " x 0 0"});
    const std::string dump = played("k200", script).err;
    const std::string pair = " DAT description-of-20chr     2     0.000003     0.000003     0.000003";
    EXPECT_EQ(count(dump, pair + "\n"), 31u);
    EXPECT_EQ(count(dump, "   > EV  -  1" + pair + " (4 missed)\n"), 1u);
    EXPECT_EQ(count(dump, "   > DAT -  0 EV  a "), 34u);
}
