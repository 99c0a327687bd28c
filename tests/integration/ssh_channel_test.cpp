// ClsSsh's channels against a real sshd: the two output streams, EOF and
// CLOSE, the server's session limit, and stall timeouts.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include <scpkit/base/Output.h>
#include <scpkit/scp/ClsScp.h>
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

// Aborts at the first percent.
struct AbortAtOnce : ProgressEvent {
    void OnPercent(int, bool& abort) override { abort = true; }
};

// With two sessions allowed: channels whose server closed them free their
// sessions without being finished; a channel that waits on a silent server
// in one thread keeps its session while another thread's aborted transfers
// need theirs back, one after the other.
TEST(SshChannel, SessionLimitTakesBackOnlyFinishedChannels) {
    REQUIRE_SSHD(shared);
    SshdOptions options;
    options.extraConfig = "MaxSessions 2";
    SshdFixture sshd(options);
    ClsSsh ssh;
    ASSERT_TRUE(sshd.connectAndLogin(ssh)) << sshd.error() << lastErrorText(ssh);
    for (int i = 0; i < 4; ++i)  // none sends CLOSE first, like a download
        EXPECT_EQ(execOutput(ssh, "printf " + std::to_string(i)), std::to_string(i));

    const std::string big = sshd.makeScratchDir("limit") + "/big";
    writeFile(big, std::string(4 << 20, 'b'));
    _vqLogger log;
    SocketParams sp(nullptr);
    XString wait("read -r line; printf 'got:%s' \"$line\"");
    const int waiting = ssh.openSessionChannel(sp, log);
    ASSERT_TRUE(waiting >= 0 && ssh.sendReqExec(waiting, wait, sp, log)) << renderedLog(log);
    std::string waited;
    std::thread waiter([&] { waited = execOutput(ssh, "", waiting); });
    ClsScp scp;
    scp.UseSsh(ssh);
    for (int i = 0; i < 4; ++i) {
        AbortAtOnce abort;
        DataBuffer partial;
        XString remote(big.c_str());
        EXPECT_FALSE(scp.DownloadBinary(remote, partial, &abort));
        expectLog(lastErrorText(scp), {"aborted by the application"});
    }
    DataBuffer whole;
    XString remote(big.c_str());
    EXPECT_TRUE(scp.DownloadBinary(remote, whole, nullptr)) << lastErrorText(scp);
    EXPECT_EQ(whole.getSize(), 4u << 20);
    DataBuffer go;
    go.appendStr("go\n");
    EXPECT_TRUE(ssh.channelSendData(waiting, go, sp, log)) << renderedLog(log);
    waiter.join();
    EXPECT_EQ(waited, "got:go");
}

// AddressSanitizer keeps freed memory resident: no memory bound holds under it.
#if defined(__SANITIZE_ADDRESS__)
#define SCPKIT_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SCPKIT_ASAN 1
#endif
#endif
#ifdef SCPKIT_ASAN
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif

long residentKb() {
    std::ifstream status("/proc/self/status");
    std::string key;
    long kb = 0;
    while (status >> key && key != "VmRSS:") status.ignore(1 << 10, '\n');
    status >> kb;
    return kb;
}

// A reader slower than the network: what waits for it stays bounded (the
// rest waits at the server), and every byte arrives.
TEST(SshChannel, SlowReaderHoldsBoundedMemory) {
    REQUIRE_SSHD(sshd);
    ClsSsh ssh;
    ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastErrorText(ssh);
    struct SlowOutput : _vqOutput {
        long long received = 0;
        long peakKb = 0;
        void resetOutput(LogBase&) override {}
        bool writeImpl(const unsigned char*, size_t n, LogBase&) override {
            received += static_cast<long long>(n);
            std::this_thread::sleep_for(std::chrono::microseconds(n / 32));
            peakKb = std::max(peakKb, residentKb());
            return true;
        }
    } out;
    _vqLogger log;
    SocketParams sp(nullptr);
    XString cmd("head -c 100000000 /dev/zero");
    const int ch = ssh.openSessionChannel(sp, log);
    const long before = residentKb();
    ASSERT_TRUE(ch >= 0 && ssh.sendReqExec(ch, cmd, sp, log) &&
                ssh.channelReadNToOutput(ch, 100000000, out, sp, log))
        << renderedLog(log);
    EXPECT_EQ(out.received, 100000000);
    if (!kUnderAddressSanitizer) {
        EXPECT_LT(out.peakKb - before, 16 * 1024);
    }
}

// Reads, window-bound writes and waits for CLOSE on a command that neither
// reads nor writes give up after the stall timeout (the object's, or the
// wait's own), leaving the connection usable.
TEST(SshChannel, StalledPeerFailsWithinTheStallTimeout) {
    REQUIRE_SSHD(sshd);
    // libssh's own waits are bounded by the connect timeout: beyond the command's 30 s.
    ClsSsh ssh;
    ASSERT_TRUE(sshd.connectAndLogin(ssh, 120000)) << lastErrorText(ssh);
    DataBuffer big;  // far beyond the peer's window
    big.append(std::string(16 << 20, 'x').data(), 16 << 20);
    for (int op = 0; op < 3; ++op) {  // read, write, wait for CLOSE
        _vqLogger log;
        SocketParams sp(nullptr);
        SshReadParams rp;
        rp.idleTimeoutMs = op == 2 ? 400 : -1;
        ssh.put_StallTimeoutMs(op == 2 ? 0 : 500);  // 0: no limit of the object's own
        XString cmd("exec sleep 30");
        const int ch = ssh.openSessionChannel(sp, log);
        ASSERT_TRUE(ch >= 0 && ssh.sendReqExec(ch, cmd, sp, log)) << renderedLog(log);
        EXPECT_FALSE(op == 0   ? ssh.channelRead(ch, sp, log) >= 0
                     : op == 1 ? ssh.channelSendData(ch, big, sp, log)
                               : ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log));
        expectLog(renderedLog(log), {"within the stall timeout.",
                                     op == 2 ? "stallTimeoutMs: 400" : "stallTimeoutMs: 500"});
        EXPECT_FALSE(ssh.channelReceivedEof(ch, log));  // given up, not ended by the command
        ssh.channelFinished(ch);
        EXPECT_TRUE(ssh.get_IsConnected());
    }
}

}  // namespace
}  // namespace scpkit::test
