// The throwaway sshd itself: the caller's configuration lines take effect
// (even over the fixture's own defaults), and destruction leaves nothing.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/DataBuffer.h"
#include "base/Logger.h"
#include "base/Progress.h"
#include "ssh/ClsSsh.h"
#include "tests/integration/ssh_test_util.h"
#include "tests/support/SshdFixture.h"

namespace scpkit::test {
namespace {

std::string execOutput(ClsSsh& ssh, const char* command) {
    _vqLogger log;
    SocketParams sp(nullptr);
    int ch = ssh.openSessionChannel(sp, log);
    XString cmd(command);
    SshReadParams rp;
    if (ch < 0 || !ssh.sendReqExec(ch, cmd, sp, log) ||
        !ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log))
        return "<failed> " + rendered(log);
    DataBuffer out;
    ssh.getReceivedData(ch, out, log);
    return std::string(reinterpret_cast<const char*>(out.getData2()), out.getSize());
}

TEST(SshdFixture, OwnConfigLinesApplyAndDestructionLeavesNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "the test sshd needs root";
    pid_t pid = -1;
    std::string dir;
    int port = 0;
    {
        SshdOptions options;
        options.withPasswordUser = true;
        // The first overrides one of the fixture's defaults.
        options.extraConfig = "PasswordAuthentication no\nForceCommand printf forced";
        SshdFixture sshd(options);
        ASSERT_TRUE(sshd.ok()) << sshd.error();
        pid = sshd.pid();
        dir = sshd.tempDir();
        port = sshd.port();
        EXPECT_EQ(readWholeFile(sshd.knownHostsPath())
                      .rfind("[127.0.0.1]:" + std::to_string(port) + " ssh-ed25519 ", 0),
                  0u);
        EXPECT_EQ(sshd.hostKeyFingerprint().rfind("SHA256:", 0), 0u);

        ClsSsh ssh;
        ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh);
        EXPECT_EQ(execOutput(ssh, "id -un"), "forced");

        if (!sshd.passwordUser().empty()) {
            ClsSsh pw;
            XString kh(sshd.knownHostsPath().c_str());
            pw.put_KnownHostsPath(kh);
            XString host(sshd.host().c_str());
            ASSERT_TRUE(pw.Connect(host, port)) << lastErrorText(pw);
            XString user(sshd.passwordUser().c_str());
            XString password(sshd.password().c_str());
            EXPECT_FALSE(pw.LoginWithPassword(user, password));
        }
        std::string scratch = sshd.makeScratchDir("x");
        EXPECT_TRUE(std::filesystem::is_directory(scratch));
        EXPECT_NE(scratch, sshd.makeScratchDir("x"));  // fresh each time
    }
    EXPECT_GT(pid, 0);
    EXPECT_NE(kill(pid, 0), 0);  // stopped and reaped
    EXPECT_FALSE(std::filesystem::exists(dir));
    ClsSsh ssh;
    ssh.put_ConnectTimeoutMs(2000);
    XString host("127.0.0.1");
    EXPECT_FALSE(ssh.Connect(host, port));
}

}  // namespace
}  // namespace scpkit::test
