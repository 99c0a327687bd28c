// ClsSsh's channel operations against the scripted peer: exact-n reads,
// EOF and CLOSE as channelRead reports them, the wait for CLOSE, and aborts
// of bulk reads, sends and waits.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <scpkit/base/DataSource.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/ScriptedTransport.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

std::string pattern(size_t n, unsigned seed = 1) {
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
    return s;
}

struct Rig {
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    ClsSsh ssh;
    _vqLogger log;
    SocketParams sp{nullptr};

    explicit Rig(int stallMs = 5000) {  // a failing wait ends the test, never hangs it
        ssh.useTransport(transport);
        ssh.put_StallTimeoutMs(stallMs);
    }
    ScriptedPeer& peer(int i = 0) { return transport->peer(i); }
    int open() { return ssh.openSessionChannel(sp, log); }
    std::string readN(int ch, long long n, bool* ok = nullptr) {
        DataBuffer db;
        OutputDataBuffer out(&db);
        out.m_reportsProgress = true;
        bool r = ssh.channelReadNToOutput(ch, n, out, sp, log);
        if (ok) *ok = r;
        return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
    }
    bool send(int ch, const std::string& bytes) {
        DataBuffer db;
        db.append(bytes.data(), bytes.size());
        _vqMemoryDataSource source;
        source.takeDataBuffer(db);
        source.m_reportsProgress = true;
        return ssh.channelSendNFromSource(ch, source, (long long)bytes.size(), sp, log);
    }
    bool waitClose(int ch) {
        SshReadParams rp;
        return ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log);
    }
};

// Each read delivers exactly the bytes asked for, in order, whether they
// were buffered or still to come, and leaves the rest to the next read.
TEST(SshChannel, ReadExactlyNDeliversTheNextNBytesAndLeavesTheRest) {
    // More than a channel buffers: the peer's bytes wait at the transport.
    const std::string big = pattern(9 << 20);
    const struct {
        const char* name;
        std::string first, later;  // sent at once, and after the client's first write
        char end;                  // then 'e': EOF, 'c': CLOSE
        long long n;
        bool ok;
        std::string out, next;  // what the read delivers, what the next read must deliver
        const char* logged;
    } rows[] = {
        {"buffered and later", "ab", "cdefgh", 0, 5, true, "abcde", "fgh", ""},
        {"zero bytes", "xy", "", 0, 0, true, "", "xy", ""},
        {"beyond the buffer", big, "", 0, 5 << 20, true, big.substr(0, 5 << 20),
         big.substr(5 << 20), ""},
        {"short then EOF", "abc", "", 'e', 5, false, "abc", "", "numBytesExpected: 5"},
        {"short then CLOSE", "abc", "", 'c', 5, false, "abc", "", "numBytesReceived: 3"},
        {"negative count", "abc", "", 0, -1, false, "", "abc", "Invalid number of bytes to read."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Rig rig;
        rig.peer().send(row.first).awaitWrites(1).send(row.later);
        if (row.end) row.end == 'e' ? rig.peer().eof() : rig.peer().close();
        const int ch = rig.open();
        ASSERT_TRUE(rig.send(ch, "x"));  // releases `later`
        bool ok = false;
        EXPECT_TRUE(rig.readN(ch, row.n, &ok) == row.out);
        EXPECT_EQ(ok, row.ok);
        expectLog(renderedLog(rig.log), {row.logged});
        EXPECT_TRUE(rig.readN(ch, (long long)row.next.size(), &ok) == row.next);
    }
}

// channelRead reports data first, then EOF through SocketParams; a channel
// closed without EOF says so once and then fails, so no caller loops.
TEST(SshChannel, ChannelReadReportsDataThenEndAndWaitForCloseKeepsABoundedPart) {
    Rig rig;
    rig.peer(0).send("line one\nrest").eof().sendStderr("oops").close();
    rig.peer(1).send("x").close();
    rig.peer(2).send(pattern(12 << 20)).close();
    const int ch = rig.open();
    EXPECT_EQ(rig.ssh.channelRead(ch, rig.sp, rig.log), 13);
    EXPECT_TRUE(rig.ssh.receivedDataContainsChar(ch, '\n') && !rig.sp.m_receivedEof);
    EXPECT_FALSE(rig.ssh.channelReceivedEof(ch, rig.log));  // not before a read finds the end
    EXPECT_EQ(rig.ssh.channelRead(ch, rig.sp, rig.log), 0);
    EXPECT_TRUE(rig.sp.m_receivedEof && rig.ssh.channelReceivedEof(ch, rig.log));
    DataBuffer line;
    EXPECT_TRUE(rig.ssh.getReceivedDataThrough(ch, '\n', line, rig.log));
    EXPECT_EQ(rig.readN(ch, 4), "rest");
    ASSERT_TRUE(rig.waitClose(ch));
    XString err;
    rig.ssh.getReceivedStderrText(ch, "utf-8", err, rig.log);
    EXPECT_STREQ(err.getUtf8(), "oops");

    const int ch2 = rig.open();
    EXPECT_EQ(rig.ssh.channelRead(ch2, rig.sp, rig.log), 1);
    EXPECT_EQ(rig.ssh.channelRead(ch2, rig.sp, rig.log), 0);
    EXPECT_TRUE(rig.sp.m_receivedClose && !rig.sp.m_receivedEof);
    EXPECT_LT(rig.ssh.channelRead(ch2, rig.sp, rig.log), 0);
    EXPECT_LT(rig.ssh.channelRead(77, rig.sp, rig.log), 0);  // no such channel

    // 12 MiB while waiting for CLOSE: a part is kept, not all of it.
    const int flooded = rig.open();
    ASSERT_TRUE(rig.waitClose(flooded));
    DataBuffer kept;
    rig.ssh.getReceivedData(flooded, kept, rig.log);
    EXPECT_TRUE(kept.getSize() > 0 && kept.getSize() < (12u << 20)) << kept.getSize();
}

// Asks to abort once the given percentage, or number of polls, is reached.
class AbortingEvent : public ProgressEvent {
  public:
    AbortingEvent(int atPercent, int afterPolls) : m_percent(atPercent), m_polls(afterPolls) {}
    void OnPercent(int percent, bool& abort) override { abort = abort || percent >= m_percent; }
    void OnPoll(bool& abort) override { abort = abort || --m_polls <= 0; }

  private:
    int m_percent, m_polls;
};

// The peer sends 512 KiB and then nothing: an abort ends each operation
// long before the stall timeout could.
TEST(SshChannel, AbortEndsBulkReadsSendsAndWaits) {
    enum Op { ReadN, Send, WaitClose };
    const struct {
        Op op;
        int atPercent, afterPolls;
    } rows[] = {{ReadN, 25, 1 << 30}, {ReadN, 1000, 3}, {Send, 25, 1 << 30}, {WaitClose, 1000, 3}};
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.op << "/" << row.afterPolls);
        Rig rig(20000);
        AbortingEvent ev(row.atPercent, row.afterPolls);
        ProgressMonitor pm(&ev, 10, 100, 1 << 20);
        rig.sp.m_progressMonitor = &pm;
        rig.peer().send(pattern(512 * 1024));
        const int ch = rig.open();
        bool ok = false;
        if (row.op == ReadN) rig.readN(ch, 1 << 20, &ok);
        if (row.op == Send) ok = rig.send(ch, pattern(1 << 20));
        if (row.op == WaitClose) ok = rig.waitClose(ch);
        EXPECT_FALSE(ok);
        expectLog(renderedLog(rig.log), {"Operation aborted by the application."}, {"stall"});
        EXPECT_LE(rig.peer().written.size(), 512u * 1024);
    }
}

}  // namespace
}  // namespace scpkit::test
