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

#include "base/DataBuffer.h"
#include "scp/ClsScp.h"
#include "ssh/ClsSsh.h"
#include "tests/support/ProcessTransport.h"
#include "tests/support/ScpTestHelpers.h"

namespace scpkit {
namespace {

using test::lastErrorText;

class LocalScp : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::access("/usr/bin/scp", X_OK) != 0) GTEST_SKIP() << "no local scp binary";
        ssh.useTransport(std::make_shared<test::ProcessTransport>(dir.path()));
        ssh.put_StallTimeoutMs(10000);
        scp.UseSsh(ssh);
    }
    test::ScratchDir dir{"scpkit-local"};
    ClsSsh ssh;
    ClsScp scp;
};

TEST_F(LocalScp, FilesRoundTripWithTimesAndMode) {
    const std::pair<size_t, unsigned> rows[] = {{0, 0600}, {1, 0644}, {3 * 1024 * 1024 + 17, 0750}};
    for (const auto& [size, mode] : rows) {
        SCOPED_TRACE(size);
        std::string content(size, '\0');
        std::mt19937 gen(static_cast<unsigned>(size));
        for (auto& c : content) c = static_cast<char>(gen());
        std::string source = dir.file("source"), uploaded = dir.file("up load"),
                    back = dir.file("back");
        ASSERT_TRUE(test::writeWholeFile(source, content));
        struct utimbuf times = {1500000100, 1500000000};
        ASSERT_EQ(::utime(source.c_str(), &times), 0);
        XString local(source.c_str()), remote(uploaded.c_str());
        ASSERT_TRUE(scp.UploadFile(local, remote)) << lastErrorText(scp);
        EXPECT_EQ(test::readWholeFile(uploaded), content);
        EXPECT_EQ(test::fileMtime(uploaded), 1500000000);  // the T line is honoured

        // The remote copy's own time and mode must come back with it.
        struct utimbuf remoteTimes = {1400000100, 1400000000};
        ASSERT_EQ(::utime(uploaded.c_str(), &remoteTimes), 0);
        ASSERT_EQ(::chmod(uploaded.c_str(), mode), 0);
        XString remotePath(uploaded.c_str()), localBack(back.c_str());
        ASSERT_TRUE(scp.DownloadFile(remotePath, localBack)) << lastErrorText(scp);
        EXPECT_EQ(test::readWholeFile(back), content);
        EXPECT_EQ(test::fileMtime(back), 1400000000);
        EXPECT_EQ(test::fileMode(back), mode);
        ::unlink(uploaded.c_str());
        ::unlink(back.c_str());
    }
}

TEST_F(LocalScp, MemoryRoundTrips) {
    std::string all;
    for (int i = 0; i < 1024; ++i) all.push_back(static_cast<char>(i));
    DataBuffer up, down;
    up.append(all.data(), all.size());
    XString remote("bytes.bin"), remotePath(dir.file("bytes.bin").c_str());
    ASSERT_TRUE(scp.UploadBinary(remote, up)) << lastErrorText(scp);
    EXPECT_EQ(test::readWholeFile(dir.file("bytes.bin")), all);
    ASSERT_TRUE(scp.DownloadBinary(remotePath, down)) << lastErrorText(scp);
    EXPECT_TRUE(down.equals(all.data(), all.size()));

    XString text("Grüße, 世界"), charset("utf-16le"), name("text.txt"), back;
    XString textPath(dir.file("text.txt").c_str());
    ASSERT_TRUE(scp.UploadString(name, text, charset)) << lastErrorText(scp);
    EXPECT_EQ(test::readWholeFile(dir.file("text.txt")).size(), 18u);
    ASSERT_TRUE(scp.DownloadString(textPath, charset, back)) << lastErrorText(scp);
    EXPECT_STREQ(back.getUtf8(), "Grüße, 世界");
}

TEST_F(LocalScp, MissingSourceFileReportsTheRemoteError) {
    XString remote(dir.file("absent").c_str()), local(dir.file("never").c_str());
    EXPECT_FALSE(scp.DownloadFile(remote, local));
    EXPECT_FALSE(test::pathExists(dir.file("never")));
    test::expectLog(lastErrorText(scp),
                    {"errorResponse: scp: " + dir.file("absent") + ": No such file or directory"});
}

}  // namespace
}  // namespace scpkit
