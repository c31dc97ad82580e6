// reader_test.cpp: corvex-hist says of a process, and of an image's bytes in a file, what the process itself would.
#include "corvex/hist_image.h"
#include "tests/process/hist_played.h"

namespace {

// The reading's time stands in the banners.
std::string without_times(const std::string& dump)
{
    return std::regex_replace(dump, std::regex(" @ [0-9/]+ [0-9:.]+( [+-]..:..)?"), " @ ");
}

struct a_read {
    int code;
    std::string out, err;
};

a_read read_by_tool(const a_text_list& args)
{
    const a_run result = run(TOOL, {"TZ=Asia/Tokyo"}, args);
    return {WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1, result.out, result.err};
}

const a_text_list events = {"id X 3 f.c reg",
                            "id Y 4 - a-registered-id-whose-text-is-longer-than-its-place-in-the-registry-------------",
                            "on A beg L request starts",
                            "tick 70000",
                            "data - X blob 0x100000 40",
                            "repeat 9 ev - - busy 1 2",
                            "tick 12",
                            "ev - #7 -",
                            "ev M SIG signal 5",
                            "data M Y more 0x100000 30",
                            "on B ev - - gone",
                            "stop B",
                            "end - X last"};

// A file with the image of a process that has played the events.
std::string image(const std::string& options)
{
    a_text_list script = events;
    script.push_back("image copy");
    return played(options, script, {"TZ=UTC", "UT_HIST_EXT=tables"}).files["copy"];
}

struct a_file {
    explicit a_file(const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }
    const a_scratch_dir dir;
    const std::string path = dir.path + "/copy";
};

}  // namespace

TEST(Reader, WritesWhatTheProcessWritesItself)
{
    for (const std::string options : {"k8n50d64", "k8n5q5d+70", "ck8n3mi4me5mf3im", "f-n50k8", "f-n4"}) {
        a_text_list script = events;
        script.insert(script.end(), {"image copy", "file", "shell " TOOL " dump --tables $PID >live 2>said"});
        a_played seen = played(options, script, {"TZ=Europe/Berlin", "UT_HIST_EXT=tables"});
        std::string own = without_times(seen.out);
        own.erase(0, std::min(own.size(), own.find("*****")));
        const auto events_of = [](const std::string& dump) {
            return dump.substr(0, dump.find("***** HISTORY THREADS"));
        };
        EXPECT_EQ(events_of(without_times(seen.files["live"])), events_of(own)) << options;
        EXPECT_EQ(seen.files["said"], "") << options;
        EXPECT_EQ(count(seen.files["live"], "hist_play"), count(own, "hist_play")) << options;  // head and threads
        if (options[0] == 'f')
            continue;  // the file has no texts
        const a_read read = read_by_tool({"dump", "--tables", a_file(seen.files["copy"]).path});
        EXPECT_EQ(read.code, 0) << read.err;
        EXPECT_EQ(without_times(read.out), own) << options;
    }
}

TEST(Reader, FindsWholeRowsBesideRecorders)
{
    for (const std::string options : {"n40", "q4n9", "f-n7"}) {
        const a_scratch_dir dir;
        const std::string columns = "ia-id-in-it-ii-ic-il-is-";
        const a_run result = run("/bin/sh", {"UT_HIST=" + columns + options + "f-", "UT_HIST_THREAD_SLOT=dense"},
                                 {"-c", PROGRAM_DIR "/hist_recorders >pid & while [ ! -s pid ]; do :; done; i=0\n"
                                                    "while [ $i -lt 30 ]; do " TOOL
                                                    " dump $! >>dumps || echo failed; i=$((i + 1)); done; kill -9 $!"},
                                 dir.path);
        EXPECT_EQ(result.out + result.err, "") << options;
        std::istringstream dumps(read_file(dir.path + "/dumps"));
        size_t whole = 0, torn = 0;
        for (std::string line; std::getline(dumps, line);) {
            char text[64];
            unsigned k, other, thread;
            if (sscanf(line.c_str(), "%63s %x %x %x", text, &k, &other, &thread) != 4)
                continue;
            const char* const texts[] = {"t-0", "text--1", "long-text-----2", "the-longest-text-of-all-these3"};
            const bool is_whole =
                other == (k ^ 0x5A5A) && thread >= 1 && thread <= 3 && texts[k % 4] == std::string(text);
            (is_whole ? whole : torn)++;
        }
        EXPECT_EQ(torn, 0u) << options;
        EXPECT_GT(whole, 0u) << options;
    }
}

TEST(Reader, TellsWhatItCannotRead)
{
    const std::string good = image("n5k4d64");
    const a_ut_hist_image& header = *reinterpret_cast<const a_ut_hist_image*>(good.data());
    const auto put = [&](size_t at, const std::string& bytes) {
        return std::string(good).replace(at, bytes.size(), bytes);
    };
    const auto at = [&](int section) { return header.sections[section].at; };
    const std::string zeros(320, '\0');
    const struct {
        std::string bytes;
        int code;
        const char* said;
    } cases[] = {
        {good, 0, ""},
        {put(offsetof(a_ut_hist_image, version), "\7"), 1, "its layout has version 7, this corvex-hist reads version "},
        {put(0, zeros), 1, "no history file"},
        {"", 1, "no history file"},
        {good.substr(0, 1000), 1, "its header is cut off"},
        {put(offsetof(a_ut_hist_image, sections) + 8, "\xFF"), 1, "damaged: table of sections"},
        {put(offsetof(a_ut_hist_image, events), "\xFF"), 1, "damaged: table of sections"},
        {put(at(UT_HIST_RINGS) + 640, zeros), 2, "queue 0: 1 records are damaged"},
        {put(at(UT_HIST_QUEUES) + 8, "\xFF"), 2, "queue 0: its position is damaged"},
        {good.substr(0, at(UT_HIST_RINGS) + 960), 2, "cut off: 5248 of"},
        {good.substr(0, at(UT_HIST_TEXTS) + 40), 2, "queue 0: texts of"},
        {good.substr(0, at(UT_HIST_DATA) + 40), 2, "data blocks cannot be read"},
        {good.substr(0, at(UT_HIST_VIEWS)), 2, "threads from slot 0 on cannot be read"},
    };
    for (const auto& [bytes, code, said] : cases) {
        const a_file file(bytes);
        const a_read read = read_by_tool({"dump", "--tables", file.path});
        EXPECT_EQ(read.code, code) << said << "\n" << read.err;
        EXPECT_NE(read.err.find(said), std::string::npos) << said << "\n" << read.err;
        EXPECT_EQ(count(read.err, "\n"), code == 0 ? 0u : 1u) << read.err;
        EXPECT_EQ(count(read.out, "HISTORY DUMP END"), code == 1 ? 0u : 1u) << said;
    }
    const std::string large = played("n30000", {"repeat 30000 ev - - x", "image copy"}, {"TZ=UTC"}).files["copy"];
    const a_file cut(large.substr(0, large.size() / 3));  // all records of the queue, no texts
    EXPECT_EQ(count(read_by_tool({"dump", cut.path}).out, " ?"), 3 * 29999u);
    const a_file file(good);
    const a_read both = read_by_tool({"dump", file.path, "/nowhere", file.path});
    EXPECT_EQ(both.code, 2);
    EXPECT_EQ(count(both.out, "HISTORY DUMP END"), 2u);
    for (const a_text_list& wrong :
         std::vector<a_text_list>{{}, {"dump"}, {"dump", "--none", "1"}, {"look"}, {"info", "1", "2"}})
        EXPECT_EQ(read_by_tool(wrong).code, 64);
}

TEST(Reader, ListsAndDescribesHistories)
{
    a_text_list script = events;
    script.insert(script.end(), {"image copy", "shell " TOOL " list . >list"});
    const a_played seen = played("k4", script, {"TZ=UTC", "UT_HIST_EXT=tables"});
    const std::string row = "hist_play +[0-9]+ alive +16 2023/11/14 22:13:20.070012 ";
    EXPECT_NE(matches(seen.files.at("list"), (row + "[0-9]+\n").c_str()), "") << seen.files.at("list");
    EXPECT_NE(matches(seen.files.at("list"), (row + "./copy\n").c_str()), "");
    const a_file file(seen.files.at("copy"));
    EXPECT_NE(matches(read_by_tool({"list", file.dir.path}).out, "hist_play +[0-9]+ gone: killed"), "");
    const a_read info = read_by_tool({"info", file.path});
    for (const char* line : {"program: hist_play\n", "UT_HIST: k4\n", "state: gone: killed, _exit, exec\n",
                             "events: 16\n", "crash: none\n"})
        EXPECT_NE(info.out.find(line), std::string::npos) << line << info.out;
}
