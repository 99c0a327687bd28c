// One connection serves many transfers: sshd counts at most ten open
// sessions per connection, so every transfer must leave its session closed
// for the server, whether it succeeded or failed.
#include <gtest/gtest.h>

#include <string>

#include <scpkit/base/DataBuffer.h>
#include "tests/support/SshdFixture.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

// Downloads never send a CLOSE of their own: the SSH layer answers the
// server's, or the eleventh download on a connection is refused.
TEST(ConnectionReuse, ManySuccessfulTransfersInARow) {
    if (!SshdFixture::shared().ok()) GTEST_SKIP() << SshdFixture::shared().error();
    SshRig rig;
    ASSERT_TRUE(rig.connected) << lastErrorText(rig.ssh);
    ScratchDir base("reuse");
    const std::string data = randomBytes(10000, 3);
    writeFile(base.file("source.bin"), data);
    for (int i = 0; i < 14; ++i) {
        SCOPED_TRACE(i);
        XString remote(base.file("source.bin").c_str());
        DataBuffer out;
        if (i % 2 == 0) {
            ASSERT_TRUE(rig.scp.DownloadBinary(remote, out, nullptr)) << lastErrorText(rig.scp);
            EXPECT_TRUE(out.equals(data.data(), data.size()));
        } else {
            XString local((base.file("copy" + std::to_string(i))).c_str());
            ASSERT_TRUE(rig.scp.DownloadFile(remote, local, nullptr)) << lastErrorText(rig.scp);
            EXPECT_EQ(readFile(base.file("copy" + std::to_string(i))), data);
        }
        // No transfer needed the fallback that closes leftovers.
        EXPECT_EQ(lastErrorText(rig.scp).find("Closing channels left by earlier transfers."),
                  std::string::npos);
    }
}

// An aborted transfer leaves its channel open, and sshd allows ten sessions
// per connection: many aborts in a row must not use the connection up.
TEST(ConnectionReuse, ManyAbortsInARow) {
    if (!SshdFixture::shared().ok()) GTEST_SKIP() << SshdFixture::shared().error();
    SshRig rig;
    ASSERT_TRUE(rig.connected) << lastErrorText(rig.ssh);
    rig.scp.put_PollIntervalMs(1);
    ScratchDir base("abort");
    const std::string source = base.file("source.bin");
    writeFile(source, randomBytes(4 << 20, 5));
    for (int i = 0; i < 14; ++i) {
        SCOPED_TRACE(i);
        ProgressLog cue;
        cue.abortAtPercent = 1;
        XString remote(source.c_str());
        DataBuffer out;
        EXPECT_FALSE(rig.scp.DownloadBinary(remote, out, &cue));
        EXPECT_TRUE(cue.fired) << lastErrorText(rig.scp);
    }
    XString remote(source.c_str());
    DataBuffer whole;
    ASSERT_TRUE(rig.scp.DownloadBinary(remote, whole, nullptr)) << lastErrorText(rig.scp);
    EXPECT_TRUE(whole.equals(readFile(source).data(), 4 << 20));
}

}  // namespace
}  // namespace scpkit::test
