// Single transfers against a throwaway loopback OpenSSH sshd: files of
// every size class, path forms, modes and times, in-memory data in several
// charsets and encodings, failures, and an abort in the middle of a large
// transfer. The server runs as the test user on this machine, so remote
// paths are checked directly on disk.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "base/ClsBinData.h"
#include "base/DataBuffer.h"
#include "base/Progress.h"
#include "scp/ClsScp.h"
#include "ssh/ClsSsh.h"
#include "tests/support/ScpTestHelpers.h"
#include "tests/support/SshdFixture.h"

namespace scpkit {
namespace {

using test::expectLog;
using test::lastErrorText;
using test::readWholeFile;
using test::writeWholeFile;

// Pseudo-random bytes in 128 KiB blocks, so that large files stay cheap.
bool writeRandomFile(const std::string& path, size_t size, unsigned seed) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    std::mt19937_64 gen(seed);
    std::vector<uint64_t> block(1 << 14);
    for (size_t left = size; left > 0;) {
        for (auto& w : block) w = gen();
        size_t n = std::min(left, block.size() * sizeof(uint64_t));
        f.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(n));
        left -= n;
    }
    return static_cast<bool>(f);
}

// FNV-1a of the whole file with its size; "" when unreadable.
std::string fileDigest(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    if (!f) return "";
    uint64_t h = 1469598103934665603ull, n = 0;
    std::vector<char> buf(1 << 20);
    while (f.read(buf.data(), static_cast<std::streamsize>(buf.size())) || f.gcount() > 0) {
        for (std::streamsize i = 0; i < f.gcount(); ++i, ++n)
            h = (h ^ static_cast<unsigned char>(buf[static_cast<size_t>(i)])) * 1099511628211ull;
    }
    return std::to_string(n) + ":" + std::to_string(h);
}

// Asks to abort from the first percentage at or past `at`.
class AbortAt : public ProgressEvent {
  public:
    explicit AbortAt(int at) : m_at(at) {}
    void OnPercent(int percent, bool& abort) override {
        if (percent >= m_at && abortedAt < 0) abortedAt = percent;
        abort = abortedAt >= 0;
    }
    int abortedAt = -1;

  private:
    int m_at;
};

class ScpSingle : public ::testing::Test {
  protected:
    void SetUp() override {
        test::SshdFixture& sshd = test::SshdFixture::shared();
        if (!sshd.ok()) GTEST_SKIP() << sshd.error();
        ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh);
        ASSERT_TRUE(scp.UseSsh(ssh));
        dir = sshd.makeScratchDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        ASSERT_EQ(::mkdir(path("r").c_str(), 0755) | ::mkdir(path("l").c_str(), 0755), 0);
        const char* h = std::getenv("HOME");
        home = h ? h : "/root";
    }
    void TearDown() override { ssh.Disconnect(); }

    std::string path(const std::string& name) const { return dir + "/" + name; }
    bool upload(const std::string& local, const std::string& remote) {
        XString l(local.c_str()), r(remote.c_str());
        return scp.UploadFile(l, r);
    }
    bool download(const std::string& remote, const std::string& local) {
        XString r(remote.c_str()), l(local.c_str());
        return scp.DownloadFile(r, l);
    }

    ClsSsh ssh;
    ClsScp scp;
    std::string dir, home;
};

TEST_F(ScpSingle, FilesOfEverySizeClassRoundTrip) {
    for (size_t size : {size_t(0), size_t(1), size_t(1) << 20, size_t(100) << 20}) {
        SCOPED_TRACE(size);
        std::string src = path("l/src"), up = path("r/up"), back = path("l/back");
        ASSERT_TRUE(writeRandomFile(src, size, static_cast<unsigned>(size)));
        ASSERT_TRUE(upload(src, up)) << lastErrorText(scp);
        EXPECT_EQ(fileDigest(up), fileDigest(src));
        ASSERT_TRUE(download(up, back)) << lastErrorText(scp);
        EXPECT_EQ(fileDigest(back), fileDigest(src));
        EXPECT_EQ(fileDigest(back).rfind(std::to_string(size) + ":", 0), 0u);
    }
}

TEST_F(ScpSingle, RemotePathForms) {
    ASSERT_TRUE(writeWholeFile(path("l/src"), "path forms"));
    ASSERT_EQ(::mkdir(path("r/my dir").c_str(), 0755), 0);
    XString l(path("l/src").c_str()), r(path("r/my dir/a b.txt").c_str());
    ASSERT_TRUE(scp.UploadFile(l, r)) << lastErrorText(scp);
    EXPECT_EQ(std::string(r.getUtf8()), path("r/my dir/"));  // shortened in place
    ASSERT_TRUE(download(path("r/my dir/a b.txt"), path("l/c d.txt"))) << lastErrorText(scp);
    EXPECT_EQ(readWholeFile(path("l/c d.txt")), "path forms");

    // A bare name lands in the login directory.
    std::string bare = "scpkit-bare-" + std::to_string(::getpid());
    EXPECT_TRUE(upload(path("l/src"), bare)) << lastErrorText(scp);
    EXPECT_EQ(readWholeFile(home + "/" + bare), "path forms");
    ::unlink((home + "/" + bare).c_str());

    // So does the name alone with FilenameOnly, whatever the directory part.
    XString options("FilenameOnly");
    scp.put_UncommonOptions(options);
    EXPECT_TRUE(upload(path("l/src"), path("r/") + bare)) << lastErrorText(scp);
    EXPECT_FALSE(test::pathExists(path("r/") + bare));
    EXPECT_EQ(readWholeFile(home + "/" + bare), "path forms");
    ::unlink((home + "/" + bare).c_str());

    // A path ending in '/' sends an empty name, which the remote refuses.
    EXPECT_FALSE(upload(path("l/src"), path("r/")));
    expectLog(lastErrorText(scp), {"scpError: "});
}

TEST_F(ScpSingle, UploadedModesAndDownloadedModeAndTime) {
    struct Row {
        unsigned localMode;
        const char* override;
        unsigned remoteMode;
    };
    for (const Row& row :
         {Row{0755, "", 0755}, Row{0644, "0600", 0600}, Row{0755, " 600 ", 0600}}) {
        SCOPED_TRACE(row.override);
        ASSERT_TRUE(writeWholeFile(path("l/m"), "mode"));
        ASSERT_EQ(::chmod(path("l/m").c_str(), row.localMode), 0);
        XString o(row.override);
        scp.put_UnixPermOverride(o);
        ::unlink(path("r/m").c_str());
        ASSERT_TRUE(upload(path("l/m"), path("r/m"))) << lastErrorText(scp);
        EXPECT_EQ(test::fileMode(path("r/m")), row.remoteMode);
    }
    // The override plays no part in downloads: the remote mode and time apply.
    struct utimbuf t = {1300000500, 1300000000};
    ASSERT_EQ(::utime(path("r/m").c_str(), &t), 0);
    ASSERT_TRUE(download(path("r/m"), path("l/back"))) << lastErrorText(scp);
    EXPECT_EQ(test::fileMode(path("l/back")), 0600u);
    EXPECT_EQ(test::fileMtime(path("l/back")), 1300000000);
}

TEST_F(ScpSingle, FailedDownloadsLeaveNoLocalFile) {
    EXPECT_FALSE(download(path("r/missing"), path("l/missing")));
    expectLog(lastErrorText(scp),
              {"errorResponse: scp: " + path("r/missing") + ": No such file or directory"});
    EXPECT_FALSE(download(path("r"), path("l/a-directory")));
    EXPECT_EQ(test::countEntries(path("l")), 0);

    ASSERT_TRUE(writeWholeFile(path("r/exists"), "x"));
    EXPECT_FALSE(download(path("r/exists"), path("l/no/such/dir/file")));
    expectLog(lastErrorText(scp), {"Failed."}, {"remotePath"});  // before any channel
}

TEST_F(ScpSingle, TextInCharsetsBothWays) {
    const std::pair<const char*, std::string> rows[] = {
        {"utf-8",
         "Gr\xc3\xbc\xc3\x9f"
         "e"},
        {"iso-8859-1",
         "Gr\xfc\xdf"
         "e"},
        {"utf-16le", std::string("G\0r\0\xfc\0\xdf\0e\0", 10)},
    };
    for (const auto& [charset, bytes] : rows) {
        SCOPED_TRACE(charset);
        XString r(path("r/t.txt").c_str()), rp(path("r/t.txt").c_str()), text("Grüße"), cs(charset);
        XString out;
        ASSERT_TRUE(scp.UploadString(r, text, cs)) << lastErrorText(scp);
        EXPECT_EQ(readWholeFile(path("r/t.txt")), bytes);
        ASSERT_TRUE(scp.DownloadString(rp, cs, out)) << lastErrorText(scp);
        EXPECT_STREQ(out.getUtf8(), "Grüße");
    }
    ASSERT_TRUE(writeWholeFile(path("r/bad.txt"), "\xff\xfe\xfd"));
    XString rp(path("r/bad.txt").c_str()), cs("utf-8"), out;
    EXPECT_FALSE(scp.DownloadString(rp, cs, out));
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
    DataBuffer up, down;
    up.append(bytes.data(), bytes.size());
    ClsBinData bd, into;
    bd.getDataBuffer().appendStr("bd");
    into.getDataBuffer().appendStr("old|");
    down.appendStr("old|");
    XString r1(path("r/raw").c_str()), r2(path("r/bd").c_str());
    ASSERT_TRUE(scp.UploadBinary(r1, up)) << lastErrorText(scp);
    ASSERT_TRUE(scp.UploadBd(r2, bd)) << lastErrorText(scp);
    EXPECT_EQ(readWholeFile(path("r/bd")), "bd");
    // DownloadBinary replaces what the buffer held; DownloadBd appends.
    XString rp1(path("r/raw").c_str()), rp2(path("r/bd").c_str());
    ASSERT_TRUE(scp.DownloadBinary(rp1, down)) << lastErrorText(scp);
    EXPECT_TRUE(down.equals(bytes.data(), bytes.size()));
    ASSERT_TRUE(scp.DownloadBd(rp2, into)) << lastErrorText(scp);
    EXPECT_TRUE(into.getDataBuffer().equals("old|bd", 6));
}

TEST_F(ScpSingle, AbortFromProgressStopsLargeTransfers) {
    ASSERT_TRUE(writeRandomFile(path("l/big"), size_t(100) << 20, 7));
    ASSERT_TRUE(writeRandomFile(path("r/big"), size_t(100) << 20, 8));
    XString l(path("l/big").c_str()), r(path("r/up").c_str());
    XString rp(path("r/big").c_str()), lp(path("l/down").c_str());
    AbortAt upAbort(10), downAbort(10);
    EXPECT_FALSE(scp.UploadFile(l, r, &upAbort));
    EXPECT_FALSE(scp.DownloadFile(rp, lp, &downAbort));
    for (const AbortAt* a : {&upAbort, &downAbort}) {
        EXPECT_GE(a->abortedAt, 10);
        EXPECT_LT(a->abortedAt, 100);
    }
    EXPECT_FALSE(test::pathExists(path("l/down")));
    // The connection still serves the next transfer.
    ASSERT_TRUE(writeWholeFile(path("l/small"), "small"));
    EXPECT_TRUE(upload(path("l/small"), path("r/small"))) << lastErrorText(scp);
}

}  // namespace
}  // namespace scpkit
