// ClsSsh's channel operations against a real sshd: the two output streams,
// EOF and CLOSE, environment requests, more channels than the server allows
// sessions, and stall timeouts on reads and window-bounded writes.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "tests/integration/ssh_test_util.h"

namespace scpkit::test {
namespace {

TEST(SshChannel, ExecKeepsTheErrorStreamApartAndReportsEofAndClose) {
    REQUIRE_SSHD(sshd);
    ClsSsh ssh;
    ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh);
    _vqLogger log;
    SocketParams sp(nullptr);
    SshReadParams rp;
    // The command waits for a line from us, so nothing can have arrived early.
    XString cmd("read -r line; printf 'out:%s' \"$line\"; printf 'err:%s' \"$line\" >&2");
    const int ch = ssh.openSessionChannel(sp, log);
    ASSERT_TRUE(ch >= 0 && ssh.sendReqExec(ch, cmd, sp, log)) << renderedLog(log);
    EXPECT_FALSE(ssh.channelReceivedEof(ch, log) || ssh.channelReceivedClose(ch, log));
    DataBuffer line, out;
    line.appendStr("hello\n");
    ASSERT_TRUE(ssh.channelSendData(ch, line, sp, log) &&
                ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log))
        << renderedLog(log);
    ssh.getReceivedData(ch, out, log);
    EXPECT_EQ(text(out), "out:hello");
    XString err;
    ssh.getReceivedStderrText(ch, "utf-8", err, log);
    EXPECT_STREQ(err.getUtf8(), "err:hello");
    EXPECT_TRUE(ssh.channelReceivedEof(ch, log) && sp.m_receivedEof);
    EXPECT_TRUE(ssh.channelReceivedClose(ch, log) && sp.m_receivedClose);
}

TEST(SshChannel, MoreChannelsInTurnThanTheServerAllowsSessions) {
    REQUIRE_SSHD(shared);
    pid_t pid = -1;
    std::string dir;
    {
        SshdOptions options;
        options.extraConfig = "MaxSessions 2";
        SshdFixture sshd(options);
        ASSERT_TRUE(sshd.ok()) << sshd.error();
        pid = sshd.pid();
        dir = sshd.tempDir();
        ClsSsh ssh;
        ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh);
        // Like a download, none of these channels sends CLOSE first: the
        // server's CLOSE must be answered, or its sessions run out.
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(execOutput(ssh, "printf " + std::to_string(i)), std::to_string(i));
    }
    // The fixture stops its server by PID and leaves nothing behind.
    EXPECT_NE(kill(pid, 0), 0);
    EXPECT_FALSE(pathExists(dir));
}

TEST(SshChannel, EnvironmentRequestsAcceptedAndRefused) {
    REQUIRE_SSHD(sshd);
    ClsSsh ssh;
    ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh);
    _vqLogger log;
    SocketParams sp(nullptr);
    const int ch = ssh.openSessionChannel(sp, log);
    ASSERT_GE(ch, 0) << renderedLog(log);
    const struct {
        const char *name, *value;
        bool accepted;  // the fixture's sshd accepts LANG and LC_*
    } cases[] = {{"LANG", "C.UTF-8", true}, {"LC_ALL", "C", true}, {"SCPKIT_NOPE", "1", false}};
    for (const auto& c : cases) {
        XString name(c.name), value(c.value);
        EXPECT_EQ(ssh.sendReqSetEnv(ch, name, value, sp, log), c.accepted) << c.name;
    }
    // A refusal leaves the channel usable, and the accepted ones arrived.
    EXPECT_EQ(
        execOutput(ssh, "printf '%s|%s|%s' \"$LANG\" \"$LC_ALL\" \"${SCPKIT_NOPE-unset}\"", ch),
        "C.UTF-8|C|unset");
}

TEST(SshChannel, StalledPeerFailsWithinTheStallTimeout) {
    REQUIRE_SSHD(sshd);
    // A connect timeout (which bounds libssh's own waits) beyond the
    // command's 30 s: only the stall timeout can end the waits below early.
    ClsSsh ssh;
    ASSERT_TRUE(sshd.connectAndLogin(ssh, 120000)) << lastErrorText(ssh);
    ssh.put_StallTimeoutMs(500);
    DataBuffer big;  // far beyond the peer's window
    const std::string bytes(16 << 20, 'x');
    big.append(bytes.data(), bytes.size());
    for (int op = 0; op < 3; ++op) {  // read, write, wait for CLOSE
        _vqLogger log;
        SocketParams sp(nullptr);
        SshReadParams rp;
        XString cmd("exec sleep 30");  // neither reads its input nor writes anything
        const int ch = ssh.openSessionChannel(sp, log);
        ASSERT_TRUE(ch >= 0 && ssh.sendReqExec(ch, cmd, sp, log)) << renderedLog(log);
        EXPECT_FALSE(op == 0   ? ssh.channelRead(ch, sp, log) >= 0
                     : op == 1 ? ssh.channelSendData(ch, big, sp, log)
                               : ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log))
            << op;
        // Given up by itself, not ended by the command's end: still no EOF.
        EXPECT_LT(ssh.channelRead(ch, sp, log), 0);
        EXPECT_TRUE(ssh.get_IsConnected());
    }
}

}  // namespace
}  // namespace scpkit::test
