// hist_file_test.cpp: the history file: what it is called, what is left in it when its process is killed, who removes
// it, and what forked children do to it.
#include <string.h>

#include <set>

#include "corvex/hist_image.h"
#include "tests/process/hist_played.h"

namespace {

// A history file: its header, its state, and the texts of its events in their order.
struct an_image {
    a_ut_hist_image header = {};
    uint32 state = 0;
    std::string events;
};

an_image read_image(const std::string& path)
{
    constexpr unsigned char magic[] = UT_HIST_IMAGE_MAGIC;
    const std::string bytes = read_file(path);
    an_image image;
    a_ut_hist_image& header = image.header;
    if (bytes.size() < UT_HIST_IMAGE_HEADER || memcmp(bytes.data(), magic, sizeof magic) != 0)
        return image;
    memcpy(&header, bytes.data(), sizeof header);
    const char* const rings = bytes.data() + header.sections[UT_HIST_RINGS].at;
    std::map<uint32, std::string> events;
    for (size_t i = 0; i < header.sections[UT_HIST_RINGS].entries; i++) {
        const auto& r = reinterpret_cast<const a_ut_hist_event*>(rings)[i];
        if (r.seq != 0 && r.seq % 2 == 0)
            events[r.num] =
                bytes.c_str() + header.sections[UT_HIST_TEXTS].at + i * header.text_stride + header.ev_text_at;
    }
    for (const auto& [num, text] : events)
        image.events += text;
    memcpy(&image.state, bytes.data() + header.sections[UT_HIST_LIVE].at, sizeof image.state);
    return image;
}

struct a_folder : a_scratch_dir {
    // Plays a script with that history file.
    a_run play(const std::string& words, const a_text_list& script, const std::string& options = "f-n20") const
    {
        return run("hist_play", {"TZ=UTC", "UT_HIST=" + options, "UT_HIST_EXT=" + words}, script, path);
    }

    // The names in it, but for the program's streams, with '#' for their first number.
    std::multiset<std::string> names() const
    {
        std::multiset<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(path))
            if (const std::string name = entry.path().filename(); name != ".out" && name != ".err")
                all.insert(
                    std::regex_replace(name, std::regex("[0-9]{2,}"), "#", std::regex_constants::format_first_only));
        return all;
    }

    // What the files hold that have an image.
    std::multiset<std::string> events() const
    {
        std::multiset<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(path))
            if (const an_image image = read_image(entry.path()); image.state != 0)
                all.insert(image.events);
        return all;
    }
};
using a_set = std::multiset<std::string>;

TEST(HistFile, HoldsWholeRowsAndTheNewestEventsWheneverItsProcessIsKilled)
{
    const a_run killed = run("hist_kill_torture", {}, {"50", "1", TOOL});
    EXPECT_EQ(killed.out, "50 rounds, 0 bad\n") << killed.err;
}

}  // namespace

TEST(HistFile, HoldsTheEventsOfAProcessThatWasKilled)
{
    const a_folder dir;
    EXPECT_TRUE(dir.play("file=a%,b_%%", {"ev - - x", "ev - - y", "raise 9"}).died_of(SIGKILL));
    const std::string path = std::filesystem::canonical(dir.path) / "a,b_%";
    const an_image image = read_image(path);
    EXPECT_EQ(image.events, "xy");
    EXPECT_EQ(image.state, UT_HIST_IMAGE_RUNS);
    EXPECT_EQ(image.header.file, path);
    EXPECT_EQ(image.header.image_bytes, (std::filesystem::file_size(path)));
    struct stat found;
    stat(path.c_str(), &found);
    EXPECT_EQ(found.st_mode & 0777, 0600u);
}

TEST(HistFile, IsNamedByItsPattern)
{
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    for (const auto& [pattern, name] : std::map<std::string, std::string>{
             {"%p", "#"}, {"%t", "#"}, {"%e.%h", std::string("hist_play.") + host}, {".", "hist_play.#.hist"}}) {
        const a_folder dir;
        dir.play("file=" + pattern, {"raise 9"});
        EXPECT_EQ(dir.names().count(std::regex_replace(name, std::regex("[0-9]{2,}"), "#")), 1u) << pattern;
    }
    for (const char* pattern : {"file=%x", "file=x%", "file=", "file", "keep=x,keep=1001,keep=-1"}) {
        const a_folder dir;
        const std::string notes = dir.play(pattern, {"ev - - x", "raise 9"}).err;
        EXPECT_EQ(count(notes, "UT_HIST_EXT: no word ("), pattern[0] == 'f' ? 1u : 3u) << pattern;
        EXPECT_EQ(dir.names(), a_set{});
    }
}

TEST(HistFile, GoesWithACleanExitUnlessItIsToBeKept)
{
    for (const char* options : {"f-", "f-x-"}) {
        const a_folder dir;
        EXPECT_TRUE(dir.play("file=x", {"ev - - a", "fini", "init", "ev - - b"}, options).exited_well());
        EXPECT_EQ(dir.names(), a_set{});
        EXPECT_TRUE(dir.play("keep,file=x", {"ev - - a"}, options).exited_well());
        EXPECT_EQ(read_image(dir.path + "/x").state, UT_HIST_IMAGE_ENDED);
    }
}

TEST(HistFile, TakesTheNextFreeName)
{
    const a_folder dir;
    std::ofstream(dir.path + "/x") << "theirs";
    std::filesystem::create_symlink("elsewhere", dir.path + "/x.1");
    dir.play("file=x", {"ev - - a", "raise 9"});
    EXPECT_EQ(dir.names(), (a_set{"x", "x.1", "x.2"}));
    EXPECT_EQ(read_file(dir.path + "/x"), "theirs");
    EXPECT_EQ(read_image(dir.path + "/x.2").events, "a");
}

TEST(HistFile, OfDeadProcessesTheNewestStay)
{
    const a_folder dir;
    for (const char* other : {"/1.y", "/x", "/12x"})
        std::ofstream(dir.path + other) << std::string(8192, 'x');
    dir.play("file=%p.x", {"ev - - o", "raise 9"});
    for (const auto& entry : std::filesystem::directory_iterator(dir.path))
        if (std::string image = read_file(entry.path()); read_image(entry.path()).events == "o") {
            image[offsetof(a_ut_hist_image, boot_id)] ^= 1;
            std::ofstream(entry.path(), std::ios::binary) << image;  // of another boot
        }
    for (const char* event : {"ev - - a", "ev - - b", "ev - - c", "ev - - d"})
        dir.play("file=%p.x,keep=2", {event, "raise 9"});
    EXPECT_EQ(dir.events(), (a_set{"o", "b", "c", "d"}));
    const a_folder of_workers;
    of_workers.play("file=%p.x,keep=2", {"ev - - a", "repeat 5 child raise 9", "raise 9"});
    EXPECT_EQ(of_workers.names().size(), 4u) << "two of workers that had gone, the last one's, the parent's";
    const a_folder of_idle;  // one that has recorded nothing is as new as its start
    for (const char* event : {"ev - - a", "tick 1", "ev - - c"})
        of_idle.play("file=%p.x,keep=1", {event, "raise 9"});
    EXPECT_EQ(of_idle.events(), (a_set{"", "c"}));
    // A process that lives is not a dead one; nor is one dead whose pattern has another name.
    dir.play("file=%p.x", {"ev - - l", "child fini ; env UT_HIST_EXT file=%p.x,keep=0 ; init ; ev - - m ; raise 9",
                           "child fini ; env UT_HIST_EXT file=%p.z,keep=0 ; init ; raise 9", "ev - - n", "raise 9"});
    EXPECT_EQ(dir.events(), (a_set{"o", "ln", "m", ""}));
    EXPECT_EQ(dir.names(), (a_set{"#.x", "#.x", "#.x", "#.z", "1.y", "x", "#x"}));
}

TEST(HistFile, ThatCannotBeHadIsToldAndTheHistoryGoesOnInMemory)
{
    const a_text_list script = {"limit 8192", "env UT_HIST f-n9", "init", "ev - - kept", "dump", "say alive"};
    const auto told = [](const a_run& result, const std::string& name, const std::string& why) {
        EXPECT_EQ(result.out, "alive\n");
        EXPECT_NE(result.err.find(name + "): " + why + "; it is in memory only\n"), std::string::npos) << result.err;
        EXPECT_EQ(count(result.err, " kept "), 1u) << result.err;
    };
    const a_folder dir;
    told(dir.play("file=x", script, "off"), "/x", "File too large");
    told(dir.play("file=/no/x", script, "off"), "(/no/x", "No such file or directory");
    EXPECT_EQ(dir.names(), a_set{});

    const std::string program = std::string(PROGRAM_DIR) + "/hist_play";
    const a_run full = run(
        "/usr/bin/env", {"UT_HIST=f-n9", "UT_HIST_EXT=file=.,keep"},
        {"unshare", "-rm", "sh", "-c",
         "mount -t tmpfs -o size=64k none . && cd \"$PWD\" && exec " + program + " 'ev - - kept' dump 'say alive'"});
    if (full.out.empty())  // containers may refuse mount namespaces; the limit of file sizes above goes the same way
        GTEST_SKIP() << "no file system of a given size: " << full.err;
    told(full, ".hist", "No space left on device");
}

TEST(HistFile, IsNotWrittenByForkedChildren)
{
    const a_text_list script = {"ev - - a", "child ev - - c ; file ; raise 9", "child ev - - d", "ev - - b", "raise 9"};
    for (const auto& [pattern, left] : {std::pair("x", a_set{"ab"}), {"%p.x", a_set{"ab", "ac"}}}) {
        const a_folder dir;
        const a_run result = dir.play(std::string("file=") + pattern, script, "f-n20ia-id-in-it-ii-ic-ip-il-is-");
        EXPECT_TRUE(result.died_of(SIGKILL));
        EXPECT_EQ(replaced(rows(result.out), " ", ""), "..............\na\nc\n")
            << "the child goes on with its parent's";
        EXPECT_EQ(dir.events(), left) << "a child that exits removes its own file only";
    }
    // Without fork handlers it neither records nor dumps, nor does its exit end anything.
    const a_folder dir;
    const a_run bare =
        dir.play("file=%p.x,keep", {"ev - - a", "bare ev - - c ; file ; dump ; usr1 ; fini", "ev - - b"});
    EXPECT_EQ(bare.out + bare.err, "");
    EXPECT_EQ(dir.events(), (a_set{"ab"}));
}

TEST(HistFile, OfAForkedChildHasAllThatItsParentHadRecorded)
{
    // Rings that have come round and one that has not, data, registered ids with long texts, statistics, tables.
    a_text_list script = {"id A 1 file.c " + std::string(80, 'x'), "beg at A begins", "data - - block 0x100000 64"};
    for (int i = 0; i < 30; i++)
        script.push_back("ev - A e" + std::to_string(i));
    script.insert(script.end(), {"data - - more 0x100000 600", "ev - Q2 one", "tick 7"});
    const auto dump = [&](const std::string& words, const char* how) {
        a_text_list all = script;
        all.push_back(how);
        return played("k5n20d1000", all, {"TZ=UTC", "UT_HIST_EXT=" + words}).out;
    };
    const std::string own = dump("dense", "child end at A ends ; file");
    EXPECT_EQ(count(own, "> EV  -  0 EV"), 1u) << own;
    EXPECT_EQ(dump("file=%p.x", "child end at A ends ; file"), own);
    EXPECT_EQ(dump("file=x", "child end at A ends ; file"), own);
    EXPECT_EQ(dump("file=%p.x", "child child file"), dump("dense", "child file"));
}
