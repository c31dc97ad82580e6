// hist_storm_test.cpp: dumps that signals, callers and shut-down ask for while everything else goes on are whole, and
// so is every row in them.
#include <regex>

#include "tests/process/hist_played.h"

namespace {

const char* const texts[] = {"t-0", "text--1", "long-text-----2", "the-longest-text-of-all-these3"};
const char* const files[] = {"f-0", "file--1", "long-file-----2", "ome/way/long-file-3.cc"};

// What is wrong with a row; empty for nothing.
std::string fault(const std::string& row)
{
    unsigned line;
    char id[32], ev[40] = "", cl[4], p1[20], p2[20], p3[20], file[40];
    const int fields = sscanf(row.c_str(), "%*d:%*d:%*d.%*6u %*s %*1u %*31s %*u %31s %39s %3s %19s %19s %19s %u %39s",
                              id, ev, cl, p1, p2, p3, &line, file);
    if (std::string(ev) == "PROGRAM" || std::string(ev) == "data")
        return "";
    if (fields != 8)
        return "a row without its columns";
    const unsigned long k = strtoul(p1, nullptr, 0);
    const std::string p = p3, either = k % 2 != 0 ? "odd>" : "even<", cls = either.substr(either.size() - 1);
    const std::string owner = p == "0x2" ? either : (p == "0x4" ? "Q2" : p == "0x7" ? "SigHandler" : "-") + cls;
    const bool whole = strtoul(p2, nullptr, 0) == (k ^ 0x5A5A) && line == k % 9973 && id + std::string(cl) == owner;
    return whole && std::string(ev) == texts[k % 4] && std::string(file) == files[k % 4] ? "" : "a row made of two";
}

// The hex lines of a data row show "<k>=<letters>" with as many letters as k says, of the one that k says.
std::string data_fault(const std::string& text)
{
    const unsigned long k = strtoul(text.c_str(), nullptr, 10);
    return text == std::to_string(k) + "=" + std::string(k % 64, char('a' + k % 26)) ? "" : "a torn block";
}

// Reads a log of many dumps; gives the first thing that is wrong with it, and counts.
struct a_reader {
    int dumps = 0, rows = 0, blocks = 0;

    std::string read(const std::string& log)
    {
        const std::regex whole("BH[grx]*S[^BHE]*E"),
            thread("[ 0-9]{11} hist_storm +[0-9]+ +(odd|even|Q2|SigHandler|-) +(t-0|text--1|long-text-----2|"
                   "the-longest-text-of-all-these3|data|PROGRAM DUMP) +[0-9]+[.][0-9]{6} +(odd|even|Q2|-).*");
        std::istringstream lines(log);
        std::string shape, block;  // a letter for each line of the dump; the data of the last row
        unsigned long last = 0;
        bool in_block = false;
        for (std::string line, wrong; std::getline(lines, line);) {
            const auto has = [&line](const char* text) { return line.find(text) != std::string::npos; };
            if (has("HISTORY THREADS") || line.starts_with("Thr ") || (shape.empty() && std::regex_match(line, thread)))
                continue;  // the thread table
            const bool in_rows = shape.find('S') == std::string::npos;
            const char kind = has("HISTORY DUMP BIGIN")      ? 'B'
                              : has("HISTORY DUMP END")      ? 'E'
                              : has("STATISTICS DUMP BIGIN") ? 'S'
                              : has("    time..milli")       ? 'H'
                              : line + "\n" == gap           ? 'g'
                              : line.starts_with("\t\t")     ? 'x'
                              : in_rows                      ? 'r'
                                                             : 's';
            shape += kind;
            if (in_block && kind != 'x') {
                wrong = data_fault(block);
                blocks++;
                in_block = false;
            }
            if (kind == 'x') {
                block += line.substr(line.size() - 17, 16);
                block.erase(block.find_last_not_of(' ') + 1);
            } else if (kind == 'r' && wrong.empty()) {
                const unsigned long number = strtoul(&line[std::min(line.size(), size_t(29))], nullptr, 10);
                wrong = number > last ? fault(line) : "rows out of order";
                last = number;
                rows++;
                in_block = line.ends_with(")") && !line.ends_with("NA)");
                block.clear();
            } else if (kind == 'E') {
                if (!std::regex_match(shape, whole))
                    return "a dump that is not whole: " + shape;
                shape.clear();
                last = 0;
                dumps++;
            }
            if (!wrong.empty())
                return wrong + ": " + line + "\n" + block;
        }
        return shape.empty() ? "" : "a dump without its end";
    }
};

}  // namespace

TEST(HistStorm, LeavesWholeDumpsOfWholeRows)
{
    // ThreadSanitizer holds signals back until a thread waits, so that many of them become one there.
    const bool slow = std::string(CORVEX_SANITIZE).find("thread") != std::string::npos;
    for (const char* options : {"xlr-iqkn40d900", "xlr-iqkn40d900q8", "xlr-iqkn9d200q8"}) {
        const a_scratch_dir dir;
        const a_run result = run("hist_storm", {std::string("UT_HIST=") + options, "UT_HIST_EXT=tables"},
                                 {slow ? "1000" : "1500"}, dir.path);
        EXPECT_TRUE(result.exited_well()) << "status " << result.status << result.err;
        a_reader reader;
        EXPECT_EQ(reader.read(read_file(dir.path + "/ut_hist.log")), "") << options;
        EXPECT_GT(reader.dumps, slow ? 2 : 5) << options;
        EXPECT_GT(reader.rows, 10 * reader.dumps) << options;
        EXPECT_GT(reader.blocks, reader.dumps / 4) << options;
    }
}
