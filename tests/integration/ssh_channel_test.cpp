// ClsSsh's channel operations against a real sshd: exec, the two output
// streams, EOF and CLOSE, environment requests, bulk data both ways, stall
// timeouts and the application's abort.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "base/DataBuffer.h"
#include "base/DataSource.h"
#include "base/Logger.h"
#include "base/Output.h"
#include "base/Progress.h"
#include "ssh/ClsSsh.h"
#include "tests/integration/ssh_test_util.h"
#include "tests/support/SshdFixture.h"

namespace scpkit::test {
namespace {

#define REQUIRE_SESSION(sshd, ssh)                                    \
    SshdFixture& sshd = SshdFixture::shared();                        \
    if (!sshd.ok()) GTEST_SKIP() << "no test sshd: " << sshd.error(); \
    ClsSsh ssh;                                                       \
    ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh)

unsigned char patternByte(size_t i) {
    return static_cast<unsigned char>((i * 7 + i / 251) & 0xff);
}

std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(patternByte(i));
    return s;
}

// Produces the pattern without holding it, in whatever chunk size is asked.
class PatternSource : public _vqDataSource {
  public:
    explicit PatternSource(size_t total) : m_total(total) {}
    bool readSourceChunk(unsigned char* buf, size_t maxBytes, size_t& numRead, LogBase&) override {
        numRead = std::min(maxBytes, m_total - m_pos);
        for (size_t i = 0; i < numRead; ++i) buf[i] = patternByte(m_pos + i);
        m_pos += numRead;
        return true;
    }
    size_t consumed() const { return m_pos; }

  private:
    size_t m_total;
    size_t m_pos = 0;
};

class CountingOutput : public _vqOutput {
  public:
    void resetOutput(LogBase&) override { count = 0; }
    size_t count = 0;

  protected:
    bool writeImpl(const unsigned char*, size_t numBytes, LogBase&) override {
        count += numBytes;
        return true;
    }
};

class AbortAtPercent : public ProgressEvent {
  public:
    explicit AbortAtPercent(int percent) : m_percent(percent) {}
    void OnPercent(int percent, bool& abort) override {
        if (percent >= m_percent) abort = true;
    }

  private:
    int m_percent;
};

std::string text(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

// Opens a channel and runs a command on it; the channel, or -1.
int run(ClsSsh& ssh, const std::string& command, SocketParams& sp, LogBase& log) {
    int ch = ssh.openSessionChannel(sp, log);
    if (ch < 0) return -1;
    XString cmd(command.c_str());
    return ssh.sendReqExec(ch, cmd, sp, log) ? ch : -1;
}

TEST(SshChannel, ExecKeepsTheErrorStreamApartAndReportsEofAndClose) {
    REQUIRE_SESSION(sshd, ssh);
    _vqLogger log;
    SocketParams sp(nullptr);
    // The command waits for a line from us, so nothing can have arrived early.
    int ch =
        run(ssh, "read -r line; printf 'out:%s' \"$line\"; printf 'err:%s' \"$line\" >&2", sp, log);
    ASSERT_GE(ch, 0) << rendered(log);
    EXPECT_FALSE(ssh.channelReceivedEof(ch, log));
    EXPECT_FALSE(ssh.channelReceivedClose(ch, log));

    DataBuffer line;
    line.appendStr("hello\n");
    ASSERT_TRUE(ssh.channelSendData(static_cast<unsigned>(ch), line, sp, log)) << rendered(log);
    SshReadParams rp;
    ASSERT_TRUE(ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log)) << rendered(log);

    DataBuffer out;
    ssh.getReceivedData(ch, out, log);
    EXPECT_EQ(text(out), "out:hello");
    XString err;
    ssh.getReceivedStderrText(ch, "utf-8", err, log);
    EXPECT_STREQ(err.getUtf8(), "err:hello");
    EXPECT_TRUE(ssh.channelReceivedEof(ch, log));
    EXPECT_TRUE(ssh.channelReceivedClose(ch, log));
    EXPECT_TRUE(sp.m_receivedEof);
    EXPECT_TRUE(sp.m_receivedClose);
    EXPECT_TRUE(ssh.channelSendClose(ch, sp, log));

    _vqLogger info;
    ssh.logServerInfo(info);
    EXPECT_NE(rendered(info).find("serverBanner: SSH-2.0-OpenSSH"), std::string::npos);

    ssh.Disconnect();
    EXPECT_LT(ssh.openSessionChannel(sp, log), 0);
}

TEST(SshChannel, ManyChannelsInTurnOnOneConnection) {
    if (geteuid() != 0) GTEST_SKIP() << "the test sshd needs root";
    // A server that allows two sessions per connection. Like a download,
    // none of the channels sends CLOSE itself: the server's CLOSE must be
    // answered, or the server runs out of sessions for this connection.
    SshdOptions options;
    options.extraConfig = "MaxSessions 2";
    SshdFixture sshd(options);
    ASSERT_TRUE(sshd.ok()) << sshd.error();
    ClsSsh ssh;
    ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh);
    for (int i = 0; i < 4; ++i) {
        _vqLogger log;
        SocketParams sp(nullptr);
        int ch = run(ssh, "printf " + std::to_string(i), sp, log);
        ASSERT_GE(ch, 0) << "channel " << i << "\n" << rendered(log);
        SshReadParams rp;
        ASSERT_TRUE(ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log)) << rendered(log);
        DataBuffer out;
        ssh.getReceivedData(ch, out, log);
        EXPECT_EQ(text(out), std::to_string(i));
    }
}

TEST(SshChannel, EnvironmentRequestsAcceptedAndRefused) {
    REQUIRE_SESSION(sshd, ssh);
    _vqLogger log;
    SocketParams sp(nullptr);
    int ch = ssh.openSessionChannel(sp, log);
    ASSERT_GE(ch, 0);
    struct Case {
        const char* name;
        const char* value;
        bool accepted;  // the fixture's sshd has AcceptEnv LANG LC_*
    };
    const Case cases[] = {
        {"LANG", "C.UTF-8", true},
        {"LC_ALL", "C", true},
        {"SCPKIT_NOT_ACCEPTED", "1", false},
    };
    for (const Case& c : cases) {
        XString name(c.name);
        XString value(c.value);
        EXPECT_EQ(ssh.sendReqSetEnv(ch, name, value, sp, log), c.accepted) << c.name;
    }
    // A refusal leaves the channel usable, and the accepted ones arrived.
    XString cmd("printf '%s|%s|%s' \"$LANG\" \"$LC_ALL\" \"${SCPKIT_NOT_ACCEPTED-unset}\"");
    ASSERT_TRUE(ssh.sendReqExec(ch, cmd, sp, log)) << rendered(log);
    SshReadParams rp;
    ASSERT_TRUE(ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log)) << rendered(log);
    DataBuffer out;
    ssh.getReceivedData(ch, out, log);
    EXPECT_EQ(text(out), "C.UTF-8|C|unset");
}

TEST(SshChannel, BulkDataBothWays) {
    REQUIRE_SESSION(sshd, ssh);
    std::string dir = sshd.makeScratchDir("bulk");
    // Several times the peer's window, and not a multiple of any chunk size.
    const size_t n = 5 * 1024 * 1024 + 123;
    const std::string expected = pattern(n);
    _vqLogger log;
    SocketParams sp(nullptr);

    int up =
        run(ssh, "head -c " + std::to_string(n) + " > " + dir + "/up && printf stored", sp, log);
    ASSERT_GE(up, 0) << rendered(log);
    PatternSource source(n);
    ASSERT_TRUE(ssh.channelSendNFromSource(up, source, static_cast<long long>(n), sp, log))
        << rendered(log);
    SshReadParams rp;
    ASSERT_TRUE(ssh.channelReceiveUntilCondition(up, 1, rp, sp, log)) << rendered(log);
    DataBuffer reply;
    ssh.getReceivedData(up, reply, log);
    EXPECT_EQ(text(reply), "stored");
    EXPECT_TRUE(readWholeFile(dir + "/up") == expected) << "uploaded bytes differ";

    writeWholeFile(dir + "/down", expected + "tail");
    int down = run(ssh, "cat " + dir + "/down", sp, log);
    ASSERT_GE(down, 0) << rendered(log);
    DataBuffer got;
    OutputDataBuffer output(&got);
    ASSERT_TRUE(ssh.channelReadNToOutput(down, static_cast<long long>(n), output, sp, log))
        << rendered(log);
    EXPECT_TRUE(text(got) == expected) << "downloaded bytes differ";
    // Exactly n were taken: what follows is still there, and no more than that.
    DataBuffer rest;
    OutputDataBuffer restOut(&rest);
    EXPECT_FALSE(ssh.channelReadNToOutput(down, 5, restOut, sp, log));
    EXPECT_EQ(text(rest), "tail");
    EXPECT_TRUE(ssh.channelReceivedEof(down, log));
}

TEST(SshChannel, StalledPeerFailsWithinTheStallTimeout) {
    SshdFixture& sshd = SshdFixture::shared();
    if (!sshd.ok()) GTEST_SKIP() << "no test sshd: " << sshd.error();
    // libssh's own waits are bounded by the connect timeout: make it long, so
    // that only the stall timeout can end the waits below early.
    ClsSsh ssh;
    XString knownHosts(sshd.knownHostsPath().c_str());
    ssh.put_KnownHostsPath(knownHosts);
    ssh.put_ConnectTimeoutMs(120000);
    XString host(sshd.host().c_str());
    XString user(sshd.user().c_str());
    XString key(sshd.clientKeyPath().c_str());
    XString noPassphrase;
    ASSERT_TRUE(ssh.Connect(host, sshd.port()) && ssh.LoginWithKeyFile(user, key, noPassphrase))
        << lastErrorText(ssh);
    ssh.put_StallTimeoutMs(500);
    enum Op { Read, ReadN, Send, WaitClose };
    for (Op op : {Read, ReadN, Send, WaitClose}) {
        SCOPED_TRACE(op);
        _vqLogger log;
        SocketParams sp(nullptr);
        // Neither reads its input nor writes anything.
        int ch = run(ssh, "exec sleep 30", sp, log);
        ASSERT_GE(ch, 0) << rendered(log);
        CountingOutput sink;
        PatternSource source(64 * 1024 * 1024);  // far beyond the peer's window
        SshReadParams rp;
        switch (op) {
            case Read:
                EXPECT_LT(ssh.channelRead(ch, sp, log), 0);
                break;
            case ReadN:
                EXPECT_FALSE(ssh.channelReadNToOutput(ch, 10, sink, sp, log));
                break;
            case Send:
                EXPECT_FALSE(ssh.channelSendNFromSource(ch, source, 64 * 1024 * 1024, sp, log));
                EXPECT_LT(source.consumed(), 64u * 1024 * 1024);
                // The peer is still there (no EOF yet): the write gave up by
                // itself instead of blocking until the command ended.
                EXPECT_LT(ssh.channelRead(ch, sp, log), 0);
                break;
            case WaitClose:
                EXPECT_FALSE(ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log));
                break;
        }
        EXPECT_FALSE(sp.m_receivedEof);
        EXPECT_TRUE(ssh.get_IsConnected());  // the connection itself is fine
    }
}

TEST(SshChannel, ApplicationAbortStopsBulkTransfers) {
    REQUIRE_SESSION(sshd, ssh);
    const long long total = 256LL * 1024 * 1024;
    for (bool upload : {true, false}) {
        SCOPED_TRACE(upload ? "upload" : "download");
        AbortAtPercent abortAt(5);
        ProgressMonitorPtr pm(&abortAt, 0, 100, total);
        SocketParams sp(pm.getPm());
        _vqLogger log;
        int ch =
            run(ssh, upload ? "cat > /dev/null" : "head -c " + std::to_string(total) + " /dev/zero",
                sp, log);
        ASSERT_GE(ch, 0) << rendered(log);
        if (upload) {
            PatternSource source(static_cast<size_t>(total));
            source.m_reportsProgress = true;
            EXPECT_FALSE(ssh.channelSendNFromSource(ch, source, total, sp, log));
            EXPECT_LT(static_cast<long long>(source.consumed()), total);
        } else {
            CountingOutput sink;
            sink.m_reportsProgress = true;
            EXPECT_FALSE(ssh.channelReadNToOutput(ch, total, sink, sp, log));
            EXPECT_LT(static_cast<long long>(sink.count), total);
        }
        EXPECT_NE(rendered(log).find("Operation aborted by the application."), std::string::npos)
            << rendered(log);
        ASSERT_NE(pm.getPm(), nullptr);
        EXPECT_TRUE(pm.getPm()->abortRequested());
    }
}

}  // namespace
}  // namespace scpkit::test
