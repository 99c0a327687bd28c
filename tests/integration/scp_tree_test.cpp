// Tree synchronisation against the loopback OpenSSH sshd and its real scp:
// round trips of a sizeable tree, the modes on a second run, the filters,
// aborts, and a hostile remote scp that tries to write outside the target.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/Progress.h"
#include "base/XString.h"
#include "scp/ClsScp.h"
#include "ssh/ClsSsh.h"
#include "tests/support/SshdFixture.h"
#include "tests/support/TreeFiles.h"

namespace scpkit::test {
namespace {

constexpr int64_t kOld = 1600000000;

// A client connected to a fixture's sshd.
class Client {
  public:
    explicit Client(SshdFixture& sshd) {
        connected = sshd.connectAndLogin(ssh);
        scp.UseSsh(ssh);
    }

    bool upload(const std::string& local, const std::string& remote, int mode, bool recurse = true,
                ProgressEvent* progress = nullptr) {
        XString l(local.c_str()), r(remote.c_str());
        return scp.SyncTreeUpload(l, r, mode, recurse, progress);
    }
    bool download(const std::string& remote, const std::string& local, int mode,
                  bool recurse = true, ProgressEvent* progress = nullptr) {
        XString r(remote.c_str()), l(local.c_str());
        return scp.SyncTreeDownload(r, l, mode, recurse, progress);
    }
    std::vector<std::string> synced() {
        XString text;
        scp.get_SyncedFiles(text);
        return sortedLines(text.getUtf8());
    }
    std::string log() {
        XString text;
        scp.get_LastErrorText(text);
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

    ClsSsh ssh;
    ClsScp scp;
    bool connected = false;
};

#define REQUIRE_SSHD(sshd)                                \
    do {                                                  \
        if (!(sshd).ok()) GTEST_SKIP() << (sshd).error(); \
    } while (0)

// The relative paths of the files of a snapshot.
std::vector<std::string> filesOf(const TreeSnapshot& snap) {
    std::vector<std::string> out;
    for (const auto& kv : snap)
        if (!kv.second.isDir) out.push_back(kv.first);
    return out;
}

// Nested and empty directories, blanks in names, 1,000 small files and a
// few large ones, with assorted modes and times.
void buildBigTree(const std::string& root) {
    makeDir(root);
    makeDir(root + "/empty");
    makeDir(root + "/a/b/c/deep empty", 0700);
    writeFile(root + "/a/top.txt", "top", kOld + 1, 0600);
    writeFile(root + "/a/b/c/leaf.bin", std::string("\0\x01\x02\xff", 4), kOld + 2, 0640);
    writeFile(root + "/dir with blank/file with blank.txt", "blanks", kOld + 3, 0644);
    writeFile(root + "/run.sh", "#!/bin/sh\n", kOld + 4, 0755);
    writeFile(root + "/zero", "", kOld + 5, 0644);
    for (int i = 0; i < 1000; ++i) {
        std::string name = root + "/many/d" + std::to_string(i % 10) + "/f" + std::to_string(i);
        writeFile(name, "small file " + std::to_string(i * 7919), kOld + i, 0644);
    }
    std::string big(3 * 1024 * 1024 + 17, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 131) >> 3);
    writeFile(root + "/large/three.bin", big, kOld + 10, 0644);
    writeFile(root + "/large/one.bin", big.substr(0, 1024 * 1024 + 1), kOld + 11, 0600);
}

TEST(ScpTreeTest, RoundTripGivesTheSameTreeAndRerunsCopyNothing) {
    SshdFixture& sshd = SshdFixture::shared();
    REQUIRE_SSHD(sshd);
    Client c(sshd);
    ASSERT_TRUE(c.connected);
    TreeDir dir;
    std::string src = dir.sub("src"), remote = dir.sub("remote"), dst = dir.sub("dst");
    buildBigTree(src);
    makeDir(remote);
    const TreeSnapshot original = snapshotTree(src);

    ASSERT_TRUE(c.upload(src, remote, 0)) << c.log();
    EXPECT_EQ(c.synced(), filesOf(original));
    EXPECT_EQ(snapshotTree(remote), original);

    makeDir(dst);
    ASSERT_TRUE(c.download(remote, dst, 0)) << c.log();
    EXPECT_EQ(c.synced(), filesOf(original));
    TreeSnapshot copied = snapshotTree(dst);
    EXPECT_EQ(copied.size(), original.size());
    for (const auto& kv : original) {
        SCOPED_TRACE(kv.first);
        EXPECT_TRUE(copied[kv.first] == kv.second);
    }

    // Nothing differs any more: no mode copies anything.
    for (int mode : {1, 2, 5, 6}) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        EXPECT_TRUE(c.upload(src, remote, mode)) << c.log();
        EXPECT_TRUE(c.synced().empty());
        EXPECT_TRUE(c.download(remote, dst, mode)) << c.log();
        EXPECT_TRUE(c.synced().empty());
    }
    EXPECT_EQ(snapshotTree(dst), copied);
}

// A small tree, its remote copy, and a few changes made to one side.
struct ChangedPair {
    TreeDir dir;
    std::string changed = dir.sub("changed");  // the side that was edited
    std::string other = dir.sub("other");      // an exact copy before the edit

    ChangedPair() {
        for (const std::string& root : {changed, other}) {
            makeDir(root);
            writeFile(root + "/same.txt", "same", kOld);
            writeFile(root + "/touched.txt", "touch", kOld);
            writeFile(root + "/resized.txt", "resize", kOld);
            writeFile(root + "/sub/older.txt", "older", kOld);
            writeFile(root + "/sub/sizeolder.txt", "sizeolder", kOld);
        }
        setMtime(changed + "/touched.txt", kOld + 500);                       // newer, same size
        writeFile(changed + "/resized.txt", "resize+more", kOld);             // same time, new size
        setMtime(changed + "/sub/older.txt", kOld - 500);                     // older, same size
        writeFile(changed + "/sub/sizeolder.txt", "sizeolder!", kOld - 500);  // older, new size
        writeFile(changed + "/sub/added.txt", "added", kOld);
    }
};

TEST(ScpTreeTest, ChangedFilesAreCopiedExactlyAsTheModeSays) {
    SshdFixture& sshd = SshdFixture::shared();
    REQUIRE_SSHD(sshd);
    Client c(sshd);
    ASSERT_TRUE(c.connected);
    using Files = std::vector<std::string>;
    const Files addedOnly = {"sub/added.txt"};
    struct Case {
        bool upload;
        int mode;
        Files expected;
    };
    const Case cases[] = {
        {true, 1, addedOnly},
        {true, 2, {"sub/added.txt", "touched.txt"}},
        {true, 3, {"touched.txt"}},
        {true, 4, {"resized.txt", "sub/added.txt", "sub/sizeolder.txt"}},
        {true, 5, {"resized.txt", "sub/added.txt", "sub/sizeolder.txt", "touched.txt"}},
        {false, 1, addedOnly},
        {false, 2, {"sub/added.txt", "touched.txt"}},
        {false, 3, {"touched.txt"}},
        {false, 4, {"touched.txt"}},
        {false, 5, {"resized.txt", "sub/added.txt", "sub/sizeolder.txt"}},
        {false, 6, {"resized.txt", "sub/added.txt", "sub/sizeolder.txt", "touched.txt"}},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(std::string(k.upload ? "upload" : "download") + " mode " +
                     std::to_string(k.mode));
        ChangedPair pair;
        // The edited side is the source of the copy.
        bool ok = k.upload ? c.upload(pair.changed, pair.other, k.mode)
                           : c.download(pair.changed, pair.other, k.mode);
        ASSERT_TRUE(ok) << c.log();
        EXPECT_EQ(c.synced(), k.expected);
        for (const std::string& f : k.expected) {
            EXPECT_EQ(readFile(pair.other + "/" + f), readFile(pair.changed + "/" + f));
        }
    }
}

TEST(ScpTreeTest, FiltersAndRecurseChooseWhatIsCopied) {
    SshdFixture& sshd = SshdFixture::shared();
    REQUIRE_SSHD(sshd);
    using Files = std::vector<std::string>;
    struct Case {
        const char* name;
        const char* filters[4];  // must, mustNot, mustDir, mustNotDir
        bool recurse;
        Files expected;
    };
    const Case cases[] = {
        {"must match", {"*.txt", "", "", ""}, true, {"a.txt", "keep/c.txt", "skip/e.txt"}},
        {"must not match", {"", "*.txt", "", ""}, true, {"b.log", "keep/d.log", "skip/f.log"}},
        // A download tests the remote root's own name against the directory
        // filters too.
        {"must match dir",
         {"", "", "keep*;from", ""},
         true,
         {"a.txt", "b.log", "keep/c.txt", "keep/d.log"}},
        {"must not match dir",
         {"", "", "", "sk*"},
         true,
         {"a.txt", "b.log", "keep/c.txt", "keep/d.log"}},
        {"all four", {"*.txt", "b*", "*", "skip"}, true, {"a.txt", "keep/c.txt"}},
        {"recurse false", {"", "", "", ""}, false, {"a.txt", "b.log"}},
    };
    Client c(sshd);
    ASSERT_TRUE(c.connected);
    for (const Case& k : cases) {
        for (bool upload : {true, false}) {
            SCOPED_TRACE(std::string(k.name) + (upload ? ", upload" : ", download"));
            TreeDir dir;
            std::string from = dir.sub("from"), to = dir.sub("to");
            for (const char* f :
                 {"a.txt", "b.log", "keep/c.txt", "keep/d.log", "skip/e.txt", "skip/f.log"}) {
                writeFile(from + "/" + f, f, kOld);
            }
            makeDir(to);
            c.filters(k.filters[0], k.filters[1], k.filters[2], k.filters[3]);
            bool ok =
                upload ? c.upload(from, to, 0, k.recurse) : c.download(from, to, 0, k.recurse);
            ASSERT_TRUE(ok) << c.log();
            EXPECT_EQ(c.synced(), k.expected);
            EXPECT_EQ(filesOf(snapshotTree(to)), k.expected);
        }
    }
    c.filters("", "", "", "");
}

TEST(ScpTreeTest, MissingRemoteRootWritesNothing) {
    SshdFixture& sshd = SshdFixture::shared();
    REQUIRE_SSHD(sshd);
    Client c(sshd);
    ASSERT_TRUE(c.connected);
    TreeDir dir;
    std::string local = dir.sub("local");
    std::string missing = dir.sub("no such dir");

    class Quiet : public ProgressEvent {
    } progress;
    EXPECT_FALSE(c.download(missing, local, 0, true, &progress));
    std::string log = c.log();
    EXPECT_NE(log.find("No such file or directory"), std::string::npos) << log;
    EXPECT_NE(log.find("Failed to get total size of what needs to be downloaded."),
              std::string::npos)
        << log;
    EXPECT_FALSE(pathExists(local));
    EXPECT_TRUE(c.synced().empty());
}

// Asks to abort once `limit` files have been written.
class AbortAfterFiles : public ProgressEvent {
  public:
    explicit AbortAfterFiles(int limit) : m_limit(limit) {}
    int files = 0;
    void OnNamedEvent(const char* name, const char*) override {
        std::string n = name;
        if (n == "scp-localfile-created" || n == "scp-localfile-uploaded") ++files;
    }
    void OnPercent(int, bool& abort) override {
        if (files >= m_limit) abort = true;
    }

  private:
    int m_limit;
};

TEST(ScpTreeTest, AbortFromTheCallbackStopsMidTreeAndTheConnectionGoesOn) {
    SshdFixture& sshd = SshdFixture::shared();
    REQUIRE_SSHD(sshd);
    Client c(sshd);
    ASSERT_TRUE(c.connected);
    TreeDir dir;
    std::string src = dir.sub("src"), remote = dir.sub("remote"), dst = dir.sub("dst");
    for (int i = 0; i < 40; ++i)
        writeFile(src + "/d" + std::to_string(i % 4) + "/f" + std::to_string(i),
                  std::string(2000, 'x'), kOld);
    makeDir(remote);
    makeDir(dst);

    AbortAfterFiles upAbort(5);
    EXPECT_FALSE(c.upload(src, remote, 0, true, &upAbort));
    size_t sent = c.synced().size();
    EXPECT_GE(sent, 5u);
    EXPECT_LT(sent, 40u);

    ASSERT_TRUE(c.upload(src, remote, 0)) << c.log();
    AbortAfterFiles downAbort(5);
    EXPECT_FALSE(c.download(remote, dst, 0, true, &downAbort));
    size_t got = c.synced().size();
    EXPECT_GE(got, 5u);
    EXPECT_LT(got, 40u);

    // The same connection runs the next transfer to its end.
    ASSERT_TRUE(c.download(remote, dst, 0)) << c.log();
    EXPECT_EQ(snapshotTree(dst), snapshotTree(src));
}

// A remote "scp" that plays a scripted source and ignores what it is asked.
// The scenario is chosen by the requested path.
const char* const kHostileScp = R"(#!/bin/sh
ack() { dd bs=1 count=1 of=/dev/null 2>/dev/null; }
case "$SSH_ORIGINAL_COMMAND" in
*dotdot-file*)
    ack; printf 'D0755 0 x\n'
    ack; printf 'C0644 3 ../evil\n'
    ack; printf 'bad\0'
    ack; printf 'E\n'; ack ;;
*dotdot-dir*)
    ack; printf 'D0755 0 x\n'
    ack; printf 'D0755 0 ..\n'
    ack; printf 'C0644 3 evil\n'
    ack; printf 'bad\0'
    ack; printf 'E\nE\n'; ack ;;
*absolute*)
    ack; printf 'D0755 0 x\n'
    ack; printf 'C0644 3 %s/evil\n' "$EVIL_DIR"
    ack; printf 'bad\0'
    ack; printf 'E\n'; ack ;;
*)
    echo "unexpected command: $SSH_ORIGINAL_COMMAND" >&2; exit 1 ;;
esac
)";

TEST(ScpTreeTest, HostileRemoteScpCannotWriteOutsideTheRoot) {
    TreeDir scripts;
    std::string script = scripts.sub("hostile-scp");
    writeFile(script, kHostileScp, -1, 0755);
    SshdOptions options;
    options.extraConfig = "ForceCommand " + script + "\nSetEnv EVIL_DIR=" + scripts.path();
    SshdFixture sshd(options);
    REQUIRE_SSHD(sshd);
    Client c(sshd);
    ASSERT_TRUE(c.connected);

    for (const char* scenario : {"dotdot-file", "dotdot-dir", "absolute"}) {
        SCOPED_TRACE(scenario);
        TreeDir dir;
        std::string root = dir.sub("parent/root");
        makeDir(root);
        EXPECT_FALSE(c.download(std::string("/srv/") + scenario, root, 0)) << c.log();
        EXPECT_NE(c.log().find("Refusing an unsafe file name from the server."), std::string::npos)
            << c.log();
        EXPECT_EQ(listTree(dir.path()), (std::vector<std::string>{"parent", "parent/root"}));
        EXPECT_FALSE(pathExists(scripts.sub("evil")));
        EXPECT_TRUE(c.synced().empty());
    }
}

}  // namespace
}  // namespace scpkit::test
