// Single transfers against a throwaway loopback OpenSSH sshd: files of
// every size class, paths with blanks, modes and times, in-memory data in
// several charsets and encodings, failures, and an abort in the middle of
// a large transfer. The server runs as the test user on this machine, so
// remote paths are checked directly on disk.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/ScpTestHelpers.h"
#include "tests/support/SshdFixture.h"

namespace scpkit::test {
namespace {

bool sh(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

bool writeRandomFile(const std::string& path, size_t size) {
    return sh("head -c " + std::to_string(size) + " /dev/urandom > '" + path + "'");
}

bool sameBytes(const std::string& a, const std::string& b) {
    return sh("cmp -s '" + a + "' '" + b + "'");
}

// Asks to abort from the first percentage at or past 10.
struct AbortAtTen : ProgressEvent {
    int abortedAt = -1;
    void OnPercent(int percent, bool& abort) override {
        if (percent >= 10 && abortedAt < 0) abortedAt = percent;
        abort = abortedAt >= 0;
    }
};

class ScpSingle : public ::testing::Test {
  protected:
    void SetUp() override {
        SshdFixture& sshd = SshdFixture::shared();
        if (!sshd.ok()) GTEST_SKIP() << sshd.error();
        ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh);
        ASSERT_TRUE(scp.UseSsh(ssh));
        dir = sshd.makeScratchDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        ASSERT_EQ(::mkdir(path("r").c_str(), 0755) | ::mkdir(path("l").c_str(), 0755), 0);
    }
    void TearDown() override { ssh.Disconnect(); }

    std::string path(const std::string& name) const { return dir + "/" + name; }
    bool upload(const std::string& local, const std::string& remote) {
        XString l(path(local).c_str()), r(path(remote).c_str());
        return scp.UploadFile(l, r);
    }
    bool download(const std::string& remote, const std::string& local) {
        XString r(path(remote).c_str()), l(path(local).c_str());
        return scp.DownloadFile(r, l);
    }

    ClsSsh ssh;
    ClsScp scp;
    std::string dir;
};

TEST_F(ScpSingle, FilesOfEverySizeClassRoundTripByteForByte) {
    for (size_t size : {size_t(0), size_t(1), size_t(1) << 20, size_t(100) << 20}) {
        SCOPED_TRACE(size);
        ASSERT_TRUE(writeRandomFile(path("l/src"), size));
        ASSERT_EQ(std::filesystem::file_size(path("l/src")), size);
        ASSERT_TRUE(upload("l/src", "r/up")) << lastErrorText(scp);
        EXPECT_TRUE(sameBytes(path("r/up"), path("l/src")));
        ASSERT_TRUE(download("r/up", "l/back")) << lastErrorText(scp);
        EXPECT_TRUE(sameBytes(path("l/back"), path("l/src")));
    }
}

// Blanks in both paths reach the remote shell quoted.
TEST_F(ScpSingle, PathsWithBlanks) {
    ASSERT_TRUE(writeWholeFile(path("l/a b"), "path forms"));
    ASSERT_EQ(::mkdir(path("r/my dir").c_str(), 0755), 0);
    ASSERT_TRUE(upload("l/a b", "r/my dir/c d.txt")) << lastErrorText(scp);
    ASSERT_TRUE(download("r/my dir/c d.txt", "l/e f.txt")) << lastErrorText(scp);
    EXPECT_EQ(readWholeFile(path("l/e f.txt")), "path forms");
}

// The upload override plays no part in downloads: the remote mode and time
// apply (the modes an upload sends are checked byte for byte elsewhere).
TEST_F(ScpSingle, DownloadedFileGetsTheRemoteModeAndTime) {
    ASSERT_TRUE(writeWholeFile(path("r/m"), "mode"));
    ASSERT_EQ(::chmod(path("r/m").c_str(), 0640), 0);
    struct utimbuf t = {1300000500, 1300000000};
    ASSERT_EQ(::utime(path("r/m").c_str(), &t), 0);
    XString override("0600");
    scp.put_UnixPermOverride(override);
    ASSERT_TRUE(download("r/m", "l/back")) << lastErrorText(scp);
    EXPECT_EQ(fileMode(path("l/back")), 0640u);
    EXPECT_EQ(fileMtime(path("l/back")), 1300000000);
}

TEST_F(ScpSingle, FailedDownloadsLeaveNoLocalFile) {
    EXPECT_FALSE(download("r/missing", "l/missing"));
    expectLog(lastErrorText(scp),
              {"errorResponse: scp: " + path("r/missing") + ": No such file or directory"});
    EXPECT_FALSE(download("r", "l/a-directory"));
    EXPECT_EQ(countEntries(path("l")), 0);
}

TEST_F(ScpSingle, TextInCharsetsBothWays) {
    const std::pair<const char*, std::string> rows[] = {
        {"utf-8", "Gr\303\274\303\237e"},
        {"iso-8859-1", "Gr\374\337e"},
        {"utf-16le", std::string("G\0r\0\374\0\337\0e\0", 10)},
    };
    XString r(path("r/t.txt").c_str()), bad(path("r/bad.txt").c_str()), out;
    for (const auto& [charset, bytes] : rows) {
        SCOPED_TRACE(charset);
        XString text("Grüße"), cs(charset);
        ASSERT_TRUE(scp.UploadString(r, text, cs)) << lastErrorText(scp);
        EXPECT_EQ(readWholeFile(path("r/t.txt")), bytes);
        r.setFromUtf8(path("r/t.txt").c_str());  // the upload shortened it to the directory
        ASSERT_TRUE(scp.DownloadString(r, cs, out)) << lastErrorText(scp);
        EXPECT_STREQ(out.getUtf8(), "Grüße");
    }
    ASSERT_TRUE(writeWholeFile(path("r/bad.txt"), "\xff\xfe\xfd"));
    XString cs("utf-8");
    EXPECT_FALSE(scp.DownloadString(bad, cs, out));
    expectLog(lastErrorText(scp), {"Failed to convert received bytes from the indicated charset."});
}

TEST_F(ScpSingle, EncodedAndBinaryDataBothWays) {
    const std::string bytes("\x00\x01\x02\xff", 4);
    for (const auto& [encoding, encoded] : {std::pair{"base64", "AAEC/w=="}, {"hex", "000102FF"}}) {
        SCOPED_TRACE(encoding);
        XString r(path("r/e").c_str()), rp(path("r/e").c_str()), text(encoded), enc(encoding), out;
        ASSERT_TRUE(scp.UploadBinaryEncoded(r, text, enc)) << lastErrorText(scp);
        EXPECT_EQ(readWholeFile(path("r/e")), bytes);
        ASSERT_TRUE(scp.DownloadBinaryEncoded(rp, enc, out)) << lastErrorText(scp);
        EXPECT_STREQ(out.getUtf8(), encoded);
    }
    // DownloadBinary replaces what the buffer held; DownloadBd appends.
    DataBuffer up, down;
    up.append(bytes.data(), bytes.size());
    down.appendStr("old|");
    ClsBinData bd;
    bd.getDataBuffer().appendStr("old|");
    XString r1(path("r/raw").c_str()), r2(path("r/raw").c_str()), r3(path("r/raw").c_str());
    ASSERT_TRUE(scp.UploadBinary(r1, up)) << lastErrorText(scp);
    ASSERT_TRUE(scp.DownloadBinary(r2, down)) << lastErrorText(scp);
    EXPECT_TRUE(down.equals(bytes.data(), bytes.size()));
    ASSERT_TRUE(scp.DownloadBd(r3, bd)) << lastErrorText(scp);
    EXPECT_TRUE(bd.getDataBuffer().equals(("old|" + bytes).data(), 8));
}

TEST_F(ScpSingle, AbortFromProgressStopsLargeTransfers) {
    ASSERT_TRUE(writeRandomFile(path("l/big"), size_t(100) << 20));
    ASSERT_TRUE(writeRandomFile(path("r/big"), size_t(100) << 20));
    XString l(path("l/big").c_str()), r(path("r/up").c_str());
    XString rp(path("r/big").c_str()), lp(path("l/down").c_str());
    AbortAtTen upAbort, downAbort;
    EXPECT_FALSE(scp.UploadFile(l, r, &upAbort));
    EXPECT_FALSE(scp.DownloadFile(rp, lp, &downAbort));
    for (const AbortAtTen* a : {&upAbort, &downAbort}) {
        EXPECT_GE(a->abortedAt, 10);
        EXPECT_LT(a->abortedAt, 100);
    }
    EXPECT_FALSE(pathExists(path("l/down")));
    // The connection still serves the next transfer.
    ASSERT_TRUE(writeWholeFile(path("l/small"), "small"));
    EXPECT_TRUE(upload("l/small", "r/small")) << lastErrorText(scp);
    EXPECT_EQ(readWholeFile(path("r/small")), "small");
}

}  // namespace
}  // namespace scpkit::test
