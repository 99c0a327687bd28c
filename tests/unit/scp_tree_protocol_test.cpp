// The tree synchronisations on the scripted peer: the exact answers a
// recursive source receives and the exact records a recursive sink
// receives, with and without answers in flight, the failure points, the
// progress accounting, dry runs, hostile names and the hazards of pipelining.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

using namespace std::string_literals;
const std::string kGo = "\0"s, kSkip = "\x01skip\n"s, kAbort = "\x02"s + "abort\n";
const std::string kTimes = "T1700000000 0 1700000000 0\n";
using Files = std::vector<std::string>;

// Plays a recursive source. The script is a run of steps, each a mark and
// the bytes the source sends: a record (an upper-case letter first) up to
// its '\n', anything else up to its '\0' or the end. The mark is what the
// client must answer before the next step: '+' 0x00, '-' the skip, '!' the
// abort, anything else nothing. With `times` every "C" and "D" record is
// preceded by a "T" line answered with 0x00. The client opens with a 0x00;
// the source ends with EOF and CLOSE unless `hang`. Returns every byte the
// client must write.
std::string playSource(ScriptedPeer& peer, const std::string& script, bool times = false,
                       bool hang = false) {
    std::string expected = kGo;
    for (size_t i = 0, end; i < script.size(); i = end) {
        const char mark = script[i++];
        const bool record = std::isupper(static_cast<unsigned char>(script[i]));
        end = std::min(script.find(record ? '\n' : '\0', i), script.size() - 1) + 1;
        peer.awaitTotalBytes(expected.size());
        if (times && (script[i] == 'C' || script[i] == 'D')) {
            peer.send(kTimes).awaitTotalBytes(expected.size() + 1);
            expected += kGo;
        }
        peer.send(script.substr(i, end - i));
        expected += mark == '+' ? kGo : mark == '-' ? kSkip : mark == '!' ? kAbort : "";
    }
    peer.awaitTotalBytes(expected.size());
    if (!hang) peer.eof().close();
    return expected;
}

bool download(ScpRig& rig, const std::string& root, int mode = 0, bool recurse = true,
              ProgressEvent* progress = nullptr) {
    XString remote("/srv/root"), local(root.c_str());
    return rig.scp.SyncTreeDownload(remote, local, mode, recurse, progress);
}

bool upload(ScpRig& rig, const std::string& root, int mode = 0, bool recurse = true,
            ProgressEvent* progress = nullptr) {
    XString local(root.c_str()), remote("/srv/my dst");
    return rig.scp.SyncTreeUpload(local, remote, mode, recurse, progress);
}

TEST(TreeDownloadProtocolTest, AnswersEveryRecordAsTheSelectionDecides) {
    const std::string root = "+D0755 0 root\n";
    const struct {
        const char* name;
        std::string script;
        bool ok;
        const char* logged;
        Files tree = {};         // below the local root afterwards
        int extraWhenAhead = 0;  // zeros sent ahead for records that never came
        bool hang = false;
        ScpSettings settings = {};
        bool recurse = true;
        const char* blocker = "";  // a file made first where the tree needs a directory
    } cases[] = {
        // clang-format off
        {"one file", root + "+C0644 3 a b.txt\n+abc\0+E\n"s, true, "", {"a b.txt"}},
        {"file filter", root + "-C0644 4 keep.bin\n+C0644 1 a.txt\n+z\0+E\n"s, true, "", {"a.txt"},
         0, false, {{"*.txt"}}},
        {"nested", root + "+D0700 0 sub dir\n+C0644 1 f\n+q\0+E\n+D0755 0 e\n+E\n+E\n"s, true, "",
         {"e", "sub dir", "sub dir/f"}},
        {"recurse false", root + "-D0755 0 sub\n+C0644 1 f\n+q\0+E\n"s, true, "", {"f"}, 0, false,
         {}, false},
        {"dir filter", root + "-D0755 0 tmpcache\n+E\n", true, "", {}, 0, false,
         {{"", "", "", "tmp*"}}},
        {"root filtered", "-D0755 0 root\n", true, "", {}, 0, false, {{"", "", "keep*", ""}}},
        {"file as the root", "+C0644 2 only\n+ok\0"s, true, "", {"only"}},
        // The root's own name is never part of a local path.
        {"root named ..", "+D0755 0 ..\n+C0644 2 f\n+hi\0+E\n"s, true, "", {"f"}},
        {"root named x/y", "+D0755 0 x/y\n+C0644 2 f\n+hi\0+E\n"s, true, "", {"f"}},
        {"E with nothing open", "!E\n", false, "errReturnLoc: 1"},
        {"no record, no EOF", root, false, "errReturnLoc: 30", {}, 1, true},
        {"EOF before the root's E", root, true, "", {}, 1},
        {"data cut short", root + "+C0644 10 f\n!abc", false, "Consume recursive response failed.",
         {}, 2, true},
        // Nothing already there is replaced.
        {"directory cannot be made", root + "!D0755 0 sub\n", false, "errReturnLoc: 3", {"sub"}, 3,
         true, {}, true, "sub"},
        // clang-format on
    };
    for (const auto& c : cases) {
        for (const char* options : {"", "Pipelined"}) {
            for (bool times : {false, true}) {
                SCOPED_TRACE(std::string(c.name) + " / " + options + (times ? " / times" : ""));
                ScpSettings settings = c.settings;
                settings.options = options;
                ScpRig rig(settings);
                std::string answers = playSource(rig.peer(), c.script, times, c.hang);
                // Zeros answered ahead for records that never came go before any abort.
                const bool aborts =
                    answers.size() >= 7 && answers.substr(answers.size() - 7) == kAbort;
                if (times && *options)
                    answers.insert(answers.size() - (aborts ? 7 : 0), c.extraWhenAhead, '\0');
                ScratchDir dir;
                const std::string root = dir.file("local");
                makeDir(root);
                if (*c.blocker) writeFile(root + "/" + c.blocker, "keep me");
                EXPECT_EQ(download(rig, root, 0, c.recurse), c.ok) << rig.log();
                expectLog(rig.log(), {c.logged});
                EXPECT_EQ(rig.peer().execCommand, "scp -rpf /srv/root");
                EXPECT_EQ(rig.peer().written, answers);
                if (c.ok || *c.blocker) {
                    EXPECT_EQ(listTree(root), c.tree);
                }
                if (*c.blocker) {
                    EXPECT_EQ(readFile(root + "/" + c.blocker), "keep me");
                }
                EXPECT_EQ(syncedFiles(rig.scp), c.ok ? listTree(root, true) : Files{});
            }
        }
    }
}

TEST(TreeDownloadProtocolTest, TimesAndOnlyPermissionBitsAreKept) {
    ScpRig rig;
    playSource(rig.peer(), "+D4777 0 root\n+C6755 5 run\n+hello\0+D1777 0 d\n+E\n+E\n"s, true);
    ScratchDir dir;
    ASSERT_TRUE(download(rig, dir.file("r"))) << rig.log();
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"r", {true, 0777}},
                            {"r/d", {true, 0777}},
                            {"r/run", {false, 0755, 1700000000, "hello"}}}));
}

// A name that leads outside the root is refused before anything is made,
// also when answers are already in flight; the source is told to abort.
TEST(TreeDownloadProtocolTest, HostileNamesAreRefusedAndNothingIsCreated) {
    for (const std::string& record : std::vector<std::string>{
             "C0644 3 ..\n", "C0644 3 ../x\n", "C0644 3 a/../../x\n", "C0644 3 /etc/x\n",
             "C0644 3 \n", "C0644 3 .\n", "C0644 3 a\0b\n"s, "D0755 0 ..\n", "D0755 0 a/b\n",
             "D0755 0 x\n..\n"}) {
        for (const char* options : {"", "Pipelined"}) {
            // Answers in flight frame each line at its line feed.
            if (*options && record.find('\n') + 1 < record.size()) continue;
            SCOPED_TRACE(record + options);
            ScpRig rig({{}, options});
            const size_t sent = playSource(rig.peer(), "+D0755 0 root\n", true, true).size();
            // Then what the server would send if the name were let through.
            rig.peer().send(kTimes).awaitTotalBytes(sent + 1).send(record);
            rig.peer().awaitTotalBytes(sent + 1 + kAbort.size()).send("xyz\0"s).eof();
            ScratchDir outer;
            makeDir(outer.file("a/b/root"));
            EXPECT_FALSE(download(rig, outer.file("a/b/root"), 1));
            expectLog(rig.log(), {"Refusing an unsafe file name from the server."});
            const std::string& w = rig.peer().written;
            EXPECT_EQ(w.substr(w.size() - std::min(w.size(), kAbort.size())), kAbort);
            EXPECT_EQ(listTree(outer.path()), (Files{"a", "a/b", "a/b/root"}));
            EXPECT_TRUE(syncedFiles(rig.scp).empty());
        }
    }
}

// Answers run ahead only for a source that has shown it sends "T" lines; a
// "C" where a "T" was answered ahead would take that 0x00 as its own.
TEST(TreeDownloadProtocolTest, RecordWithoutItsTimesWhereAnAnswerRanAheadAborts) {
    for (int mode : {0, 1}) {
        SCOPED_TRACE(mode);
        ScpRig rig({{}, "Pipelined"});
        rig.peer().awaitTotalBytes(1).send(kTimes).awaitTotalBytes(2).send("D0755 0 root\n");
        rig.peer().awaitTotalBytes(4).send("C0644 3 f\nabc").send(kGo).awaitTotalBytes(20).eof();
        ScratchDir dir;
        EXPECT_FALSE(download(rig, dir.file("r"), mode));
        expectLog(rig.log(), {"A record came without the times line that was answered ahead."});
        EXPECT_EQ(rig.peer().written, kGo + kGo + kGo + kGo + kAbort);
        EXPECT_EQ(listTree(dir.path()), Files{"r"});
    }
}

TEST(TreeDownloadProtocolTest, SizingPassDryRunAndEvents) {
    // Counted files are answered with the skip: their data never cross.
    const std::string sizing =
        "+D0755 0 root\n-C0644 1000 big\n+D0755 0 s\n-C0644 200 small\n+E\n+E\n";
    // small is gone by the time of the download pass.
    const std::string fetch =
        "+D0755 0 root\n+C0644 1000 big\n+" + std::string(1000, 'b') + "\0+D0755 0 s\n+E\n+E\n"s;
    const struct {
        const char* options;
        bool progress, sizes, downloads;
    } rows[] = {{"", true, true, true},
                {"NoSizingPass", true, false, true},
                {"DryRun", true, true, false},
                {"x,dryrun", false, true, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.options);
        ScpRig rig({{}, row.options});
        const std::string answers = row.sizes ? playSource(rig.peer(0), sizing) : "";
        if (row.downloads) playSource(rig.peer(row.sizes ? 1 : 0), fetch);
        ScratchDir dir;
        const std::string root = dir.file("new");
        ProgressLog progress;
        ASSERT_TRUE(download(rig, root, 0, true, row.progress ? &progress : nullptr)) << rig.log();
        EXPECT_EQ(rig.transport->channelsOpened(), row.sizes + row.downloads);
        if (row.sizes) {
            EXPECT_EQ(rig.peer(0).written, answers);
        }
        // 1,200 bytes and two directories to create (the root and s).
        if (row.sizes) expectLog(rig.log(), {"totalByteCount: 1200", "totalNumDirs: 2"});
        if (!row.downloads) {
            EXPECT_FALSE(pathExists(root));
            EXPECT_TRUE(progress.events.empty());
            EXPECT_EQ(syncedFiles(rig.scp), (Files{"big", "s/small"}));
            continue;
        }
        EXPECT_EQ(progress.events, (Files{"scp-localdir-created " + root, "scp-begin-download big",
                                          "scp-localfile-created " + root + "/big",
                                          "scp-localdir-created " + root + "/s"}));
        // The root is 100 of 1,400 units; what was counted but not found any
        // more is made up at the end.
        ASSERT_FALSE(progress.percents.empty());
        if (row.sizes) {
            EXPECT_EQ(progress.percents.front(), 7);
        }
        EXPECT_EQ(progress.percents.back(), 100);
        EXPECT_EQ(syncedFiles(rig.scp), Files{"big"});
    }
}

TEST(TreeUploadProtocolTest, SendsTheRecordsOfTheLocalTree) {
    using Build = void (*)(const std::string& root);
    const struct {
        const char* name;
        Build build;
        std::string records;  // every byte the client writes
        const char* synced;
        bool recurse = true;
        const char* logged = "";
        std::array<std::string, 4> filters = {};  // files, not files, dirs, not dirs
    } cases[] = {
        {"empty root", [](const std::string&) {}, "E\n", ""},
        // Only d/y.txt passes; the directory is not entered at all.
        {"filters",
         [](const std::string& r) {
             for (const char* f : {"a.log", "skipme/c.txt", "d/b.txt", "d/y.txt"})
                 writeFile(r + "/" + f, "y", 1700000000);
         },
         "D0755 0 d\n" + kTimes + "C0644 1 y.txt\ny" + kGo + "E\nE\n",
         "d/y.txt",
         true,
         "",
         {"*.txt", "b*", "", "sk*"}},
        {"file in a directory with a blank",
         [](const std::string& r) {
             makeDir(r + "/d 1", 0750);
             writeFile(r + "/d 1/f.txt", "abc", 1700000000, 0640);
         },
         "D0750 0 d 1\n" + kTimes + "C0640 3 f.txt\nabc" + kGo + "E\nE\n", "d 1/f.txt"},
        {"empty nested directories", [](const std::string& r) { makeDir(r + "/e/f", 0700); },
         "D0755 0 e\nD0700 0 f\nE\nE\nE\n", ""},
        {"recurse false", [](const std::string& r) { writeFile(r + "/sub/x", "x"); }, "E\n", "",
         false},
        {"setuid and sticky bits",
         [](const std::string& r) {
             makeDir(r + "/s", 01777);
             writeFile(r + "/s/e", "", 1700000000, 04755);
         },
         "D0777 0 s\n" + kTimes + "C0755 0 e\n" + kGo + "E\nE\n", "s/e"},
        {"unreadable file skipped",
         [](const std::string& r) {
             writeFile(r + "/ok", "fine", 1700000000);
             std::filesystem::create_symlink("gone", r + "/dangling");
         },
         kTimes + "C0644 4 ok\nfine" + kGo + "E\n", "ok", true, "Unable to open local file.."},
    };
    for (const auto& c : cases) {
        for (const char* options : {"", "Pipelined"}) {
            SCOPED_TRACE(std::string(c.name) + " " + options);
            ScpRig rig({c.filters, options});
            rig.peer().send(std::string(64, '\0')).closeOnClientClose();
            ScratchDir dir;
            makeDir(dir.file("src"));
            c.build(dir.file("src"));
            EXPECT_TRUE(upload(rig, dir.file("src"), 0, c.recurse)) << rig.log();
            expectLog(rig.log(), {c.logged});
            EXPECT_EQ(rig.transport->channelsOpened(), 1);  // mode 0 asks the server nothing
            EXPECT_EQ(rig.peer().execCommand, "scp -rpt \"/srv/my dst\"");
            EXPECT_EQ(rig.peer().written, c.records);
            EXPECT_EQ(syncedFiles(rig.scp), sortedLines(c.synced));
            EXPECT_TRUE(rig.peer().clientSentClose);
        }
    }
}

// With lines in flight, a sink that refuses a line gets nothing after it:
// no data for a refused "C", nothing inside a refused "D". Two files go
// out in the order the directory lists them.
TEST(TreeUploadProtocolTest, RefusalsWhileLinesAreInFlight) {
    const std::string no = "\x01scp: refused\n";
    const struct {
        bool inDirectory;  // a directory d holding one file, or two files
        std::string acks;  // the sink's answers, all sent at once
        std::string lastLine;
        size_t fileLines, dataBytes;
    } rows[] = {
        {true, kGo + no, "D0755 0 d\n", 0, 0},                        // D refused
        {false, kGo + kGo + no, "C0644 1 ", 1, 0},                    // C refused
        {false, kGo + kGo + kGo + kGo + kGo + no, "C0644 1 ", 2, 1},  // second C refused
        {false, kGo + kGo + kGo + no, "C0644 1 ", 2, 1},              // the data refused
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.acks.size());
        ScpRig rig({{}, "Pipelined"});
        rig.peer().send(row.acks).eof().close();
        ScratchDir dir;
        for (const char* f : {"d/x", "a", "b"})
            if ((*f == 'd') == row.inDirectory) writeFile(dir.file("src/") + f, "z", 1700000000);
        EXPECT_FALSE(upload(rig, dir.file("src")));
        expectLog(rig.log(), {"scpError: scp: refused"});
        const std::string& w = rig.peer().written;
        const size_t last = w.rfind('\n', w.size() - 2) + 1;
        EXPECT_EQ(w.compare(last, row.lastLine.size(), row.lastLine), 0) << w;
        EXPECT_EQ(w.back(), '\n');
        size_t lines = 0;
        for (size_t at = 0; (at = w.find("\nC0644 1 ", at)) != std::string::npos; ++at) ++lines;
        EXPECT_EQ(lines, row.fileLines);
        EXPECT_EQ(std::count(w.begin(), w.end(), 'z'), static_cast<long>(row.dataBytes));
    }
}

TEST(TreeUploadProtocolTest, HashingPassRecordsRemoteFilesAndTheUploadSkipsThem) {
    for (const char* options : {"", "Pipelined"}) {
        SCOPED_TRACE(options);
        // File filters do not apply while hashing; directory filters still prune.
        ScpRig rig({{"", "*.log", "", "cache"}, options});
        rig.scp.put_VerboseLogging(true);
        const std::string hashing = playSource(
            rig.peer(0),
            "+D0755 0 dst\n-C0644 4 same.txt\n-C0644 9 x.log\n-D0755 0 cache\n+D0755 0 sub\n"
            "-C0644 4 in.txt\n+E\n+E\n",
            true);
        rig.peer(1).send(std::string(64, '\0')).closeOnClientClose();
        ScratchDir dir;
        const std::string root = dir.file("src");
        for (const char* f :
             {"same.txt", "new.txt", "x.log", "y.log", "sub/in.txt", "sub/added.txt"})
            writeFile(root + "/" + f, "data", 1600000000);
        EXPECT_TRUE(upload(rig, root, 1)) << rig.log();
        EXPECT_EQ(rig.peer(0).execCommand, "scp -rpf /srv/my dst");  // unquoted, unlike the sink
        EXPECT_EQ(rig.peer(0).written, hashing);
        expectLog(rig.log(), {"hashingRemoteFile: x.log", "hashingRemoteFile: sub/in.txt"});
        EXPECT_EQ(syncedFiles(rig.scp), (Files{"new.txt", "sub/added.txt"}));
    }
}

TEST(TreeUploadProtocolTest, ProgressTotalsEventsAndDryRun) {
    ScratchDir dir;
    const std::string root = dir.file("src");
    writeFile(root + "/a", std::string(400, 'a'));
    writeFile(root + "/d1/b", std::string(600, 'b'));
    makeDir(root + "/d1/d2");
    makeDir(root + "/d3");
    std::filesystem::create_symlink("gone", root + "/d3/dangling");
    for (const char* options : {"", "NoSizingPass", "DryRun"}) {
        SCOPED_TRACE(options);
        ScpRig rig({{}, options});
        rig.peer().send(std::string(64, '\0')).closeOnClientClose();
        ProgressLog progress;
        ASSERT_TRUE(upload(rig, root, 0, true, &progress)) << rig.log();
        EXPECT_EQ(syncedFiles(rig.scp), (Files{"a", "d1/b"}));
        const bool sized = std::string(options) != "NoSizingPass";
        expectLog(rig.log(), {sized ? "totalByteCount: 1000" : "", sized ? "totalNumDirs: 3" : ""},
                  {sized ? "" : "totalByteCount"});
        if (std::string(options) == "DryRun") {
            EXPECT_EQ(rig.transport->channelsOpened(), 0);
            EXPECT_TRUE(progress.events.empty());
            continue;
        }
        EXPECT_EQ(progress.percents.back(), 100);
        // Entered before its files, left after them; the root is neither.
        auto at = [&](const std::string& event) {
            return std::find(progress.events.begin(), progress.events.end(), "scp-local" + event) -
                   progress.events.begin();
        };
        ASSERT_EQ(progress.events.size(), 9u);
        EXPECT_LT(at("file-uploaded " + root + "/a"), 9);
        EXPECT_LT(at("file-cannot-open " + root + "/d3/dangling"),
                  at("dir-leaving " + root + "/d3"));
        EXPECT_LT(at("dir-entered " + root + "/d1"), at("file-uploaded " + root + "/d1/b"));
        EXPECT_LT(at("dir-entered " + root + "/d1"), at("dir-entered " + root + "/d1/d2"));
        EXPECT_LT(at("dir-leaving " + root + "/d1/d2"), at("dir-leaving " + root + "/d1"));
        EXPECT_LT(at("dir-entered " + root + "/d3"), at("dir-leaving " + root + "/d3"));
    }
}

TEST(TreeUploadProtocolTest, EveryDirectoryWeighsAHundredUnits) {
    ScpRig rig;
    rig.peer().send(std::string(64, '\0')).closeOnClientClose();
    ScratchDir dir;
    makeDir(dir.file("src/e1/e2"));
    makeDir(dir.file("src/e3"));
    ProgressLog progress;
    ASSERT_TRUE(upload(rig, dir.file("src"), 0, true, &progress)) << rig.log();
    EXPECT_EQ(progress.percents, (std::vector<int>{33, 66, 100}));
}

TEST(TreeUploadProtocolTest, FailuresBeforeTheUpload) {
    // A failed remote pass stops before any local file is read.
    ScpRig rig;
    rig.peer().awaitBytes(1).send("\x01scp: /srv/dst: No such file or directory\n");
    ScratchDir dir;
    writeFile(dir.file("f"), "f");
    EXPECT_FALSE(upload(rig, dir.path(), 2));
    expectLog(rig.log(), {"Initial remote traverse to identify existing files failed."});
    EXPECT_EQ(rig.transport->channelsOpened(), 1);
    // A local root that cannot be opened fails the compute pass.
    ScpRig rig2;
    ProgressLog progress;
    EXPECT_FALSE(upload(rig2, "/nonexistent/scpkit/root", 0, true, &progress));
    expectLog(rig2.log(), {"local traverse to compute total cost failed."});
    EXPECT_EQ(rig2.transport->channelsOpened(), 0);
}

}  // namespace
}  // namespace scpkit::test
