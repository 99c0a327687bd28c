// Single transfers against the loopback OpenSSH sshd and its real scp:
// files of every size class, paths with blanks, modes and times, in-memory
// data in charsets and encodings, failures, and a fifo as the local target.
// The server runs as the test user on this machine, so remote paths are
// checked directly on disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/DataBuffer.h>
#include "tests/support/SshdFixture.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

class ScpSingle : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!SshdFixture::shared().ok()) GTEST_SKIP() << SshdFixture::shared().error();
        ASSERT_TRUE(rig.connected) << lastErrorText(rig.ssh);
        makeDir(path("r"));
        makeDir(path("l"));
    }
    std::string path(const std::string& name) const { return dir.file(name); }
    bool upload(const std::string& local, const std::string& remote) {
        XString l(path(local).c_str()), r(path(remote).c_str());
        return rig.scp.UploadFile(l, r);
    }
    bool download(const std::string& remote, const std::string& local) {
        XString r(path(remote).c_str()), l(path(local).c_str());
        return rig.scp.DownloadFile(r, l);
    }
    void options(const char* text) {
        XString o(text);
        rig.scp.put_UncommonOptions(o);
    }

    SshRig rig;
    ScratchDir dir;
};

TEST_F(ScpSingle, FilesOfEverySizeClassRoundTripByteForByte) {
    const size_t big = longTests() ? size_t(100) << 20 : size_t(16) << 20;
    for (size_t size : {size_t(0), size_t(1), size_t(1) << 20, big}) {
        for (const char* opts : {"", "Pipelined"}) {
            SCOPED_TRACE(std::to_string(size) + " " + opts);
            options(opts);
            const std::string data = randomBytes(size, static_cast<uint32_t>(size));
            ASSERT_TRUE(writeFile(path("l/src"), data, 1300000000, 0640));
            ASSERT_TRUE(upload("l/src", "r/up")) << lastErrorText(rig.scp);
            EXPECT_TRUE(readFile(path("r/up")) == data);
            ASSERT_TRUE(download("r/up", "l/back")) << lastErrorText(rig.scp);
            EXPECT_TRUE(readFile(path("l/back")) == data);
            // Uploads do not ask to keep times; downloads keep the remote's.
            EXPECT_EQ(fileMtime(path("l/back")), fileMtime(path("r/up")));
            EXPECT_EQ(fileMode(path("l/back")), 0640u);
        }
    }
}

// Blanks in both paths reach the remote shell quoted; the upload override
// plays no part in downloads.
TEST_F(ScpSingle, PathsWithBlanksModesAndTimes) {
    ASSERT_TRUE(writeFile(path("l/a b"), "path forms"));
    makeDir(path("r/my dir"));
    ASSERT_TRUE(upload("l/a b", "r/my dir/c d.txt")) << lastErrorText(rig.scp);
    ASSERT_TRUE(writeFile(path("r/my dir/c d.txt"), "path forms", 1300000000, 0640));
    XString override("0600");
    rig.scp.put_UnixPermOverride(override);
    ASSERT_TRUE(download("r/my dir/c d.txt", "l/e f.txt")) << lastErrorText(rig.scp);
    EXPECT_EQ(snapshotTree(path("l")).at("e f.txt"),
              (TreeEntry{false, 0640, 1300000000, "path forms"}));
}

TEST_F(ScpSingle, FailedDownloadsLeaveNoLocalFile) {
    EXPECT_FALSE(download("r/missing", "l/missing"));
    expectLog(lastErrorText(rig.scp),
              {"errorResponse: scp: " + path("r/missing") + ": No such file or directory"});
    EXPECT_FALSE(download("r", "l/a-directory"));
    EXPECT_EQ(countEntries(path("l")), 0);
}

// Text in charsets and bytes given as encoded text, both ways; raw bytes
// into a DataBuffer (replaced) and a ClsBinData (appended to).
TEST_F(ScpSingle, InMemoryDataBothWays) {
    const struct {
        bool encoded;
        const char *name, *text;
        std::string bytes;
    } rows[] = {
        {false, "utf-8", "Grüße", "Gr\303\274\303\237e"},
        {false, "iso-8859-1", "Grüße", "Gr\374\337e"},
        {false, "utf-16le", "Grüße", std::string("G\0r\0\374\0\337\0e\0", 10)},
        {true, "base64", "AAEC/w==", std::string("\x00\x01\x02\xff", 4)},
        {true, "hex", "000102FF", std::string("\x00\x01\x02\xff", 4)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        XString r(path("r/t").c_str()), text(row.text), name(row.name), out;
        ASSERT_TRUE(row.encoded ? rig.scp.UploadBinaryEncoded(r, text, name)
                                : rig.scp.UploadString(r, text, name))
            << lastErrorText(rig.scp);
        EXPECT_EQ(readFile(path("r/t")), row.bytes);
        r.setFromUtf8(path("r/t").c_str());  // the upload shortened it to the directory
        ASSERT_TRUE(row.encoded ? rig.scp.DownloadBinaryEncoded(r, name, out)
                                : rig.scp.DownloadString(r, name, out))
            << lastErrorText(rig.scp);
        EXPECT_STREQ(out.getUtf8(), row.text);
        DataBuffer down;
        down.appendStr("old|");
        ASSERT_TRUE(rig.scp.DownloadBinary(r, down));
        EXPECT_TRUE(down.equals(row.bytes.data(), row.bytes.size()));
        ClsBinData bd;
        bd.getDataBuffer().appendStr("old|");
        ASSERT_TRUE(rig.scp.DownloadBd(r, bd));
        EXPECT_TRUE(bd.getDataBuffer().equals(("old|" + row.bytes).data(), 4 + row.bytes.size()));
        XString again(path("r/again").c_str());
        ASSERT_TRUE(rig.scp.UploadBd(again, bd));
        EXPECT_EQ(readFile(path("r/again")), "old|" + row.bytes);
        ASSERT_TRUE(rig.scp.UploadBinary(again = XString(path("r/again").c_str()), down));
        EXPECT_EQ(readFile(path("r/again")), row.bytes);
    }
    ASSERT_TRUE(writeFile(path("r/bad.txt"), "\xff\xfe\xfd"));
    XString bad(path("r/bad.txt").c_str()), cs("utf-8"), out;
    EXPECT_FALSE(rig.scp.DownloadString(bad, cs, out));
    expectLog(lastErrorText(rig.scp),
              {"Failed to convert received bytes from the indicated charset."});
}

// A fifo named as the target is written through and left as it was: never
// deleted, truncated or given the remote mode, also when the download fails.
TEST_F(ScpSingle, FifoTargetIsWrittenThroughAndLeftAlone) {
    const std::string data = randomBytes(300000, 5), fifo = path("l/fifo");
    ASSERT_TRUE(writeFile(path("r/src"), data, 1300000000, 0644));
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const char* remote : {"r/src", "r/missing"}) {
        SCOPED_TRACE(remote);
        // The reader is there before the download opens the fifo.
        const int fd = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
        ASSERT_GE(fd, 0);
        std::string got;
        std::atomic<bool> done{false};
        std::thread reader([&] {
            char buf[65536];
            for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) != 0 || !done;) {
                if (n > 0) got.append(buf, static_cast<size_t>(n));
                if (n <= 0) ::usleep(1000);
            }
        });
        const bool ok = download(remote, "l/fifo");
        done = true;
        reader.join();
        ::close(fd);
        EXPECT_EQ(ok, std::string(remote) == "r/src") << lastErrorText(rig.scp);
        if (ok) {
            EXPECT_TRUE(got == data);
        }
        struct stat st;
        ASSERT_EQ(::lstat(fifo.c_str(), &st), 0);
        EXPECT_TRUE(S_ISFIFO(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, 0600u);
    }
}

}  // namespace
}  // namespace scpkit::test
