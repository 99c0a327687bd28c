// Tree synchronisation and the liveness of every transfer against the
// loopback OpenSSH sshd and its real scp: round trips with and without
// answers in flight, linked directories, entries that cannot
// be read, aborts at every named event, and remote programs that die.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include "tests/support/SshdFixture.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

constexpr int64_t kOld = 1600000000;
using Files = std::vector<std::string>;

bool sync(ClsScp& scp, bool upload, const std::string& from, const std::string& to, int mode,
          bool recurse = true, ProgressEvent* progress = nullptr) {
    XString f(from.c_str()), t(to.c_str());
    return upload ? scp.SyncTreeUpload(f, t, mode, recurse, progress)
                  : scp.SyncTreeDownload(f, t, mode, recurse, progress);
}

class ScpTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!SshdFixture::shared().ok()) GTEST_SKIP() << SshdFixture::shared().error();
        ASSERT_TRUE(rig.connected) << lastErrorText(rig.ssh);
    }
    void settings(const ScpSettings& s) { s.applyTo(rig.scp); }
    SshRig rig;
    ScratchDir dir;
};

TEST_F(ScpTreeTest, RoundTripsGiveTheSameTreeAndRerunsCopyNothing) {
    const std::string src = dir.file("src");
    makeDir(src + "/empty");
    makeDir(src + "/a/b/c/deep empty", 0700);
    writeFile(src + "/a/b/c/leaf.bin", std::string("\0\x01\x02\xff", 4), kOld + 2, 0640);
    writeFile(src + "/dir with blank/file with blank.txt", "blanks", kOld + 3, 0600);
    writeFile(src + "/run.sh", "#!/bin/sh\n", kOld + 4, 0755);
    writeFile(src + "/zero", "", kOld + 5);
    for (int i = 0; i < 100; ++i)
        writeFile(src + "/many/d" + std::to_string(i % 10) + "/f" + std::to_string(i),
                  randomBytes(i * 37, i), kOld + i);
    const TreeSnapshot original = snapshotTree(src);
    for (const char* options : {"", "Pipelined"}) {
        SCOPED_TRACE(options);
        settings({{}, options});
        ScratchDir pair;
        const std::string remote = pair.file("remote"), dst = pair.file("dst");
        makeDir(remote);
        makeDir(dst);
        ASSERT_TRUE(sync(rig.scp, true, src, remote, 0)) << lastErrorText(rig.scp);
        EXPECT_EQ(syncedFiles(rig.scp), listTree(src, true));
        EXPECT_EQ(snapshotTree(remote), original);
        ASSERT_TRUE(sync(rig.scp, false, remote, dst, 0)) << lastErrorText(rig.scp);
        EXPECT_EQ(syncedFiles(rig.scp), listTree(src, true));
        EXPECT_EQ(snapshotTree(dst), original);
        for (int mode : {1, 2, 5, 6}) {
            EXPECT_TRUE(sync(rig.scp, true, src, remote, mode)) << lastErrorText(rig.scp);
            EXPECT_EQ(syncedFiles(rig.scp), Files{}) << "upload mode " << mode;
            EXPECT_TRUE(sync(rig.scp, false, remote, dst, mode)) << lastErrorText(rig.scp);
            EXPECT_EQ(syncedFiles(rig.scp), Files{}) << "download mode " << mode;
        }
        EXPECT_EQ(snapshotTree(dst), original);
    }
}

TEST_F(ScpTreeTest, MissingRemoteRootWritesNothing) {
    ProgressEvent progress;
    EXPECT_FALSE(
        sync(rig.scp, false, dir.file("no such dir"), dir.file("local"), 0, true, &progress));
    expectLog(lastErrorText(rig.scp), {"No such file or directory",
                                       "Failed to get total size of what needs to be downloaded."});
    EXPECT_FALSE(pathExists(dir.file("local")));
    EXPECT_EQ(syncedFiles(rig.scp), Files{});
}

// Links to directories are followed as scp -r does, once per real directory
// on the current path; entries that cannot be opened are passed over. The
// sizing pass counts exactly what the upload sends.
TEST_F(ScpTreeTest, UploadFollowsDirectoryLinksAndPassesOverWhatCannotBeRead) {
    const std::string src = dir.file("src"), remote = dir.file("remote");
    writeFile(dir.file("elsewhere/far.txt"), "far", kOld);
    writeFile(src + "/a.txt", "alpha", kOld);
    writeFile(src + "/sub/b.txt", "beta", kOld);
    makeDir(remote);
    namespace fs = std::filesystem;
    fs::create_symlink("../elsewhere", src + "/linked");  // followed
    fs::create_symlink("..", src + "/sub/up");            // back to src: passed over
    fs::create_symlink("gone", src + "/sub/dangling");
    fs::create_symlink("loop", src + "/sub/loop");
    ASSERT_EQ(::mkfifo((src + "/fifo").c_str(), 0644), 0);
    const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, (src + "/sub/socket").c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ::close(sock);
    for (const char* options : {"", "Pipelined"}) {
        SCOPED_TRACE(options);
        settings({{}, options});
        ProgressLog events;
        ASSERT_TRUE(sync(rig.scp, true, src, remote, 0, true, &events)) << lastErrorText(rig.scp);
        const Files sent = {"a.txt", "linked/far.txt", "sub/b.txt"};
        EXPECT_EQ(syncedFiles(rig.scp), sent);
        EXPECT_EQ(listTree(remote),
                  (Files{"a.txt", "linked", "linked/far.txt", "sub", "sub/b.txt"}));
        EXPECT_EQ(events.count("scp-localfile-cannot-open"), 4u);
        expectLog(lastErrorText(rig.scp), {"totalByteCount: 12", "totalNumDirs: 2",
                                           "Skipping a link to a directory already on the path."});
    }
}

// The application aborts from its progress callback at each named event and
// at a point of each long transfer: the call returns false, what it reported
// as done is complete, a failed download leaves no file, and the same
// connection runs the next transfer.
TEST_F(ScpTreeTest, AbortsAtEveryNamedEventAndMidTransfer) {
    enum Op { Up, Down, UpBinary, DownBinary, TreeUp, TreeDown };
    const struct {
        Op op;
        const char* event;  // empty: at 10 %
        const char* options;
    } rows[] = {
        {TreeDown, "scp-localdir-created", ""},
        {TreeDown, "scp-begin-download", "Pipelined"},
        {TreeDown, "scp-localfile-created", ""},
        {TreeUp, "scp-localdir-entered", ""},
        {TreeUp, "scp-localfile-uploaded", "Pipelined"},
        {TreeUp, "scp-localfile-cannot-open", ""},
        {TreeUp, "scp-localdir-leaving", ""},
        {Up, "", ""},
        {Down, "", ""},
        {UpBinary, "", "Pipelined"},
        {DownBinary, "", ""},
        {TreeUp, "", ""},
        {TreeDown, "", "Pipelined"},
    };
    const std::string big = randomBytes(longTests() ? 64u << 20 : 8u << 20, 11);
    writeFile(dir.file("single.bin"), big);
    for (const char* d : {"", "a/", "a/b/", "c/"})
        for (int i = 0; i < 3; ++i)
            writeFile(dir.file("tree/") + d + "f" + std::to_string(i), randomBytes(256 << 10, i));
    // An entry that cannot be read ends a download (the remote scp answers it
    // with an error line), so only the upload's tree has one.
    std::filesystem::copy(dir.file("tree"), dir.file("uptree"),
                          std::filesystem::copy_options::recursive);
    std::filesystem::create_symlink("missing", dir.file("uptree/a/dangling"));
    rig.scp.put_PollIntervalMs(1);
    int round = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.op) + " " + row.event + " " + row.options);
        settings({{}, row.options});
        ProgressLog cue;
        cue.abortAtEvent = row.event;
        cue.abortAtPercent = *row.event ? -1 : 10;
        const std::string target = dir.file("out" + std::to_string(++round));
        if (row.op == TreeUp) makeDir(target);
        XString source(
            dir.file(row.op == TreeUp || row.op == TreeDown ? "tree" : "single.bin").c_str());
        XString dest(target.c_str());
        DataBuffer bytes;
        bytes.append(big.data(), big.size());
        const bool ok =
            row.op == Up         ? rig.scp.UploadFile(source, dest, &cue)
            : row.op == Down     ? rig.scp.DownloadFile(source, dest, &cue)
            : row.op == UpBinary ? rig.scp.UploadBinary(dest, bytes, &cue)
            : row.op == DownBinary
                ? rig.scp.DownloadBinary(source, bytes, &cue)
                : sync(rig.scp, row.op == TreeUp, dir.file(row.op == TreeUp ? "uptree" : "tree"),
                       target, 0, true, &cue);
        EXPECT_TRUE(cue.fired) << "the trigger never came";
        EXPECT_FALSE(ok);
        expectLog(lastErrorText(rig.scp), {"abort"});
        if (row.op == Down) {
            EXPECT_FALSE(pathExists(target));
        }
        const std::string got(reinterpret_cast<const char*>(bytes.getData2()), bytes.getSize());
        if (row.op == DownBinary) {
            EXPECT_EQ(big.compare(0, got.size(), got), 0);  // the start of the file, nothing else
        }
        // What SyncedFiles lists is complete; an uploaded file may still be
        // in the remote scp's hands when the aborted call returns.
        for (const std::string& rel : row.op >= TreeUp ? syncedFiles(rig.scp) : Files{}) {
            std::string want = readFile(dir.file("tree/" + rel)), got;
            for (int i = 0; i < 250 && (got = readFile(target + "/" + rel)) != want; ++i)
                ::usleep(20000);
            EXPECT_TRUE(got == want) << rel;
        }
        XString again(dir.file("after").c_str());
        DataBuffer small;
        small.appendStr("after");
        ASSERT_TRUE(rig.scp.UploadBinary(again, small)) << lastErrorText(rig.scp);
        EXPECT_EQ(readFile(dir.file("after")), "after");
    }
}

// A remote scp that dies mid-transfer, over an sshd whose sessions run the
// fake scp: the call fails at once and a download leaves no file.
TEST(ScpFakeServerTest, DyingRemoteScpFailsPromptlyAndLeavesNoFile) {
    ScratchDir dir;
    SshdOptions options;
    options.extraConfig = "ForceCommand " + installFakeScp(dir.path()) + "\nAcceptEnv SCPKIT_*\n";
    SshdFixture sshd(options);
    if (!sshd.ok()) GTEST_SKIP() << sshd.error();
    SshRig rig(2000, &sshd);
    ASSERT_TRUE(rig.connected) << lastErrorText(rig.ssh);
    writeFile(dir.file("up.bin"), randomBytes(4 << 20, 3));
    for (const char* opts : {"", "Pipelined"}) {
        for (bool upload : {true, false}) {
            SCOPED_TRACE(std::string(upload ? "upload " : "download ") + opts);
            XString env(upload ? "{\"SCPKIT_FAKE\":\"killed-mid-upload\"}"
                               : "{\"SCPKIT_FAKE\":\"killed-mid-download\"}");
            XString o(opts), remote("/f"), local(dir.file(upload ? "up.bin" : "down").c_str());
            rig.scp.put_SendEnv(env);
            rig.scp.put_UncommonOptions(o);
            EXPECT_FALSE(upload ? rig.scp.UploadFile(local, remote)
                                : rig.scp.DownloadFile(remote, local));
            expectLog(lastErrorText(rig.scp),
                      {upload ? "Failed to send data on the channel."
                              : "Failed to stream file data from SSH server to local file."});
            EXPECT_FALSE(pathExists(dir.file("down")));
        }
    }
}

}  // namespace
}  // namespace scpkit::test
