// hist_dump_test.cpp: what dumps look like, to the byte, under a fixed clock.
#include "tests/process/hist_played.h"

TEST(HistDump, ShowsAllColumnsDataBlocksAndStatistics)
{
    const a_played seen = played(
        "k3iqimirlf-",
        {"id Q 12 dir/q.c query", "id C 7 - commit-all", "beg L Q select 1 0xabc", "tick 250", "ev - SIG from-handler",
         "end L Q rows 42", "tick 1000001", "mask 2", "mask 14", "ev - C begin 1 2 3 pn=2",
         "data - Q2 blob 0x100020 20 @/a/way/to/some/source/file.c:99999", "odd - - -", "slot 300", "ev - - lost",
         "slot 255", "null - an-id-longer-than-15 x @-:0", "setting 0", "dump"});
    EXPECT_EQ(seen.log, expected("all_columns.txt"));
    EXPECT_EQ(seen.err, R"(@ 2023/11/14 22:13:21 ..........
********** Dumping history to (ut_hist.log) # 7
@ 2023/11/14 22:13:21 ..........
********** Dumping history to (ut_hist.log) # 7 done
)");
}

TEST(HistDump, CopiesAndCutsTextsWhileAFinalDumpIsDue)
{
    // 23 characters of a file are one too many for the default of 23: its last 22 stay.
    const a_text_list script = {"ev - 1234567890123456 12345678901234567890123456789012 @12345678901234567890123:1",
                                "ev - - - @1234567890123456789012:1", "ev - - - @-:1"};
    EXPECT_EQ(rows(played("ia-id-it-", script).err),
              "........ ......\n"
              "       1 123456789012345 1234567890123456789012345678901 -    1 2345678901234567890123\n"
              "       2               -                               ? -    1 1234567890123456789012\n"
              "       3               -                               ? -    1 <no_file>\n");
    EXPECT_EQ(rows(played("ia-id-it-mf4mi2ME3", script).err), "........ ......\n"
                                                              "       1    12   123 -    1 123\n"
                                                              "       2     -     ? -    1 012\n"
                                                              "       3     -     ? -    1 <no_\n");
    EXPECT_EQ(rows(played("f-ia-id-it-il-",
                          {"ev - - - @-:1", "ev - id-longer-than-15-chars - @12345678901234567890123:1", "dump"})
                       .err),
              "........ ......\n"
              "       1                       -            ? - <no_file>\n"
              "       2 id-longer-than-15-chars            ? - 12345678901234567890123\n"
              "       3                       - PROGRAM DUMP - utils/etc/uthist/hist_log.cpp\n")
        << "without one the texts are the caller's own";
}

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

TEST(HistDump, MergesQueuesByNumberAndMarksWhatIsMissing)
{
    const std::string columns = "ia-id-ii-ic-it-ip-il-is-iq";
    EXPECT_EQ(rows(played(columns + "n4",
                          {"ev - - a", "ev - SIG s1", "ev - Q2 t1", "repeat 4 ev - - b", "ev - SIG s2", "ev - - c"})
                       .err),
              "........ ......\n"
              "  1       2    s1\n"
              "  2       3    t1\n"
              "........ ......\n"
              "  0       6     b\n"
              "  0       7     b\n"
              "  1       8    s2\n"
              "  0       9     c\n");
    EXPECT_EQ(rows(played(columns + "n4", {"repeat 3 ev - - a"}).err),
              "........ ......\n  0       1     a\n  0       2     a\n  0       3     a\n")
        << "not wrapped yet: all are shown, with one gap line in front";
    EXPECT_EQ(rows(played(columns + "n2", {"repeat 5 ev - - a"}).err), "........ ......\n  0       5     a\n");
    EXPECT_EQ(rows(played(columns + "n1", {"repeat 5 ev - - a"}).err), "");
    EXPECT_EQ(rows(played(columns, {}).err), "");
}

TEST(HistDump, ShowsDataBlocksUntilTheirRingOverwritesThem)
{
    const std::string columns = "ia-id-ii-ic-it-ip-il-is-";
    EXPECT_EQ(rows(played(columns + "d20", {"data - - fresh 0 5", "data - - a 0x100041 8", "data - - b 0x100051 8",
                                            "data - - c 0x100061 8", "data - - empty 0x100041 0"})
                       .err),
              "........ ......\n"
              "       1 fresh (0+0+NA)\n"
              "       2     a (1+0+NA)\n"
              "       3     b (1+8+8)\n"
              "\t\t0000/0000: 51 52 53 54 55 56 57 58                         |QRSTUVWX        |\n"
              "       4     c (2+0+8)\n"
              "\t\t0000/0000: 61 62 63 64 65 66 67 68                         |abcdefgh        |\n"
              "       5 empty (0+0+NA)\n");
    EXPECT_EQ(rows(played(columns + "d18", {"data - - cut 0x100020 500"}).err),
              "........ ......\n"
              "       1   cut (1+0+18)\n"
              "\t\t0000/0000: 20 21 22 23 24 25 26 27 28 29 2a 2b 2c 2d 2e 2f | !\"#$%&'()*+,-./|\n"
              "\t\t0016/0010: 30 31                                           |01              |\n");
    EXPECT_EQ(rows(played(columns + "d18", {"data - - a 0x100020 1", "data - - cut 0x100080 18"}).err),
              "........ ......\n"
              "       1     a (1+0+NA)\n"
              "       2   cut (2+0+18)\n"
              "\t\t0000/0000: 80 81 82 83 84 85 86 87 88 89 8a 8b 8c 8d 8e 8f |................|\n"
              "\t\t0016/0010: 90 91                                           |..              |\n");
    EXPECT_EQ(rows(played(columns + "d18", {"data - - none 0 3"}).err),
              "........ ......\n"
              "       1  none (0+0+3)\n"
              "\t\t0000/0000: 00 00 00                                        |...             |\n")
        << "nothing stored yet: the untouched ring counts as the block";
    for (const char* off : {"d-", "d0"})
        EXPECT_EQ(rows(played(columns + off, {"data - - none 0x100020 3"}).err), "........ ......\n       1  none\n");
}

TEST(HistDump, ShowsAsManyParametersAsTheWidestEvent)
{
    const std::string columns = "ia-id-ii-ic-it-in-il-is-";
    EXPECT_EQ(rows(played(columns, {"ev - - a 1 0 0x123456789abcdef0", "ev - - b 5", "ev - - c pn=-1 8 9",
                                    "ev - - d pn=9 1 2 3 4 5 6 7 8", "ev - - e"})
                       .err),
              "........ ......\n"
              "     a      0x1    (nil)0x123456789abcdef0      ...      ...      ...      ...      ...\n"
              "     b      0x5      ...      ...      ...      ...      ...      ...      ...\n"
              "     c      0x8      0x9    (nil)    (nil)    (nil)    (nil)    (nil)    (nil)\n"
              "     d      0x1      0x2      0x3      0x4      0x5      0x6      0x7      0x8\n"
              "     e      ...      ...      ...      ...      ...      ...      ...      ...\n");
}

TEST(HistDump, MeasuresDurationsFromLiveLocationsOnly)
{
    EXPECT_EQ(
        rows(played("ia-ii-ic-it-in-ip-il-is-n9",
                    {"at Z 0 0 0", "at Q 3 0 0", "at N 0 9 0", "at M -1 0 0", "at U 0 5 0", "ev Z - own-slot",
                     "ev Q - no-such-queue", "ev N - no-such-slot", "ev M - nothing", "ev U - unwritten", "tick 7",
                     "ev Z - since-own-slot", "tick -5", "ev Z - backwards", "tick 4294967298", "ev Z - wraps"})
                 .err),
        "........ ......\n"
        "   -.-            own-slot\n"
        "   -.-       no-such-queue\n"
        "   -.-        no-such-slot\n"
        "   -.-             nothing\n"
        " 404.635648      unwritten\n"
        "   0.000007 since-own-slot\n"
        "4294.967291      backwards\n"
        "   0.000002          wraps\n");
    const a_played stale =
        played("ia-ii-ic-it-in-ip-il-is-n2",
               {"ev L - a", "ev - - b", "tick 9", "ev L - c", "where L", "repeat 2 ev - - d", "ev L - e", "where L"});
    EXPECT_EQ(stale.out, "L 0 0 3\nL 0 1 6\n");
    EXPECT_EQ(rows(stale.err), "........ ......\n   -.-          e\n") << "an overwritten record times nothing";
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

TEST(HistDump, ShowsLocalTimeAcrossSummerTimeAlsoInASignalHandler)
{
    EXPECT_EQ(played("id-in-it-ii-ie-ic-ip-il-is-f-h",
                     {"clock 1711846799", "ev - - a", "tick 1000000", "ev - - b", "usr1", "clock 1922000000", "usr1"},
                     {"TZ=CET-1CEST,M3.5.0,M10.5.0/3"})
                  .err.substr(0, 28),
              "@ 2023/11/14 23:13:20 ......");
    const char* body = "    time..milli\n........ ......\n01:59:59.000000\n03:00:00.000000\n";
    std::string expected;
    for (const std::string now : {"2024/03/31 03:00:00", "2030/07/01 12:00:00", "2030/11/27 09:53:20"})
        expected += "@ " + now + " ..........\n********** HISTORY DUMP BIGIN @ " + now + " (res=0) **********\n" +
                    body + "********** HISTORY DUMP END @ " + now + " (0 missed, thr=0) **********\n";
    EXPECT_EQ(played("id-in-it-ii-ie-ic-ip-il-is-f-",
                     {"clock 1711846799", "ev - - a", "tick 1000000", "ev - - b", "usr1", "clock 1909130400", "usr1",
                      "clock 1922000000", "usr1"},
                     {"TZ=CET-1CEST,M3.5.0,M10.5.0/3"})
                  .err,
              expected);
}
