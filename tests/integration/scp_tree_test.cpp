// Tree synchronisation against the loopback OpenSSH sshd and its real scp:
// a round trip, the modes on edited trees, the filters, a missing root, an
// abort mid-tree, and a hostile remote scp that aims outside the target.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/SshdFixture.h"
#include "tests/support/TreeFiles.h"

namespace scpkit::test {
namespace {

constexpr int64_t kOld = 1600000000;
using Files = std::vector<std::string>;

// A client logged in to an sshd; sync() copies the tree `from` onto `to`.
struct Client {
    ClsSsh ssh;
    ClsScp scp;
    bool connected;
    explicit Client(SshdFixture& sshd) : connected(sshd.connectAndLogin(ssh)) { scp.UseSsh(ssh); }
    bool sync(bool upload, const std::string& from, const std::string& to, int mode,
              bool recurse = true, ProgressEvent* progress = nullptr) {
        XString f(from.c_str()), t(to.c_str());
        return upload ? scp.SyncTreeUpload(f, t, mode, recurse, progress)
                      : scp.SyncTreeDownload(f, t, mode, recurse, progress);
    }
    Files synced() {
        XString text;
        scp.get_SyncedFiles(text);
        return sortedLines(text.getUtf8());
    }
    void filters(const std::array<std::string, 4>& f) {
        XString must(f[0].c_str()), mustNot(f[1].c_str()), dir(f[2].c_str()), notDir(f[3].c_str());
        scp.put_SyncMustMatch(must);
        scp.put_SyncMustNotMatch(mustNot);
        scp.put_SyncMustMatchDir(dir);
        scp.put_SyncMustNotMatchDir(notDir);
    }
};

class ScpTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!SshdFixture::shared().ok()) GTEST_SKIP() << SshdFixture::shared().error();
        ASSERT_TRUE(c.connected) << lastErrorText(c.ssh);
    }
    Client c{SshdFixture::shared()};
    ScratchDir dir;
};

TEST_F(ScpTreeTest, RoundTripGivesTheSameTreeAndRerunsCopyNothing) {
    const std::string src = dir.file("src"), remote = dir.file("remote"), dst = dir.file("dst");
    makeDir(src + "/empty");
    makeDir(src + "/a/b/c/deep empty", 0700);
    writeFile(src + "/a/b/c/leaf.bin", std::string("\0\x01\x02\xff", 4), kOld + 2, 0640);
    writeFile(src + "/dir with blank/file with blank.txt", "blanks", kOld + 3, 0600);
    writeFile(src + "/run.sh", "#!/bin/sh\n", kOld + 4, 0755);
    writeFile(src + "/zero", "", kOld + 5);
    for (int i = 0; i < 100; ++i)
        writeFile(src + "/many/d" + std::to_string(i % 10) + "/f" + std::to_string(i),
                  std::string(i * 37, char('a' + i % 26)), kOld + i);
    makeDir(remote);
    makeDir(dst);
    const TreeSnapshot original = snapshotTree(src);

    ASSERT_TRUE(c.sync(true, src, remote, 0)) << lastErrorText(c.scp);
    EXPECT_EQ(c.synced(), listTree(src, true));
    EXPECT_EQ(snapshotTree(remote), original);
    ASSERT_TRUE(c.sync(false, remote, dst, 0)) << lastErrorText(c.scp);
    EXPECT_EQ(c.synced(), listTree(src, true));
    EXPECT_EQ(snapshotTree(dst), original);
    for (int mode : {1, 2, 5, 6}) {
        EXPECT_TRUE(c.sync(true, src, remote, mode)) << lastErrorText(c.scp);
        EXPECT_EQ(c.synced(), Files{}) << "upload mode " << mode;
        EXPECT_TRUE(c.sync(false, remote, dst, mode)) << lastErrorText(c.scp);
        EXPECT_EQ(c.synced(), Files{}) << "download mode " << mode;
    }
    EXPECT_EQ(snapshotTree(dst), original);
}

TEST_F(ScpTreeTest, EditedFilesAreCopiedExactlyAsTheModeSays) {
    const struct {
        bool upload;
        int mode;
        Files expected;
    } cases[] = {
        {true, 2, {"sub/added.txt", "touched.txt"}},
        {true, 4, {"resized.txt", "sub/added.txt", "sub/sizeolder.txt"}},
        {true, 5, {"resized.txt", "sub/added.txt", "sub/sizeolder.txt", "touched.txt"}},
        {false, 3, {"touched.txt"}},
        {false, 5, {"resized.txt", "sub/added.txt", "sub/sizeolder.txt"}},
        {false, 6, {"resized.txt", "sub/added.txt", "sub/sizeolder.txt", "touched.txt"}},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE((k.upload ? "upload mode " : "download mode ") + std::to_string(k.mode));
        // Two equal trees; then one of them, the source of the copy, is edited.
        ScratchDir pair;
        const std::string edited = pair.file("edited"), other = pair.file("other");
        for (const std::string& root : {edited, other})
            for (const char* f :
                 {"same.txt", "touched.txt", "resized.txt", "sub/older.txt", "sub/sizeolder.txt"})
                writeFile(root + "/" + f, f, kOld);
        writeFile(edited + "/touched.txt", "touched.txt", kOld + 500);  // newer
        writeFile(edited + "/resized.txt", "resized.txt+", kOld);       // other size
        writeFile(edited + "/sub/older.txt", "sub/older.txt", kOld - 500);
        writeFile(edited + "/sub/sizeolder.txt", "sub/sizeolder.txt!", kOld - 500);
        writeFile(edited + "/sub/added.txt", "added", kOld);
        ASSERT_TRUE(c.sync(k.upload, edited, other, k.mode)) << lastErrorText(c.scp);
        EXPECT_EQ(c.synced(), k.expected);
        const TreeSnapshot want = snapshotTree(edited), got = snapshotTree(other);
        for (const std::string& f : k.expected) EXPECT_EQ(got.at(f), want.at(f)) << f;
    }
}

TEST_F(ScpTreeTest, FiltersAndRecurseChooseWhatIsCopied) {
    const struct {
        std::array<std::string, 4> filters;  // files, not files, dirs, not dirs
        bool recurse;
        Files expected;
    } cases[] = {
        {{"*.txt"}, true, {"a.txt", "keep/c.txt", "skip/e.txt"}},
        // A download tests the remote root's own name against the directory filters too.
        {{"", "", "keep*;from"}, true, {"a.txt", "b.log", "keep/c.txt", "keep/d.log"}},
        {{"", "", "", "sk*"}, true, {"a.txt", "b.log", "keep/c.txt", "keep/d.log"}},
        {{"*.txt", "b*", "*", "skip"}, true, {"a.txt", "keep/c.txt"}},
        {{}, false, {"a.txt", "b.log"}},
    };
    for (const auto& k : cases) {
        for (bool upload : {true, false}) {
            SCOPED_TRACE(k.filters[0] + "|" + k.filters[1] + "|" + k.filters[2] + "|" +
                         k.filters[3] + (upload ? " upload" : " download"));
            ScratchDir pair;
            for (const char* f :
                 {"a.txt", "b.log", "keep/c.txt", "keep/d.log", "skip/e.txt", "skip/f.log"})
                writeFile(pair.file("from/") + f, f, kOld);
            makeDir(pair.file("to"));
            c.filters(k.filters);
            ASSERT_TRUE(c.sync(upload, pair.file("from"), pair.file("to"), 0, k.recurse))
                << lastErrorText(c.scp);
            EXPECT_EQ(c.synced(), k.expected);
            EXPECT_EQ(listTree(pair.file("to"), true), k.expected);
        }
    }
}

TEST_F(ScpTreeTest, MissingRemoteRootWritesNothing) {
    ProgressEvent progress;
    EXPECT_FALSE(c.sync(false, dir.file("no such dir"), dir.file("local"), 0, true, &progress));
    expectLog(lastErrorText(c.scp), {"No such file or directory",
                                     "Failed to get total size of what needs to be downloaded."});
    EXPECT_FALSE(pathExists(dir.file("local")));
    EXPECT_EQ(c.synced(), Files{});
}

// Asks to abort once `limit` files have been written.
struct AbortAfterFiles : ProgressEvent {
    size_t files = 0, limit = 5;
    void OnNamedEvent(const char* name, const char*) override {
        files += std::string(name) == "scp-localfile-created" ||
                 std::string(name) == "scp-localfile-uploaded";
    }
    void OnPercent(int, bool& abort) override { abort = files >= limit; }
};

TEST_F(ScpTreeTest, AbortStopsMidTreeAndTheNextTransferWorks) {
    const std::string src = dir.file("src"), remote = dir.file("remote"), dst = dir.file("dst");
    for (int i = 0; i < 40; ++i)
        writeFile(src + "/d" + std::to_string(i % 4) + "/f" + std::to_string(i),
                  std::string(2000, 'x'), kOld);
    makeDir(remote);
    makeDir(dst);
    for (bool upload : {true, false}) {
        AbortAfterFiles abort;
        EXPECT_FALSE(upload ? c.sync(true, src, remote, 0, true, &abort)
                            : c.sync(false, remote, dst, 0, true, &abort));
        EXPECT_GE(c.synced().size(), 5u);
        EXPECT_LT(c.synced().size(), 40u);
        // The same connection runs the next transfer to its end.
        ASSERT_TRUE(upload ? c.sync(true, src, remote, 0) : c.sync(false, remote, dst, 0))
            << lastErrorText(c.scp);
    }
    EXPECT_EQ(snapshotTree(dst), snapshotTree(src));
}

// A remote "scp" that plays a source of its own, whatever it is asked; the
// requested path picks the scenario.
const char* const kHostileScp = R"(#!/bin/sh
ack() { dd bs=1 count=1 of=/dev/null 2>/dev/null; }
case "$SSH_ORIGINAL_COMMAND" in
*dotdot-file*) name='../evil' ;;
*absolute*) name="$EVIL_DIR/evil" ;;
*dotdot-dir*)
    ack; printf 'D0755 0 x\n'; ack; printf 'D0755 0 ..\n'; ack; printf 'C0644 3 evil\n'
    ack; printf 'bad\0'; ack; printf 'E\nE\n'; ack; exit 0 ;;
*) exit 1 ;;
esac
ack; printf 'D0755 0 x\n'; ack; printf 'C0644 3 %s\n' "$name"; ack; printf 'bad\0'
ack; printf 'E\n'; ack
)";

TEST(ScpTreeHostileTest, RemoteScpCannotWriteOutsideTheRoot) {
    ScratchDir scripts;
    writeFile(scripts.file("hostile-scp"), kHostileScp, -1, 0755);
    SshdOptions options;
    options.extraConfig =
        "ForceCommand " + scripts.file("hostile-scp") + "\nSetEnv EVIL_DIR=" + scripts.path();
    SshdFixture sshd(options);
    if (!sshd.ok()) GTEST_SKIP() << sshd.error();
    Client c(sshd);
    ASSERT_TRUE(c.connected) << lastErrorText(c.ssh);
    for (const char* scenario : {"dotdot-file", "dotdot-dir", "absolute"}) {
        SCOPED_TRACE(scenario);
        ScratchDir dir;
        makeDir(dir.file("parent/root"));
        EXPECT_FALSE(c.sync(false, std::string("/srv/") + scenario, dir.file("parent/root"), 0));
        expectLog(lastErrorText(c.scp), {"Refusing an unsafe file name from the server."});
        EXPECT_EQ(listTree(dir.path()), (Files{"parent", "parent/root"}));
        EXPECT_FALSE(pathExists(scripts.file("evil")));
        EXPECT_EQ(c.synced(), Files{});
    }
}

}  // namespace
}  // namespace scpkit::test
