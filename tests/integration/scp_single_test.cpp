// Single transfers against a throwaway loopback OpenSSH sshd: files of
// every size class, path forms, modes and times, in-memory data in several
// charsets and encodings, failures, and an abort in the middle of a large
// transfer. The server runs as the test user on this machine, so remote
// paths are checked directly on disk.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <fstream>
#include <memory>
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

using test::fileMode;
using test::fileMtime;
using test::lastErrorText;
using test::pathExists;
using test::readWholeFile;
using test::writeWholeFile;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Writes `size` pseudo-random bytes, in blocks so large files stay cheap.
bool writeRandomFile(const std::string& path, size_t size, unsigned seed) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    std::mt19937_64 gen(seed);
    std::vector<uint64_t> block(1 << 14);  // 128 KiB
    size_t left = size;
    while (left > 0) {
        for (auto& w : block) w = gen();
        size_t n = std::min(left, block.size() * sizeof(uint64_t));
        f.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(n));
        left -= n;
    }
    return static_cast<bool>(f);
}

// FNV-1a over the whole file, read in 1 MiB blocks; -1 when unreadable.
long long fileDigest(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    if (!f) return -1;
    uint64_t h = 1469598103934665603ull;
    std::vector<char> buf(1 << 20);
    while (f) {
        f.read(buf.data(), static_cast<std::streamsize>(buf.size()));
        for (std::streamsize i = 0; i < f.gcount(); ++i) {
            h ^= static_cast<unsigned char>(buf[static_cast<size_t>(i)]);
            h *= 1099511628211ull;
        }
    }
    return static_cast<long long>(h & 0x7fffffffffffffffull);
}

std::string homeDir() {
    const char* home = getenv("HOME");
    return home ? home : "/root";
}

// Asks to abort once the transfer passes a given percentage.
class AbortAt : public ProgressEvent {
  public:
    explicit AbortAt(int percent) : m_at(percent) {}
    void OnPercent(int percent, bool& abort) override {
        if (percent >= m_at && m_abortedAt < 0) m_abortedAt = percent;
        if (m_abortedAt >= 0) abort = true;
    }
    // The percentage at which the abort was first asked for (-1: never).
    int abortedAt() const { return m_abortedAt; }

  private:
    int m_at;
    int m_abortedAt = -1;
};

class ScpSingle : public ::testing::Test {
  protected:
    void SetUp() override {
        test::SshdFixture& sshd = test::SshdFixture::shared();
        if (!sshd.ok()) GTEST_SKIP() << sshd.error();
        ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh);
        ASSERT_TRUE(scp.UseSsh(ssh));
        dir = sshd.makeScratchDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        ASSERT_FALSE(dir.empty());
        ::mkdir(remoteDir().c_str(), 0755);
        ::mkdir(localDir().c_str(), 0755);
    }
    void TearDown() override { ssh.Disconnect(); }

    std::string remoteDir() const { return dir + "/remote"; }
    std::string localDir() const { return dir + "/local"; }
    std::string remote(const std::string& name) const { return remoteDir() + "/" + name; }
    std::string local(const std::string& name) const { return localDir() + "/" + name; }

    bool upload(const std::string& localPath, const std::string& remotePath) {
        XString l(localPath.c_str()), r(remotePath.c_str());
        return scp.UploadFile(l, r);
    }
    bool download(const std::string& remotePath, const std::string& localPath) {
        XString r(remotePath.c_str()), l(localPath.c_str());
        return scp.DownloadFile(r, l);
    }

    ClsSsh ssh;
    ClsScp scp;
    std::string dir;
};

TEST_F(ScpSingle, FilesOfEverySizeClassRoundTrip) {
    const size_t sizes[] = {0, 1, 1024 * 1024, 100 * 1024 * 1024};
    for (size_t size : sizes) {
        SCOPED_TRACE(size);
        std::string name = "f" + std::to_string(size);
        ASSERT_TRUE(writeRandomFile(local(name), size, static_cast<unsigned>(size) + 1));
        ASSERT_TRUE(upload(local(name), remote(name))) << lastErrorText(scp);
        EXPECT_EQ(fileDigest(remote(name)), fileDigest(local(name)));

        std::string back = local(name + ".back");
        ASSERT_TRUE(download(remote(name), back)) << lastErrorText(scp);
        EXPECT_EQ(fileDigest(back), fileDigest(local(name)));
        struct stat st;
        ASSERT_EQ(::stat(back.c_str(), &st), 0);
        EXPECT_EQ(static_cast<size_t>(st.st_size), size);
        ::unlink(remote(name).c_str());
        ::unlink(local(name).c_str());
        ::unlink(back.c_str());
    }
}

TEST_F(ScpSingle, RemotePathForms) {
    ASSERT_TRUE(writeWholeFile(local("src.txt"), "path forms"));
    ::mkdir(remote("my dir").c_str(), 0755);

    // A name with blanks in a directory with blanks; the caller's path keeps the directory.
    XString l(local("src.txt").c_str()), r(remote("my dir/a b.txt").c_str());
    ASSERT_TRUE(scp.UploadFile(l, r)) << lastErrorText(scp);
    EXPECT_EQ(std::string(r.getUtf8()), remote("my dir/"));
    EXPECT_EQ(readWholeFile(remote("my dir/a b.txt")), "path forms");
    ASSERT_TRUE(download(remote("my dir/a b.txt"), local("c d.txt"))) << lastErrorText(scp);
    EXPECT_EQ(readWholeFile(local("c d.txt")), "path forms");

    // A bare name lands in the login directory.
    std::string bare = "scpkit-bare-" + std::to_string(::getpid()) + ".txt";
    EXPECT_TRUE(upload(local("src.txt"), bare)) << lastErrorText(scp);
    EXPECT_EQ(readWholeFile(homeDir() + "/" + bare), "path forms");
    ::unlink((homeDir() + "/" + bare).c_str());

    // A path ending in '/' sends an empty name, which the remote refuses.
    EXPECT_FALSE(upload(local("src.txt"), remoteDir() + "/"));
    EXPECT_TRUE(contains(lastErrorText(scp), "scpError:")) << lastErrorText(scp);
}

TEST_F(ScpSingle, FilenameOnlyGivesTheRemoteJustTheName) {
    ASSERT_TRUE(writeWholeFile(local("src.txt"), "only the name"));
    XString options("FilenameOnly");
    scp.put_UncommonOptions(options);
    std::string name = "scpkit-fnonly-" + std::to_string(::getpid()) + ".txt";
    // The directory part is not used: the file lands in the login directory.
    EXPECT_TRUE(upload(local("src.txt"), remote(name))) << lastErrorText(scp);
    EXPECT_FALSE(pathExists(remote(name)));
    EXPECT_EQ(readWholeFile(homeDir() + "/" + name), "only the name");
    ::unlink((homeDir() + "/" + name).c_str());
}

TEST_F(ScpSingle, UploadedModes) {
    struct Row {
        unsigned localMode;
        const char* override;
        unsigned remoteMode;
    };
    const Row rows[] = {
        {0755, "", 0755},
        {0644, "0600", 0600},
        {0755, " 600 ", 0600},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.override);
        ASSERT_TRUE(writeWholeFile(local("m"), "mode"));
        ASSERT_EQ(::chmod(local("m").c_str(), row.localMode), 0);
        XString o(row.override);
        scp.put_UnixPermOverride(o);
        ::unlink(remote("m").c_str());
        ASSERT_TRUE(upload(local("m"), remote("m"))) << lastErrorText(scp);
        EXPECT_EQ(fileMode(remote("m")), row.remoteMode);
    }
}

TEST_F(ScpSingle, DownloadAppliesRemoteModeAndTime) {
    ASSERT_TRUE(writeWholeFile(remote("r.bin"), "remote"));
    ASSERT_EQ(::chmod(remote("r.bin").c_str(), 0600), 0);
    struct utimbuf t = {1300000500, 1300000000};
    ASSERT_EQ(::utime(remote("r.bin").c_str(), &t), 0);
    XString o("0777");  // plays no part in downloads
    scp.put_UnixPermOverride(o);
    ASSERT_TRUE(download(remote("r.bin"), local("r.bin"))) << lastErrorText(scp);
    EXPECT_EQ(fileMode(local("r.bin")), 0600u);
    EXPECT_EQ(fileMtime(local("r.bin")), 1300000000);
}

TEST_F(ScpSingle, FailedDownloads) {
    EXPECT_FALSE(download(remote("missing"), local("missing")));
    std::string log = lastErrorText(scp);
    EXPECT_TRUE(
        contains(log, "errorResponse: scp: " + remote("missing") + ": No such file or directory"))
        << log;
    EXPECT_FALSE(pathExists(local("missing")));

    EXPECT_FALSE(download(remoteDir(), local("a-directory")));
    EXPECT_FALSE(pathExists(local("a-directory")));

    ASSERT_TRUE(writeWholeFile(remote("exists"), "x"));
    EXPECT_FALSE(download(remote("exists"), localDir() + "/no/such/dir/file"));
    EXPECT_TRUE(contains(lastErrorText(scp), "Failed.")) << lastErrorText(scp);
}

TEST_F(ScpSingle, TextInCharsetsBothWays) {
    struct Row {
        const char* charset;
        std::string bytes;  // "Grüße €" would not fit iso-8859-1, so: "Grüße"
    };
    const Row rows[] = {
        {"utf-8",
         "Gr\xc3\xbc\xc3\x9f"
         "e"},
        {"iso-8859-1",
         "Gr\xfc\xdf"
         "e"},
        {"utf-16le", std::string("G\0r\0\xfc\0\xdf\0e\0", 10)},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.charset);
        XString r(remote("t.txt").c_str()), text("Grüße"), cs(row.charset);
        ASSERT_TRUE(scp.UploadString(r, text, cs)) << lastErrorText(scp);
        EXPECT_EQ(readWholeFile(remote("t.txt")), row.bytes);

        XString rp(remote("t.txt").c_str()), out;
        ASSERT_TRUE(scp.DownloadString(rp, cs, out)) << lastErrorText(scp);
        EXPECT_STREQ(out.getUtf8(), "Grüße");
    }
    // Bytes that are not UTF-8 do not decode as UTF-8.
    ASSERT_TRUE(writeWholeFile(remote("bad.txt"), "\xff\xfe\xfd"));
    XString rp(remote("bad.txt").c_str()), cs("utf-8"), out;
    EXPECT_FALSE(scp.DownloadString(rp, cs, out));
    EXPECT_TRUE(contains(lastErrorText(scp),
                         "Failed to convert received bytes from the indicated charset."));
}

TEST_F(ScpSingle, EncodedBytesBothWays) {
    const std::string bytes("\x00\x01\x02\xff", 4);
    struct Row {
        const char* encoding;
        const char* text;
    };
    const Row rows[] = {{"base64", "AAEC/w=="}, {"hex", "000102FF"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.encoding);
        XString r(remote("e.bin").c_str()), text(row.text), enc(row.encoding);
        ASSERT_TRUE(scp.UploadBinaryEncoded(r, text, enc)) << lastErrorText(scp);
        EXPECT_EQ(readWholeFile(remote("e.bin")), bytes);

        XString rp(remote("e.bin").c_str()), out;
        ASSERT_TRUE(scp.DownloadBinaryEncoded(rp, enc, out)) << lastErrorText(scp);
        EXPECT_STREQ(out.getUtf8(), row.text);
    }
}

TEST_F(ScpSingle, BytesAndBinDataBothWays) {
    DataBuffer up;
    up.append("\x00raw\xff", 5);
    XString r(remote("raw.bin").c_str());
    ASSERT_TRUE(scp.UploadBinary(r, up)) << lastErrorText(scp);
    EXPECT_EQ(readWholeFile(remote("raw.bin")), std::string("\x00raw\xff", 5));

    ClsBinData bd;
    bd.getDataBuffer().appendStr("bd-data");
    XString r2(remote("bd.bin").c_str());
    ASSERT_TRUE(scp.UploadBd(r2, bd)) << lastErrorText(scp);
    EXPECT_EQ(readWholeFile(remote("bd.bin")), "bd-data");

    // DownloadBinary replaces what the buffer held; DownloadBd appends.
    DataBuffer down;
    down.appendStr("previous");
    XString rp(remote("raw.bin").c_str());
    ASSERT_TRUE(scp.DownloadBinary(rp, down)) << lastErrorText(scp);
    EXPECT_TRUE(down.equals("\x00raw\xff", 5));

    ClsBinData into;
    into.getDataBuffer().appendStr("previous|");
    XString rp2(remote("bd.bin").c_str());
    ASSERT_TRUE(scp.DownloadBd(rp2, into)) << lastErrorText(scp);
    EXPECT_TRUE(into.getDataBuffer().equals("previous|bd-data", 16));

    // An empty remote file is a valid, empty download.
    ASSERT_TRUE(writeWholeFile(remote("empty"), ""));
    XString re(remote("empty").c_str()), enc("hex"), encoded("x");
    ASSERT_TRUE(scp.DownloadBinaryEncoded(re, enc, encoded)) << lastErrorText(scp);
    EXPECT_STREQ(encoded.getUtf8(), "");
}

TEST_F(ScpSingle, AbortFromProgressStopsLargeTransfers) {
    const size_t size = 100 * 1024 * 1024;
    ASSERT_TRUE(writeRandomFile(local("big"), size, 7));

    AbortAt upAbort(10);
    XString l(local("big").c_str()), r(remote("big").c_str());
    EXPECT_FALSE(scp.UploadFile(l, r, &upAbort));
    EXPECT_GE(upAbort.abortedAt(), 10);
    EXPECT_LT(upAbort.abortedAt(), 100);

    ASSERT_TRUE(writeRandomFile(remote("big2"), size, 8));
    AbortAt downAbort(10);
    XString r2(remote("big2").c_str()), l2(local("big2").c_str());
    EXPECT_FALSE(scp.DownloadFile(r2, l2, &downAbort));
    EXPECT_GE(downAbort.abortedAt(), 10);
    EXPECT_LT(downAbort.abortedAt(), 100);
    EXPECT_FALSE(pathExists(local("big2")));

    // The connection still serves the next transfer.
    ASSERT_TRUE(writeWholeFile(local("after"), "still usable"));
    EXPECT_TRUE(upload(local("after"), remote("after"))) << lastErrorText(scp);
}

}  // namespace
}  // namespace scpkit
