// The tree synchronisations on the scripted peer: the exact answers a
// recursive source receives, the exact records a recursive sink receives,
// the failure points, the progress accounting, and hostile names.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/ScriptedTransport.h"
#include "tests/support/TreeFiles.h"

namespace scpkit::test {
namespace {

using namespace std::string_literals;
const std::string kGo = "\0"s, kSkip = "\x01skip\n"s, kAbort = "\x02"s + "abort\n";
const std::string kTimes = "T1700000000 0 1700000000 0\n";

// Plays a recursive source. The script is a run of steps, each a mark and
// the bytes the source sends: a record (an upper-case letter first) up to
// its '\n', anything else up to its '\0' or the end. The mark is what the
// client must answer before the next step: '+' 0x00, '-' the skip, '!' the
// abort, anything else nothing. The client opens with a 0x00; the source ends with EOF
// and CLOSE unless `hang`. Returns every byte the client must write.
std::string playSource(ScriptedPeer& peer, const std::string& script, bool hang = false) {
    std::string expected = kGo;
    peer.awaitBytes(1);
    for (size_t i = 0, end; i < script.size(); i = end) {
        const char mark = script[i++];
        end =
            std::min(script.find(std::isupper(script[i]) ? '\n' : '\0', i), script.size() - 1) + 1;
        peer.send(script.substr(i, end - i));
        const std::string answer = mark == '+'   ? kGo
                                   : mark == '-' ? kSkip
                                   : mark == '!' ? kAbort
                                                 : "";
        if (!answer.empty()) peer.awaitBytes(answer.size());
        expected += answer;
    }
    if (!hang) peer.eof().close();
    return expected;
}

// Records named events and percentages.
struct Recorder : ProgressEvent {
    std::vector<std::string> events;
    std::vector<int> percents;
    void OnNamedEvent(const char* name, const char* value) override {
        events.push_back(std::string(name) + " " + value);
    }
    void OnPercent(int percent, bool&) override { percents.push_back(percent); }
};

// A client bound to a scripted server.
struct Rig {
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    ClsSsh ssh;
    ClsScp scp;
    explicit Rig(const std::array<std::string, 4>& filters = {}) {
        ssh.put_StallTimeoutMs(300);
        ssh.useTransport(transport);
        scp.UseSsh(ssh);
        XString must(filters[0].c_str()), mustNot(filters[1].c_str());
        XString mustDir(filters[2].c_str()), mustNotDir(filters[3].c_str());
        scp.put_SyncMustMatch(must);
        scp.put_SyncMustNotMatch(mustNot);
        scp.put_SyncMustMatchDir(mustDir);
        scp.put_SyncMustNotMatchDir(mustNotDir);
    }
    ScriptedPeer& peer(int i = 0) { return transport->peer(i); }
    std::string log() { return lastErrorText(scp); }
    std::vector<std::string> synced() {
        XString text;
        scp.get_SyncedFiles(text);
        return sortedLines(text.getUtf8());
    }
    bool download(const std::string& root, bool recurse = true, ProgressEvent* progress = nullptr,
                  int mode = 0) {
        XString remote("/srv/root"), local(root.c_str());
        return scp.SyncTreeDownload(remote, local, mode, recurse, progress);
    }
    bool upload(const std::string& root, int mode = 0, bool recurse = true,
                ProgressEvent* progress = nullptr) {
        XString local(root.c_str()), remote("/srv/my dst");
        return scp.SyncTreeUpload(local, remote, mode, recurse, progress);
    }
};

TEST(TreeDownloadProtocolTest, AnswersEveryRecordAsTheSelectionDecides) {
    const struct {
        const char* name;
        std::string script;
        std::vector<std::string> tree;            // below the local root afterwards
        std::array<std::string, 4> filters = {};  // files, not files, dirs, not dirs
        bool recurse = true, hang = false, ok = true;
        const char* logged = "";
    } cases[] = {
        {"one file", "+D0755 0 root\n+C0644 3 a b.txt\n+abc\0+E\n"s, {"a b.txt"}},
        {"file filter",
         "+D0755 0 root\n-C0644 4 keep.bin\n+C0644 1 a.txt\n+z\0+E\n"s,
         {"a.txt"},
         {"*.txt"}},
        {"nested",
         "+D0755 0 root\n+D0700 0 sub dir\n+C0644 1 f\n+q\0+E\n+D0755 0 e\n+E\n+E\n"s,
         {"e", "sub dir", "sub dir/f"}},
        {"recurse false", "+D0755 0 root\n-D0755 0 sub\n+C0644 1 f\n+q\0+E\n"s, {"f"}, {}, false},
        {"dir filter", "+D0755 0 root\n-D0755 0 tmpcache\n+E\n", {}, {"", "", "", "tmp*"}},
        {"root filtered", "-D0755 0 root\n", {}, {"", "", "keep*", ""}},
        {"file as the root", "+C0644 2 only\n+ok\0"s, {"only"}},
        // The root's own name is never part of a local path.
        {"root named ..", "+D0755 0 ..\n+C0644 2 f\n+hi\0+E\n"s, {"f"}},
        {"root named x/y", "+D0755 0 x/y\n+C0644 2 f\n+hi\0+E\n"s, {"f"}},
        {"E with nothing open", "!E\n", {}, {}, true, false, false, "errReturnLoc: 1"},
        {"no record, no EOF", "+D0755 0 root\n", {}, {}, true, true, false, "errReturnLoc: 30"},
        {"EOF before the root's E", "+D0755 0 root\n", {}, {}, true, false, true},
        {"data cut short",
         "+D0755 0 root\n+C0644 10 f\n!abc",
         {},
         {},
         true,
         true,
         false,
         "Consume recursive response failed."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig(c.filters);
        const std::string answers = playSource(rig.peer(), c.script, c.hang);
        ScratchDir dir;
        const std::string root = dir.file("local");
        makeDir(root);
        EXPECT_EQ(rig.download(root, c.recurse), c.ok) << rig.log();
        EXPECT_NE(rig.log().find(c.logged), std::string::npos) << rig.log();
        EXPECT_EQ(rig.peer().execCommand, "scp -rpf /srv/root");
        EXPECT_EQ(rig.peer().written, answers);
        if (c.ok) {
            EXPECT_EQ(listTree(root), c.tree);
        }
        EXPECT_EQ(rig.synced(), c.ok ? listTree(root, true) : std::vector<std::string>{});
    }
}

TEST(TreeDownloadProtocolTest, TimesAndOnlyPermissionBitsAreKept) {
    Rig rig;
    playSource(rig.peer(), "+" + kTimes + "+D4777 0 root\n+" + kTimes +
                               "+C6755 5 run\n+hello\0+D1777 0 d\n+E\n+E\n"s);
    ScratchDir dir;
    ASSERT_TRUE(rig.download(dir.file("r"))) << rig.log();
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"r", {true, 0777}},
                            {"r/d", {true, 0777}},
                            {"r/run", {false, 0755, 1700000000, "hello"}}}));
}

TEST(TreeDownloadProtocolTest, HostileNamesAreRefusedAndNothingIsCreated) {
    const std::string in = "+D0755 0 root\n!";
    for (const std::string& script :
         {in + "C0644 3 ..\n", in + "C0644 3 ../x\n", in + "C0644 3 a/../../x\n",
          in + "C0644 3 /etc/x\n", in + "C0644 3 \n", in + "C0644 3 .\n", in + "C0644 3 a\0b\n"s,
          in + "D0755 0 ..\n", in + "D0755 0 a/b\n", "+" + kTimes + "!C0644 3 ..\n"}) {
        for (int mode : {0, 1}) {
            SCOPED_TRACE(script + ", mode " + std::to_string(mode));
            Rig rig;
            // What the server would send next if the name were let through.
            playSource(rig.peer(), script + "+xyz\0+C0644 3 evil\n+xyz\0"s);
            ScratchDir outer;
            makeDir(outer.file("a/b/root"));
            EXPECT_FALSE(rig.download(outer.file("a/b/root"), true, nullptr, mode));
            EXPECT_NE(rig.log().find("Refusing an unsafe file name from the server."),
                      std::string::npos);
            const std::string& w = rig.peer().written;
            EXPECT_EQ(w.substr(w.size() - std::min(w.size(), kAbort.size())), kAbort);
            EXPECT_EQ(listTree(outer.path()), (std::vector<std::string>{"a", "a/b", "a/b/root"}));
            EXPECT_TRUE(rig.synced().empty());
        }
    }
}

TEST(TreeDownloadProtocolTest, ComputePassSizesTheWorkAndDownloadPassReportsEvents) {
    Rig rig;
    // Counted files are answered with the skip: their data never cross.
    const std::string compute = playSource(
        rig.peer(0), "+D0755 0 root\n-C0644 1000 big\n+D0755 0 s\n-C0644 200 small\n+E\n+E\n");
    // small is gone by the time of the download pass.
    playSource(rig.peer(1), "+D0755 0 root\n+C0644 1000 big\n+" + std::string(1000, 'b') +
                                "\0+D0755 0 s\n+E\n+E\n"s);
    ScratchDir dir;
    const std::string root = dir.file("new");
    Recorder progress;
    ASSERT_TRUE(rig.download(root, true, &progress)) << rig.log();
    EXPECT_EQ(rig.peer(0).written, compute);
    // 1,200 bytes and two directories to create (the root and s).
    EXPECT_NE(rig.log().find("totalByteCount: 1200"), std::string::npos);
    EXPECT_NE(rig.log().find("totalNumDirs: 2"), std::string::npos);
    EXPECT_EQ(progress.events,
              (std::vector<std::string>{"scp-localdir-created " + root, "scp-begin-download big",
                                        "scp-localfile-created " + root + "/big",
                                        "scp-localdir-created " + root + "/s"}));
    // The root directory is 100 of 1,400 units; what was counted but not
    // found any more is made up at the end.
    ASSERT_FALSE(progress.percents.empty());
    EXPECT_EQ(progress.percents.front(), 7);
    EXPECT_EQ(progress.percents.back(), 100);
    EXPECT_EQ(rig.synced(), (std::vector<std::string>{"big"}));
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
    } cases[] = {
        {"empty root", [](const std::string&) {}, "E\n", ""},
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
        {"directory link loop",
         [](const std::string& r) { std::filesystem::create_symlink("..", r + "/loop"); }, "E\n",
         ""},
        {"unreadable file skipped",
         [](const std::string& r) {
             writeFile(r + "/ok", "fine", 1700000000);
             std::filesystem::create_symlink("gone", r + "/dangling");
         },
         kTimes + "C0644 4 ok\nfine" + kGo + "E\n", "ok", true, "Unable to open local file.."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig;
        rig.peer().send(std::string(64, '\0')).closeOnClientClose();
        ScratchDir dir;
        makeDir(dir.file("src"));
        c.build(dir.file("src"));
        EXPECT_TRUE(rig.upload(dir.file("src"), 0, c.recurse)) << rig.log();
        EXPECT_NE(rig.log().find(c.logged), std::string::npos) << rig.log();
        EXPECT_EQ(rig.transport->channelsOpened(), 1);  // mode 0 asks the server nothing
        EXPECT_EQ(rig.peer().execCommand, "scp -rpt \"/srv/my dst\"");
        EXPECT_EQ(rig.peer().written, c.records);
        EXPECT_EQ(rig.synced(), sortedLines(c.synced));
        EXPECT_TRUE(rig.peer().clientSentClose);
    }
}

TEST(TreeUploadProtocolTest, HashingPassRecordsRemoteFilesAndTheUploadSkipsThem) {
    // File filters do not apply while hashing; directory filters still prune.
    Rig rig({"", "*.log", "", "cache"});
    rig.scp.put_VerboseLogging(true);
    const std::string hashing = playSource(
        rig.peer(0), "+D0755 0 dst\n+" + kTimes + "-C0644 4 same.txt\n-C0644 9 x.log\n" +
                         "-D0755 0 cache\n+D0755 0 sub\n+" + kTimes + "-C0644 4 in.txt\n+E\n+E\n");
    rig.peer(1).send(std::string(64, '\0')).closeOnClientClose();
    ScratchDir dir;
    const std::string root = dir.file("src");
    for (const char* f : {"same.txt", "new.txt", "x.log", "y.log", "sub/in.txt", "sub/added.txt"})
        writeFile(root + "/" + f, "data", 1600000000);
    EXPECT_TRUE(rig.upload(root, 1)) << rig.log();
    EXPECT_EQ(rig.peer(0).execCommand, "scp -rpf /srv/my dst");  // unquoted, unlike the sink
    EXPECT_EQ(rig.peer(0).written, hashing);
    EXPECT_NE(rig.log().find("hashingRemoteFile: x.log"), std::string::npos);
    EXPECT_NE(rig.log().find("hashingRemoteFile: sub/in.txt"), std::string::npos);
    EXPECT_EQ(rig.synced(), (std::vector<std::string>{"new.txt", "sub/added.txt"}));
}

TEST(TreeUploadProtocolTest, ProgressTotalsAndEventsOfTheUpload) {
    Rig rig;
    rig.peer().send(std::string(64, '\0')).closeOnClientClose();
    ScratchDir dir;
    const std::string root = dir.file("src");
    writeFile(root + "/a", std::string(400, 'a'));
    writeFile(root + "/d1/b", std::string(600, 'b'));
    makeDir(root + "/d1/d2");
    makeDir(root + "/d3");
    Recorder progress;
    ASSERT_TRUE(rig.upload(root, 0, true, &progress)) << rig.log();
    EXPECT_NE(rig.log().find("totalByteCount: 1000"), std::string::npos);
    EXPECT_NE(rig.log().find("totalNumDirs: 3"), std::string::npos);
    EXPECT_EQ(progress.percents.back(), 100);
    // Entered before its files, left after them; the root is neither.
    auto at = [&](const std::string& event) {
        return std::find(progress.events.begin(), progress.events.end(), "scp-local" + event) -
               progress.events.begin();
    };
    ASSERT_EQ(progress.events.size(), 8u);
    EXPECT_LT(at("file-uploaded " + root + "/a"), 8);
    EXPECT_LT(at("dir-entered " + root + "/d1"), at("file-uploaded " + root + "/d1/b"));
    EXPECT_LT(at("dir-entered " + root + "/d1"), at("dir-entered " + root + "/d1/d2"));
    EXPECT_LT(at("dir-leaving " + root + "/d1/d2"), at("dir-leaving " + root + "/d1"));
    EXPECT_LT(at("dir-entered " + root + "/d3"), at("dir-leaving " + root + "/d3"));
}

TEST(TreeUploadProtocolTest, EveryDirectoryWeighsAHundredUnits) {
    Rig rig;
    rig.peer().send(std::string(64, '\0')).closeOnClientClose();
    ScratchDir dir;
    makeDir(dir.file("src/e1/e2"));
    makeDir(dir.file("src/e3"));
    Recorder progress;
    ASSERT_TRUE(rig.upload(dir.file("src"), 0, true, &progress)) << rig.log();
    EXPECT_EQ(progress.percents, (std::vector<int>{33, 66, 100}));
}

TEST(TreeUploadProtocolTest, FailuresBeforeTheUpload) {
    // A failed remote pass stops before any local file is read.
    Rig rig;
    rig.peer().awaitBytes(1).send("\x01scp: /srv/dst: No such file or directory\n");
    ScratchDir dir;
    writeFile(dir.file("f"), "f");
    EXPECT_FALSE(rig.upload(dir.path(), 2));
    EXPECT_NE(rig.log().find("Initial remote traverse to identify existing files failed."),
              std::string::npos);
    EXPECT_EQ(rig.transport->channelsOpened(), 1);
    // A local root that cannot be opened fails the compute pass.
    Rig rig2;
    Recorder progress;
    EXPECT_FALSE(rig2.upload("/nonexistent/scpkit/root", 0, true, &progress));
    EXPECT_NE(rig2.log().find("local traverse to compute total cost failed."), std::string::npos);
    EXPECT_EQ(rig2.transport->channelsOpened(), 0);
}

}  // namespace
}  // namespace scpkit::test
