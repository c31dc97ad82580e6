// hist_storm_test.cpp: dumps that signals, callers and shut-down ask for while everything else goes on are whole, and
// so is every row in them.
#include <string.h>

#include "tests/process/hist_played.h"

namespace {

const char* const texts[] = {"t-0", "text--1", "long-text-----2", "the-longest-text-of-all-these3"};
const char* const files[] = {"f-0", "file--1", "long-file-----2", "ome/way/long-file-3.cc"};

// What is wrong with a row; empty for nothing.
std::string fault(const std::string& row)
{
    unsigned queue, thread, line, usec;
    char number[32], id[32], ev[40], cl[4], p1[20], p2[20], p3[20], file[40];
    const int fields = sscanf(row.c_str(), "%*d:%*d:%*d.%6u %*s %1u %31s %u %31s %39s %3s %19s %19s %19s %u %39s",
                              &usec, &queue, number, &thread, id, ev, cl, p1, p2, p3, &line, file);
    if (fields >= 6 && (strcmp(ev, "PROGRAM") == 0 || strcmp(ev, "data") == 0))
        return "";
    if (fields != 12)
        return "a row without its columns";
    const unsigned long k = strtoul(p1, nullptr, 0);
    if (strtoul(p2, nullptr, 0) != (k ^ 0x5A5A) || strcmp(ev, texts[k % 4]) != 0 || strcmp(file, files[k % 4]) != 0 ||
        line != k % 9973 || strcmp(cl, k % 2 != 0 ? ">" : "<") != 0)
        return "a row made of two";
    const std::string p = p3, expected_id = p == "0x2"   ? (k % 2 != 0 ? "odd" : "even")
                                            : p == "0x4" ? "Q2"
                                            : p == "0x7" ? "SigHandler"
                                                         : "-";
    return id == expected_id ? "" : "another record's id";
}

// The hex lines of a data row show "<k>=<letters>" with as many letters as k says, of the one that k says.
std::string data_fault(const std::string& text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
        return "a block without its beginning";
    const unsigned long k = strtoul(text.c_str(), nullptr, 10);
    return text.substr(equals + 1) == std::string(k % 64, char('a' + k % 26)) ? "" : "a torn block: " + text;
}

// Reads a log of many dumps; gives the first thing that is wrong with it, and counts.
struct a_reader {
    int dumps = 0, rows = 0, blocks = 0, gaps = 0;

    std::string read(const std::string& log)
    {
        enum { outside, begun, in_rows, in_statistics } state = outside;
        std::istringstream lines(log);
        unsigned long last = 0;
        std::string block;
        bool in_block = false;
        for (std::string line; std::getline(lines, line);) {
            const bool hex = line.compare(0, 2, "\t\t") == 0;
            if (in_block && !hex) {
                const std::string wrong = data_fault(block);
                if (!wrong.empty())
                    return wrong;
                blocks++;
                in_block = false;
            }
            if (line.find("HISTORY DUMP BIGIN") != std::string::npos) {
                if (state != outside)
                    return "a dump inside another";
                state = begun;
                last = 0;
            } else if (state == begun) {
                if (line.compare(0, 15, "    time..milli") != 0)
                    return "a dump without its header";
                state = in_rows;
            } else if (line.find("STATISTICS DUMP BIGIN") != std::string::npos && state == in_rows) {
                state = in_statistics;
            } else if (line.find("HISTORY DUMP END") != std::string::npos) {
                if (state != in_statistics)
                    return "an end without its sections";
                state = outside;
                dumps++;
            } else if (state == in_rows && line == "........ ......") {
                gaps++;
            } else if (state == in_rows && hex) {
                block += line.substr(line.size() - 17, 16);
                block.erase(block.find_last_not_of(' ') + 1);
            } else if (state == in_rows) {
                const std::string wrong = fault(line);
                const unsigned long number = strtoul(line.substr(29).c_str(), nullptr, 10);
                if (!wrong.empty())
                    return wrong + ": " + line;
                if (number <= last)
                    return "rows out of order: " + line;
                last = number;
                rows++;
                in_block = line.back() == ')' && line.compare(line.size() - 3, 3, "NA)") != 0;
                block.clear();
            } else if (state == outside) {
                return "a line outside a dump: " + line;
            }
        }
        return state == outside ? "" : "a dump without its end";
    }
};

}  // namespace

TEST(HistStorm, LeavesWholeDumpsOfWholeRows)
{
    // ThreadSanitizer holds signals back until a thread waits, so that many of them become one there.
    const bool slow = std::string(CORVEX_SANITIZE).find("thread") != std::string::npos;
    for (const char* options : {"xlr-iqkn40d900", "xlr-iqkn40d900q8", "xlr-iqkn9d200q8"}) {
        const a_scratch_dir dir;
        const a_run result = run("hist_storm", {std::string("UT_HIST=") + options, "UT_HIST_THREAD_SLOT=dense"},
                                 {slow ? "1000" : "1500"}, dir.path);
        EXPECT_TRUE(result.exited_well()) << "status " << result.status << result.err;
        a_reader reader;
        EXPECT_EQ(reader.read(read_file(dir.path + "/ut_hist.log")), "") << options;
        EXPECT_GT(reader.dumps, slow ? 2 : 30) << options;
        EXPECT_GT(reader.rows, 10 * reader.dumps) << options;
        EXPECT_GT(reader.blocks, reader.dumps / 4) << options;
    }
}
