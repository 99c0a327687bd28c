// Round trips against the real OpenSSH scp binary run as a local process
// ("scp -t" and "scp -pf" on pipes): bytes, times and modes as the real
// peer writes and reads them, without a server.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <memory>
#include <random>
#include <string>

#include "base/ClsBinData.h"
#include "base/DataBuffer.h"
#include "scp/ClsScp.h"
#include "ssh/ClsSsh.h"
#include "tests/support/ProcessTransport.h"
#include "tests/support/ScpTestHelpers.h"

namespace scpkit {
namespace {

using test::lastErrorText;

struct LocalRig {
    std::shared_ptr<test::ProcessTransport> transport;
    ClsSsh ssh;
    ClsScp scp;

    explicit LocalRig(const std::string& workDir)
        : transport(std::make_shared<test::ProcessTransport>(workDir)) {
        ssh.useTransport(transport);
        ssh.put_StallTimeoutMs(10000);
        scp.UseSsh(ssh);
    }
};

std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(gen() & 0xff);
    return s;
}

class LocalScp : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::access("/usr/bin/scp", X_OK) != 0) GTEST_SKIP() << "no local scp binary";
    }
    test::ScratchDir dir{"scpkit-local"};
};

TEST_F(LocalScp, FilesRoundTripWithTimesAndMode) {
    struct Row {
        const char* name;
        size_t size;
        unsigned mode;
    };
    const Row rows[] = {
        {"empty", 0, 0600},
        {"one byte", 1, 0644},
        {"name with blanks.bin", 3 * 1024 * 1024 + 17, 0750},  // several channel chunks
    };
    ::mkdir(dir.file("remote").c_str(), 0755);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::string content = randomBytes(row.size, static_cast<unsigned>(row.size));
        std::string source = dir.file("source");
        ASSERT_TRUE(test::writeWholeFile(source, content));
        ASSERT_EQ(::chmod(source.c_str(), row.mode), 0);
        struct utimbuf times = {1500000100, 1500000000};
        ASSERT_EQ(::utime(source.c_str(), &times), 0);

        LocalRig rig(dir.path());
        XString local(source.c_str());
        XString remote((dir.file("remote") + "/" + row.name).c_str());
        ASSERT_TRUE(rig.scp.UploadFile(local, remote)) << lastErrorText(rig.scp);
        std::string uploaded = dir.file("remote") + "/" + row.name;
        EXPECT_EQ(test::readWholeFile(uploaded), content);
        EXPECT_EQ(test::fileMtime(uploaded), 1500000000);  // the T line is honoured

        // Give the remote copy its own time and mode to see them come back.
        struct utimbuf remoteTimes = {1400000100, 1400000000};
        ASSERT_EQ(::utime(uploaded.c_str(), &remoteTimes), 0);
        ASSERT_EQ(::chmod(uploaded.c_str(), row.mode), 0);
        std::string back = dir.file("back");
        XString remotePath(uploaded.c_str()), localBack(back.c_str());
        ASSERT_TRUE(rig.scp.DownloadFile(remotePath, localBack)) << lastErrorText(rig.scp);
        EXPECT_EQ(test::readWholeFile(back), content);
        EXPECT_EQ(test::fileMtime(back), 1400000000);
        EXPECT_EQ(test::fileMode(back), row.mode);
        ::unlink(back.c_str());
    }
}

TEST_F(LocalScp, MemoryRoundTrips) {
    LocalRig rig(dir.path());
    std::string all;
    for (int i = 0; i < 4 * 256; ++i) all.push_back(static_cast<char>(i & 0xff));

    DataBuffer up;
    up.append(all.data(), all.size());
    XString remote("bytes.bin");
    ASSERT_TRUE(rig.scp.UploadBinary(remote, up)) << lastErrorText(rig.scp);
    EXPECT_STREQ(remote.getUtf8(), ".");
    EXPECT_EQ(test::readWholeFile(dir.file("bytes.bin")), all);
    mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(test::fileMode(dir.file("bytes.bin")), 0644u & ~static_cast<unsigned>(mask));

    XString remotePath(dir.file("bytes.bin").c_str());
    DataBuffer down;
    ASSERT_TRUE(rig.scp.DownloadBinary(remotePath, down)) << lastErrorText(rig.scp);
    EXPECT_TRUE(down.equals(all.data(), all.size()));

    XString text("Grüße, 世界"), charset("utf-16le"), textRemote("text.txt");
    ASSERT_TRUE(rig.scp.UploadString(textRemote, text, charset)) << lastErrorText(rig.scp);
    EXPECT_EQ(test::readWholeFile(dir.file("text.txt")).size(), 2u * 9);
    XString textPath(dir.file("text.txt").c_str()), textBack;
    ASSERT_TRUE(rig.scp.DownloadString(textPath, charset, textBack)) << lastErrorText(rig.scp);
    EXPECT_STREQ(textBack.getUtf8(), "Grüße, 世界");

    ClsBinData bd;
    bd.getDataBuffer().appendStr("head:");
    ASSERT_TRUE(rig.scp.DownloadBd(textPath, bd));
    EXPECT_EQ(bd.getDataBuffer().getSize(), 5u + 18u);
}

TEST_F(LocalScp, MissingSourceFileReportsTheRemoteError) {
    LocalRig rig(dir.path());
    std::string local = dir.file("never.bin");
    XString remote(dir.file("does-not-exist").c_str()), localPath(local.c_str());
    EXPECT_FALSE(rig.scp.DownloadFile(remote, localPath));
    EXPECT_FALSE(test::pathExists(local));
    std::string log = lastErrorText(rig.scp);
    EXPECT_NE(log.find("errorResponse: scp: " + dir.file("does-not-exist") +
                       ": No such file or directory"),
              std::string::npos)
        << log;
}

}  // namespace
}  // namespace scpkit
