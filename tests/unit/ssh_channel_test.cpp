// ClsSsh's channel operations against the scripted peer: exact-n reads,
// EOF and CLOSE as channelRead reports them, the wait for CLOSE, and aborts
// of bulk reads, sends and waits.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <scpkit/base/Charset.h>
#include <scpkit/base/DataSource.h>
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

// A fresh object on a fresh scripted peer; a failing wait ends the test
// within the stall timeout instead of hanging it.
struct Rig {
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    ClsSsh ssh;
    _vqLogger log;
    SocketParams sp{nullptr};
    int ch = -1;

    explicit Rig(int stallMs = 5000) {
        ssh.useTransport(transport);
        ssh.put_StallTimeoutMs(stallMs);
    }
    ScriptedPeer& peer() { return transport->peer(ch + 1); }  // the next channel's
    int open() { return ch = ssh.openSessionChannel(sp, log); }
    std::string readN(long long n, bool* ok = nullptr) {
        DataBuffer db;
        OutputDataBuffer out(&db);
        out.m_reportsProgress = true;
        bool r = ssh.channelReadNToOutput(ch, n, out, sp, log);
        if (ok) *ok = r;
        return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
    }
    bool send(const std::string& bytes) {
        DataBuffer db;
        db.append(bytes.data(), bytes.size());
        _vqMemoryDataSource source;
        source.takeDataBuffer(db);
        source.m_reportsProgress = true;
        return ssh.channelSendNFromSource(ch, source, (long long)bytes.size(), sp, log);
    }
    bool waitClose() {
        SshReadParams rp;
        return ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log);
    }
};

// Each read delivers exactly the bytes asked for, in order, whether they
// were buffered or still to come, and leaves the rest to the next read.
TEST(SshChannel, ReadExactlyNDeliversTheNextNBytesAndLeavesTheRest) {
    const std::string big = pattern(9 << 20);  // more than a channel buffers
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
        rig.open();
        ASSERT_TRUE(rig.send("x"));  // releases `later`
        bool ok = false;
        EXPECT_TRUE(rig.readN(row.n, &ok) == row.out);
        EXPECT_EQ(ok, row.ok);
        expectLog(renderedLog(rig.log), {row.logged});
        EXPECT_TRUE(rig.readN((long long)row.next.size(), &ok) == row.next);
    }
}

// channelRead reports data first and EOF only once a read finds nothing
// more; a channel closed without EOF says so once and then fails, so no
// caller loops. The wait for CLOSE keeps a bounded part of a flood.
TEST(SshChannel, ChannelReadReportsDataThenEndAndWaitForCloseKeepsABoundedPart) {
    Rig rig;
    rig.peer().send("line one\nrest").eof().sendStderr("oops").close();
    rig.open();
    EXPECT_EQ(rig.ssh.channelRead(rig.ch, rig.sp, rig.log), 13);
    EXPECT_EQ(rig.readN(5), "line ");
    EXPECT_FALSE(rig.sp.m_receivedEof || rig.ssh.channelReceivedEof(rig.ch, rig.log));
    EXPECT_EQ(rig.ssh.channelRead(rig.ch, rig.sp, rig.log), 0);
    EXPECT_TRUE(rig.sp.m_receivedEof && rig.ssh.channelReceivedEof(rig.ch, rig.log));
    DataBuffer line;
    EXPECT_TRUE(rig.ssh.getReceivedDataThrough(rig.ch, '\n', line, rig.log));
    EXPECT_EQ(rig.readN(4), "rest");
    ASSERT_TRUE(rig.waitClose());
    XString err;
    rig.ssh.getReceivedStderrText(rig.ch, "utf-8", err, rig.log);
    EXPECT_STREQ(err.getUtf8(), "oops");

    rig.peer().send("x").close();
    rig.open();
    EXPECT_EQ(rig.ssh.channelRead(rig.ch, rig.sp, rig.log), 1);
    EXPECT_EQ(rig.ssh.channelRead(rig.ch, rig.sp, rig.log), 0);
    EXPECT_TRUE(rig.sp.m_receivedClose && !rig.sp.m_receivedEof);
    EXPECT_LT(rig.ssh.channelRead(rig.ch, rig.sp, rig.log), 0);
    EXPECT_LT(rig.ssh.channelRead(77, rig.sp, rig.log), 0);  // no such channel

    rig.peer().send(pattern(12 << 20)).close();
    rig.open();
    ASSERT_TRUE(rig.waitClose());
    DataBuffer kept;
    rig.ssh.getReceivedData(rig.ch, kept, rig.log);
    EXPECT_TRUE(kept.getSize() > 0 && kept.getSize() < (12u << 20)) << kept.getSize();
}

// Asks to abort once the given percentage, or number of polls, is reached.
struct AbortingEvent : ProgressEvent {
    int atPercent, afterPolls;
    AbortingEvent(int percent, int polls) : atPercent(percent), afterPolls(polls) {}
    void OnPercent(int percent, bool& abort) override { abort = abort || percent >= atPercent; }
    void OnPoll(bool& abort) override { abort = abort || --afterPolls <= 0; }
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
        rig.open();
        bool ok = false;
        if (row.op == ReadN) rig.readN(1 << 20, &ok);
        if (row.op == Send) ok = rig.send(pattern(1 << 20));
        if (row.op == WaitClose) ok = rig.waitClose();
        EXPECT_FALSE(ok);
        expectLog(renderedLog(rig.log), {"Operation aborted by the application."}, {"stall"});
        EXPECT_LE(rig.transport->peer(0).written.size(), 512u * 1024);
    }
}

// In-memory text downloads take well-formed UTF-8 over without converting
// it: exactly what the conversion accepts may be taken.
TEST(Utf8TakeOver, AcceptsWhatTheConversionAccepts) {
    for (const char* text :
         {"plain", "caf\xc3\xa9", "\xf0\x9f\x98\x80", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80",
          "\xfd\xbf\xbf\xbf\xbf\xbf", "\xc0\xaf", "\xe0\x80\xaf", "\xf8\x87\xbf\xbf\xbf",
          "\xfc\x83\xbf\xbf\xbf\xbf", "\xed\xa0\x80", "\xe2\x82", "\xfe", "a\x80"}) {
        LogNull quiet;
        std::string converted;
        const auto* bytes = reinterpret_cast<const unsigned char*>(text);
        EXPECT_EQ(isValidUtf8(bytes, strlen(text)),
                  charsetToUtf8("utf-8", bytes, strlen(text), converted, quiet))
            << text;
    }
}

}  // namespace
}  // namespace scpkit::test
