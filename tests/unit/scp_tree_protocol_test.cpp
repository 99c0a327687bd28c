// The tree synchronisations on the scripted peer: the exact answers a
// recursive source receives, the exact records a recursive sink receives,
// the failure points, the progress accounting, and hostile servers.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/Progress.h"
#include "base/XString.h"
#include "scp/ClsScp.h"
#include "ssh/ClsSsh.h"
#include "tests/support/ScriptedTransport.h"
#include "tests/support/TreeFiles.h"

namespace scpkit::test {
namespace {

using namespace std::string_literals;

const std::string kGo = "\0"s;                 // ready / continue
const std::string kSkip = "\x01"s + "skip\n";  // give this entry up
const std::string kAbort = "\x02"s + "abort\n";
const std::string kTimes = "T1700000000 0 1700000000 0\n";

// A client bound to a scripted server.
struct Rig {
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    ClsSsh ssh;
    ClsScp scp;

    Rig() {
        ssh.put_StallTimeoutMs(300);
        ssh.useTransport(transport);
        scp.UseSsh(ssh);
    }
    ScriptedPeer& peer(int i) { return transport->peer(i); }
    std::string log() {
        XString text;
        scp.get_LastErrorText(text);
        return text.getUtf8();
    }
    std::string synced() {
        XString text;
        scp.get_SyncedFiles(text);
        return text.getUtf8();
    }
    void filters(const char* must, const char* mustNot, const char* mustDir,
                 const char* mustNotDir) {
        XString a(must), b(mustNot), c(mustDir), d(mustNotDir);
        scp.put_SyncMustMatch(a);
        scp.put_SyncMustNotMatch(b);
        scp.put_SyncMustMatchDir(c);
        scp.put_SyncMustNotMatchDir(d);
    }
    bool download(const std::string& localRoot, int mode, bool recurse,
                  ProgressEvent* progress = nullptr) {
        XString remote("/srv/root"), local(localRoot.c_str());
        return scp.SyncTreeDownload(remote, local, mode, recurse, progress);
    }
    bool upload(const std::string& localRoot, int mode, bool recurse,
                ProgressEvent* progress = nullptr) {
        XString local(localRoot.c_str()), remote("/srv/dst");
        return scp.SyncTreeUpload(local, remote, mode, recurse, progress);
    }
};

// One record of a scripted recursive source and the number of answer bytes
// it then waits for.
struct Say {
    std::string bytes;
    size_t answerBytes;
};

// Plays a recursive source: waits for the sink's first ready byte, then each
// record and its answer; ends with EOF and CLOSE unless `hangAtEnd`.
void playSource(ScriptedPeer& peer, const std::vector<Say>& says, bool hangAtEnd = false) {
    peer.awaitBytes(1);
    for (const Say& s : says) {
        if (!s.bytes.empty()) peer.send(s.bytes);
        if (s.answerBytes) peer.awaitBytes(s.answerBytes);
    }
    if (!hangAtEnd) peer.eof().close();
}

std::string concat(const std::vector<std::string>& parts) {
    std::string out;
    for (const auto& p : parts) out += p;
    return out;
}

unsigned modeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

TEST(TreeDownloadProtocolTest, AnswersEveryRecordAsTheSelectionDecides) {
    struct Case {
        const char* name;
        const char* filters[4];  // must, mustNot, mustDir, mustNotDir
        int mode;
        bool recurse;
        std::vector<Say> says;
        std::string answers;                 // every byte the client wrote
        std::vector<std::string> localTree;  // afterwards, below the local root
        std::string synced;
    };
    const Case cases[] = {
        {"one file fetched",
         {"", "", "", ""},
         0,
         true,
         {{"D0755 0 root\n", 1}, {"C0644 3 a b.txt\n", 1}, {"abc\0"s, 1}, {"E\n", 1}},
         kGo + kGo + kGo + kGo + kGo,
         {"a b.txt"},
         "a b.txt"},
        {"times line answered before the header",
         {"", "", "", ""},
         0,
         true,
         {{"D0755 0 root\n", 1}, {kTimes, 1}, {"C0600 2 t\n", 1}, {"xy\0"s, 1}, {"E\n", 1}},
         kGo + kGo + kGo + kGo + kGo + kGo,
         {"t"},
         "t"},
        {"file filter answers with the skip",
         {"*.txt", "", "", ""},
         0,
         true,
         {{"D0755 0 root\n", 1},
          {"C0644 4 keep.bin\n", 6},
          {"C0644 1 a.txt\n", 1},
          {"z\0"s, 1},
          {"E\n", 1}},
         kGo + kGo + kSkip + kGo + kGo + kGo,
         {"a.txt"},
         "a.txt"},
        {"nested directory entered and left",
         {"", "", "", ""},
         0,
         true,
         {{"D0755 0 root\n", 1},
          {"D0700 0 sub dir\n", 1},
          {"C0644 1 f\n", 1},
          {"q\0"s, 1},
          {"E\n", 1},
          {"D0755 0 empty\n", 1},
          {"E\n", 1},
          {"E\n", 1}},
         std::string(9, '\0'),
         {"empty", "sub dir", "sub dir/f"},
         "sub dir/f"},
        {"recurse false skips subdirectories and pops them at once",
         {"", "", "", ""},
         0,
         false,
         {{"D0755 0 root\n", 1}, {"D0755 0 sub\n", 6}, {"C0644 1 f\n", 1}, {"q\0"s, 1}, {"E\n", 1}},
         kGo + kGo + kSkip + kGo + kGo + kGo,
         {"f"},
         "f"},
        {"directory filters prune the walk",
         {"", "", "", "tmp*"},
         0,
         true,
         {{"D0755 0 root\n", 1}, {"D0755 0 tmpcache\n", 6}, {"E\n", 1}},
         kGo + kGo + kSkip + kGo,
         {},
         ""},
        {"a root rejected by the directory filters ends with nothing done",
         {"", "", "keep*", ""},
         0,
         true,
         {{"D0755 0 root\n", 6}},
         kGo + kSkip,
         {},
         ""},
        {"a single file as the remote root ends the walk",
         {"", "", "", ""},
         0,
         true,
         {{"C0644 2 only\n", 1}, {"ok\0"s, 1}},
         kGo + kGo + kGo,
         {"only"},
         "only"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig;
        rig.filters(c.filters[0], c.filters[1], c.filters[2], c.filters[3]);
        playSource(rig.peer(0), c.says);
        TreeDir dir;
        std::string root = dir.sub("local");
        makeDir(root);  // a single file as the remote root needs its directory

        EXPECT_TRUE(rig.download(root, c.mode, c.recurse)) << rig.log();
        EXPECT_EQ(rig.peer(0).execCommand, "scp -rpf /srv/root");
        EXPECT_EQ(rig.peer(0).written, c.answers);
        EXPECT_EQ(listTree(root), c.localTree);
        EXPECT_EQ(rig.synced(), c.synced);
    }
}

TEST(TreeDownloadProtocolTest, ReceivedFilesKeepContentTimesAndOnlyPermissionBits) {
    Rig rig;
    playSource(rig.peer(0), {{kTimes, 1},
                             {"D4777 0 root\n", 1},
                             {kTimes, 1},
                             {"C6755 5 run\n", 1},
                             {"hello\0"s, 1},
                             {"D1777 0 d\n", 1},
                             {"E\n", 1},
                             {"E\n", 1}});
    TreeDir dir;
    std::string root = dir.sub("r");
    ASSERT_TRUE(rig.download(root, 0, true)) << rig.log();
    EXPECT_EQ(readFile(root + "/run"), "hello");
    EXPECT_EQ(snapshotTree(root)["run"].mtime, 1700000000);
    // A server never plants setuid, setgid or sticky bits.
    EXPECT_EQ(modeOf(root + "/run"), 0755u);
    EXPECT_EQ(modeOf(root + "/d"), 0777u);
    EXPECT_EQ(modeOf(root), 0777u);
}

TEST(TreeDownloadProtocolTest, ExistingLocalFilesAreSkippedByTheirMode) {
    // Mode 1 fetches only what is missing; mode 2 also what the server has newer.
    struct Case {
        int mode;
        std::string answers;
        std::string synced;
    };
    const Case cases[] = {
        {1, kGo + kGo + kGo + kSkip + kGo + kGo + kGo, "new"},
        {2, kGo + kGo + kGo + kGo + kGo + kGo + kGo + kGo, "old\nnew"},
        {3, kGo + kGo + kGo + kGo + kGo + kSkip + kGo, "old"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("mode " + std::to_string(c.mode));
        Rig rig;
        std::vector<Say> says = {{"D0755 0 root\n", 1}, {kTimes, 1}, {"C0644 3 old\n", 0}};
        // A selected file gets its data and the final acknowledgement; a
        // skipped one gets the 6-byte skip instead.
        bool fetchOld = c.mode != 1;
        says.back().answerBytes = fetchOld ? 1 : 6;
        if (fetchOld) says.push_back({"OLD\0"s, 1});
        says.push_back({"C0644 3 new\n", c.mode == 3 ? 6u : 1u});
        if (c.mode != 3) says.push_back({"NEW\0"s, 1});
        says.push_back({"E\n", 1});
        playSource(rig.peer(0), says);

        TreeDir dir;
        writeFile(dir.sub("old"), "old", 1600000000);  // older than the server's copy
        EXPECT_TRUE(rig.download(dir.path(), c.mode, true)) << rig.log();
        EXPECT_EQ(rig.peer(0).written, c.answers);
        EXPECT_EQ(rig.synced(), c.synced);
        EXPECT_EQ(readFile(dir.sub("old")), fetchOld ? "OLD" : "old");
    }
}

TEST(TreeDownloadProtocolTest, FailurePointsAreReported) {
    struct Case {
        const char* name;
        std::vector<Say> says;
        bool hangAtEnd;
        bool result;
        const char* logged;  // must appear in the log
        std::string answers;
    };
    const Case cases[] = {
        {"end of directory with nothing open",
         {{"E\n", 7}},
         false,
         false,
         "errReturnLoc: 1",
         kGo + kAbort},
        {"a record that never comes while the channel stays open",
         {{"D0755 0 root\n", 1}},
         true,
         false,
         "errReturnLoc: 30",
         kGo + kGo},
        {"the stream ending without the root's E is the end of the walk",
         {{"D0755 0 root\n", 1}},
         false,
         true,
         "Returning true from consumeRecursiveResponse",
         kGo + kGo},
        {"file data cut short",
         {{"D0755 0 root\n", 1}, {"C0644 10 f\n", 1}, {"abc", 0}},
         true,
         false,
         "Consume recursive response failed.",
         kGo + kGo + kGo + kAbort},
        {"a remote error line instead of a record",
         {{"\x01scp: /srv/root: No such file or directory\n", 0}},
         true,
         false,
         "errorResponse: scp: /srv/root: No such file or directory",
         kGo},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig;
        rig.scp.put_VerboseLogging(true);
        playSource(rig.peer(0), c.says, c.hangAtEnd);
        TreeDir dir;
        EXPECT_EQ(rig.download(dir.path(), 0, true), c.result);
        std::string log = rig.log();
        EXPECT_NE(log.find(c.logged), std::string::npos) << log;
        EXPECT_EQ(rig.peer(0).written, c.answers);
    }
}

TEST(TreeDownloadProtocolTest, HostileNamesAreRefusedBeforeAnythingIsCreated) {
    struct Case {
        const char* name;
        std::vector<Say> says;  // the last record is the refused one
    };
    const std::string inRoot = "D0755 0 root\n";
    const Case cases[] = {
        {"file ..", {{inRoot, 1}, {"C0644 3 ..\n", 7}}},
        {"file ../x", {{inRoot, 1}, {"C0644 3 ../x\n", 7}}},
        {"file a/b", {{inRoot, 1}, {"C0644 3 a/b\n", 7}}},
        {"file a/../../x", {{inRoot, 1}, {"C0644 3 a/../../x\n", 7}}},
        {"file /etc/x", {{inRoot, 1}, {"C0644 3 /etc/x\n", 7}}},
        {"empty file name", {{inRoot, 1}, {"C0644 3 \n", 7}}},
        {"file .", {{inRoot, 1}, {"C0644 3 .\n", 7}}},
        {"NUL in a file name", {{inRoot, 1}, {"C0644 3 a\0b\n"s, 7}}},
        {"after a times line", {{inRoot, 1}, {kTimes, 1}, {"C0644 3 ../x\n", 7}}},
        {"directory ..", {{inRoot, 1}, {"D0755 0 ..\n", 7}}},
        {"directory ../x", {{inRoot, 1}, {"D0755 0 ../x\n", 7}}},
        {"directory a/b", {{inRoot, 1}, {"D0755 0 a/b\n", 7}}},
        {"empty directory name", {{inRoot, 1}, {"D0755 0 \n", 7}}},
        {"nested directory .", {{inRoot, 1}, {"D0755 0 .\n", 7}}},
        {"a file as the remote root named ..", {{"C0644 3 ..\n", 7}}},
        {"a file as the remote root named /etc/x", {{"C0644 3 /etc/x\n", 7}}},
    };
    for (const Case& c : cases) {
        for (int mode : {0, 1}) {
            SCOPED_TRACE(std::string(c.name) + ", mode " + std::to_string(mode));
            Rig rig;
            std::vector<Say> says = c.says;
            // What a hostile server would send next if it were let through.
            says.push_back({"xyz\0"s, 1});
            says.push_back({"C0644 3 evil\n", 1});
            says.push_back({"xyz\0"s, 1});
            playSource(rig.peer(0), says);

            TreeDir outer;
            std::string root = outer.sub("a/b/root");
            makeDir(root);
            EXPECT_FALSE(rig.download(root, mode, true));
            std::string log = rig.log();
            EXPECT_NE(log.find("Refusing an unsafe file name from the server."), std::string::npos)
                << log;
            // The abort sequence is the last thing the server heard.
            const std::string& w = rig.peer(0).written;
            ASSERT_GE(w.size(), kAbort.size());
            EXPECT_EQ(w.substr(w.size() - kAbort.size()), kAbort);
            // Nothing anywhere: not in the root, not beside it, not above it.
            EXPECT_EQ(listTree(outer.path()), (std::vector<std::string>{"a", "a/b", "a/b/root"}));
            EXPECT_EQ(rig.synced(), "");
        }
    }
}

TEST(TreeDownloadProtocolTest, TheRootsOwnNameIsNeverPartOfALocalPath) {
    // A real scp source names the root "." or "" or ".." for such roots; the
    // files still land inside the local root.
    for (const char* rootName : {".", "", "..", "x/y"}) {
        SCOPED_TRACE(std::string("root named '") + rootName + "'");
        Rig rig;
        playSource(rig.peer(0), {{std::string("D0755 0 ") + rootName + "\n", 1},
                                 {"C0644 2 f\n", 1},
                                 {"hi\0"s, 1},
                                 {"E\n", 1}});
        TreeDir outer;
        std::string root = outer.sub("in");
        EXPECT_TRUE(rig.download(root, 0, true)) << rig.log();
        EXPECT_EQ(listTree(outer.path()), (std::vector<std::string>{"in", "in/f"}));
    }
}

// Records named events and percentages; can ask to abort once a chosen
// event has been seen.
class Recorder : public ProgressEvent {
  public:
    std::vector<std::pair<std::string, std::string>> events;
    std::vector<int> percents;
    std::string abortAfter;

    void OnNamedEvent(const char* name, const char* value) override {
        events.emplace_back(name, value);
    }
    void OnPercent(int percent, bool& abort) override {
        percents.push_back(percent);
        for (const auto& e : events) {
            if (!abortAfter.empty() && e.first == abortAfter) abort = true;
        }
    }
};

TEST(TreeDownloadProtocolTest, ComputePassSizesTheWorkAndDownloadPassReportsEvents) {
    Rig rig;
    // The compute pass: files are counted and answered with the skip; their
    // data never cross.
    playSource(rig.peer(0), {{"D0755 0 root\n", 1},
                             {"C0644 1000 big\n", 6},
                             {"D0755 0 s\n", 1},
                             {"C0644 200 small\n", 6},
                             {"E\n", 1},
                             {"E\n", 1}});
    playSource(rig.peer(1), {{"D0755 0 root\n", 1},
                             {"C0644 1000 big\n", 1},
                             {std::string(1000, 'b') + "\0"s, 1},
                             {"D0755 0 s\n", 1},
                             {"C0644 200 small\n", 1},
                             {std::string(200, 's') + "\0"s, 1},
                             {"E\n", 1},
                             {"E\n", 1}});
    TreeDir dir;
    std::string root = dir.sub("new");
    Recorder progress;
    ASSERT_TRUE(rig.download(root, 0, true, &progress)) << rig.log();

    EXPECT_EQ(rig.peer(0).written, kGo + kGo + kSkip + kGo + kSkip + kGo + kGo);
    std::string log = rig.log();
    // 1,200 bytes and two directories to create (the root and s).
    EXPECT_NE(log.find("totalByteCount: 1200"), std::string::npos) << log;
    EXPECT_NE(log.find("totalNumDirs: 2"), std::string::npos) << log;

    const std::vector<std::pair<std::string, std::string>> expected = {
        {"scp-localdir-created", root},           {"scp-begin-download", "big"},
        {"scp-localfile-created", root + "/big"}, {"scp-localdir-created", root + "/s"},
        {"scp-begin-download", "s/small"},        {"scp-localfile-created", root + "/s/small"},
    };
    EXPECT_EQ(progress.events, expected);
    ASSERT_FALSE(progress.percents.empty());
    EXPECT_EQ(progress.percents.back(), 100);
    // The first directory created is 100 of 1,400 units: 7 percent.
    EXPECT_EQ(progress.percents.front(), 7);
    EXPECT_EQ(sortedLines(rig.synced()), (std::vector<std::string>{"big", "s/small"}));
}

TEST(TreeDownloadProtocolTest, AFailedComputePassDownloadsNothing) {
    Rig rig;
    rig.peer(0).awaitBytes(1).send("\x01scp: /srv/root: No such file or directory\n");
    TreeDir dir;
    Recorder progress;
    EXPECT_FALSE(rig.download(dir.sub("x"), 0, true, &progress));
    EXPECT_NE(rig.log().find("Failed to get total size of what needs to be downloaded."),
              std::string::npos);
    EXPECT_EQ(rig.transport->channelsOpened(), 1);
    EXPECT_FALSE(pathExists(dir.sub("x")));
}

TEST(TreeDownloadProtocolTest, AbortFromTheCallbackStopsTheTree) {
    Rig rig;
    std::vector<Say> compute = {{"D0755 0 root\n", 1}};
    std::vector<Say> fetch = {{"D0755 0 root\n", 1}};
    for (const char* f : {"f1", "f2", "f3"}) {
        compute.push_back({std::string("C0644 4 ") + f + "\n", 6});
        fetch.push_back({std::string("C0644 4 ") + f + "\n", 1});
        fetch.push_back({"data\0"s, 1});
    }
    compute.push_back({"E\n", 1});
    fetch.push_back({"E\n", 1});
    playSource(rig.peer(0), compute);
    playSource(rig.peer(1), fetch, true);

    TreeDir dir;
    Recorder progress;
    progress.abortAfter = "scp-localfile-created";
    EXPECT_FALSE(rig.download(dir.path(), 0, true, &progress));
    // The abort is seen at the next progress report, during f2 at the latest.
    EXPECT_EQ(readFile(dir.sub("f1")), "data");
    EXPECT_FALSE(pathExists(dir.sub("f3")));
    EXPECT_EQ(rig.synced(), "f1");
}

TEST(TreeUploadProtocolTest, SendsTheRecordsOfTheLocalTree) {
    // Trees with one entry per level, so that the order of the listing cannot
    // change the bytes.
    struct Case {
        const char* name;
        bool recurse;
        void (*build)(const std::string& root);
        std::string records;  // every byte the client wrote
        size_t acks;          // acknowledgements the sink must give
        std::string synced;
    };
    const Case cases[] = {
        {"empty root sends only the root's E", true, [](const std::string&) {}, "E\n", 2, ""},
        {"a file in a directory with a blank", true,
         [](const std::string& r) {
             makeDir(r + "/d 1", 0750);
             writeFile(r + "/d 1/f.txt", "abc", 1700000000, 0640);
         },
         concat({"D0750 0 d 1\n", kTimes, "C0640 3 f.txt\n", "abc", kGo, "E\n", "E\n"}), 7,
         "d 1/f.txt"},
        {"an empty nested directory", true, [](const std::string& r) { makeDir(r + "/e/f", 0700); },
         concat({"D0755 0 e\n", "D0700 0 f\n", "E\n", "E\n", "E\n"}), 6, ""},
        {"recurse false leaves subdirectories out", false,
         [](const std::string& r) {
             makeDir(r + "/sub");
             writeFile(r + "/sub/x", "x");
         },
         "E\n", 2, ""},
        {"setuid and sticky bits are not sent", true,
         [](const std::string& r) {
             makeDir(r + "/s", 01777);
             writeFile(r + "/s/e", "", 1700000000, 04755);
         },
         concat({"D0777 0 s\n", kTimes, "C0755 0 e\n", kGo, "E\n", "E\n"}), 7, "s/e"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig;
        rig.peer(0).send(std::string(c.acks, '\0')).closeOnClientClose();
        TreeDir dir;
        std::string root = dir.sub("src");
        makeDir(root);
        c.build(root);
        EXPECT_TRUE(rig.upload(root, 0, c.recurse)) << rig.log();
        EXPECT_EQ(rig.transport->channelsOpened(), 1);  // mode 0 asks the server nothing
        EXPECT_EQ(rig.peer(0).execCommand, "scp -rpt /srv/dst");
        EXPECT_EQ(rig.peer(0).written, c.records);
        EXPECT_EQ(rig.synced(), c.synced);
        EXPECT_TRUE(rig.peer(0).clientSentClose);
    }
}

TEST(TreeUploadProtocolTest, RemoteRootWithABlankIsQuoted) {
    Rig rig;
    rig.peer(0).send(std::string(2, '\0')).closeOnClientClose();
    TreeDir dir;
    XString local(dir.path().c_str()), remote("/srv/my dst");
    EXPECT_TRUE(rig.scp.SyncTreeUpload(local, remote, 0, true, nullptr)) << rig.log();
    EXPECT_EQ(rig.peer(0).execCommand, "scp -rpt \"/srv/my dst\"");
}

TEST(TreeUploadProtocolTest, HashingPassRecordsRemoteFilesAndTheUploadSkipsThem) {
    Rig rig;
    rig.scp.put_VerboseLogging(true);
    // File filters do not apply while hashing; directory filters still prune.
    rig.filters("", "*.log", "", "cache");
    playSource(rig.peer(0), {{"D0755 0 dst\n", 1},
                             {kTimes, 1},
                             {"C0644 4 same.txt\n", 6},
                             {"C0644 9 x.log\n", 6},
                             {"D0755 0 cache\n", 6},
                             {"D0755 0 sub\n", 1},
                             {kTimes, 1},
                             {"C0644 4 in.txt\n", 6},
                             {"E\n", 1},
                             {"E\n", 1}});
    rig.peer(1).send(std::string(64, '\0')).closeOnClientClose();

    TreeDir dir;
    std::string root = dir.sub("src");
    writeFile(root + "/same.txt", "same", 1600000000);
    writeFile(root + "/new.txt", "new", 1600000000);
    writeFile(root + "/x.log", "log", 1600000000);
    writeFile(root + "/y.log", "not on the server, but filtered", 1600000000);
    writeFile(root + "/sub/in.txt", "in!!", 1600000000);
    writeFile(root + "/sub/added.txt", "add", 1600000000);

    EXPECT_TRUE(rig.upload(root, 1, true)) << rig.log();
    EXPECT_EQ(rig.peer(0).execCommand, "scp -rpf /srv/dst");
    std::string log = rig.log();
    EXPECT_NE(log.find("hashingRemoteFile: x.log"), std::string::npos) << log;
    EXPECT_NE(log.find("hashingRemoteFile: sub/in.txt"), std::string::npos) << log;
    EXPECT_EQ(sortedLines(rig.synced()), (std::vector<std::string>{"new.txt", "sub/added.txt"}));
    const std::string& sent = rig.peer(1).written;
    EXPECT_EQ(sent.find("same.txt"), std::string::npos);
    EXPECT_EQ(sent.find("in.txt"), std::string::npos);
    EXPECT_EQ(sent.find(".log"), std::string::npos);
}

TEST(TreeUploadProtocolTest, ProgressTotalsAndEventsOfTheUpload) {
    Rig rig;
    rig.peer(0).send(std::string(64, '\0')).closeOnClientClose();
    TreeDir dir;
    std::string root = dir.sub("src");
    // Three directories below the root and 1,000 bytes of files.
    writeFile(root + "/a", std::string(400, 'a'));
    writeFile(root + "/d1/b", std::string(600, 'b'));
    makeDir(root + "/d1/d2");
    makeDir(root + "/d3");
    Recorder progress;
    ASSERT_TRUE(rig.upload(root, 0, true, &progress)) << rig.log();
    std::string log = rig.log();
    EXPECT_NE(log.find("totalByteCount: 1000"), std::string::npos) << log;
    EXPECT_NE(log.find("totalNumDirs: 3"), std::string::npos) << log;
    EXPECT_EQ(progress.percents.back(), 100);

    // Entered before its files, left after them; the root is neither.
    std::vector<std::string> seq;
    for (const auto& e : progress.events) seq.push_back(e.first + " " + e.second);
    auto at = [&](const std::string& s) {
        for (size_t i = 0; i < seq.size(); ++i)
            if (seq[i] == s) return static_cast<int>(i);
        return -1;
    };
    ASSERT_EQ(seq.size(), 8u);
    EXPECT_GE(at("scp-localfile-uploaded " + root + "/a"), 0);
    EXPECT_LT(at("scp-localdir-entered " + root + "/d1"),
              at("scp-localfile-uploaded " + root + "/d1/b"));
    EXPECT_LT(at("scp-localdir-entered " + root + "/d1"),
              at("scp-localdir-entered " + root + "/d1/d2"));
    EXPECT_LT(at("scp-localdir-leaving " + root + "/d1/d2"),
              at("scp-localdir-leaving " + root + "/d1"));
    EXPECT_LT(at("scp-localdir-entered " + root + "/d3"),
              at("scp-localdir-leaving " + root + "/d3"));
}

TEST(TreeUploadProtocolTest, EveryDirectoryWeighsAHundredUnits) {
    Rig rig;
    rig.peer(0).send(std::string(64, '\0')).closeOnClientClose();
    TreeDir dir;
    std::string root = dir.sub("src");
    makeDir(root + "/e1/e2");
    makeDir(root + "/e3");
    Recorder progress;
    ASSERT_TRUE(rig.upload(root, 0, true, &progress)) << rig.log();
    // 300 units in all, 100 consumed after each "D" line.
    EXPECT_EQ(progress.percents, (std::vector<int>{33, 66, 100}));
}

TEST(TreeUploadProtocolTest, UnreadableFilesAreReportedAndTheWalkGoesOn) {
    Rig rig;
    rig.peer(0).send(std::string(64, '\0')).closeOnClientClose();
    TreeDir dir;
    std::string root = dir.sub("src");
    makeDir(root);
    writeFile(root + "/ok", "fine");
    // A dangling link: listed as a file, it cannot be opened (even by root).
    ASSERT_EQ(symlink("gone", (root + "/dangling").c_str()), 0);
    Recorder progress;
    EXPECT_TRUE(rig.upload(root, 0, true, &progress)) << rig.log();
    EXPECT_NE(rig.log().find("Unable to open local file.."), std::string::npos);
    EXPECT_EQ(rig.synced(), "ok");
    bool reported = false;
    for (const auto& e : progress.events)
        reported |= e.first == "scp-localfile-cannot-open" && e.second == root + "/dangling";
    EXPECT_TRUE(reported);
}

TEST(TreeUploadProtocolTest, DirectorySymlinksAreNotFollowed) {
    Rig rig;
    rig.peer(0).send(std::string(16, '\0')).closeOnClientClose();
    TreeDir dir;
    std::string root = dir.sub("src");
    makeDir(root);
    // A link cycle: followed, it would never end.
    ASSERT_EQ(symlink("..", (root + "/loop").c_str()), 0);
    EXPECT_TRUE(rig.upload(root, 0, true)) << rig.log();
    EXPECT_EQ(rig.peer(0).written, "E\n");
}

TEST(TreeUploadProtocolTest, FailuresBeforeTheUpload) {
    // Without UseSsh the call fails and leaves SyncedFiles empty.
    {
        ClsScp scp;
        XString stale("left over"), local("/tmp"), remote("/srv");
        scp.put_SyncedFiles(stale);
        EXPECT_FALSE(scp.SyncTreeUpload(local, remote, 0, true, nullptr));
        XString synced, log;
        scp.get_SyncedFiles(synced);
        scp.get_LastErrorText(log);
        EXPECT_STREQ(synced.getUtf8(), "");
        EXPECT_NE(std::string(log.getUtf8()).find("Must call UseSsh first."), std::string::npos);
    }
    // A failed remote pass stops before any local file is read.
    {
        Rig rig;
        rig.peer(0).awaitBytes(1).send("\x01scp: /srv/dst: No such file or directory\n");
        TreeDir dir;
        writeFile(dir.sub("f"), "f");
        EXPECT_FALSE(rig.upload(dir.path(), 2, true));
        EXPECT_NE(rig.log().find("Initial remote traverse to identify existing files failed."),
                  std::string::npos);
        EXPECT_EQ(rig.transport->channelsOpened(), 1);
    }
    // A local root that cannot be opened fails the compute pass.
    {
        Rig rig;
        Recorder progress;
        EXPECT_FALSE(rig.upload("/nonexistent/scpkit/root", 0, true, &progress));
        std::string log = rig.log();
        EXPECT_NE(log.find("Failed to open local root directory"), std::string::npos);
        EXPECT_NE(log.find("local traverse to compute total cost failed."), std::string::npos);
        EXPECT_EQ(rig.transport->channelsOpened(), 0);
    }
}

}  // namespace
}  // namespace scpkit::test
