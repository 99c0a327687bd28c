// ClsSsh's channel operations against the scripted peer: exact-n reads and
// writes, the error stream, EOF/CLOSE, stall timeouts, abort and progress.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

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

std::string str(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

// Hands out at most `limit` bytes per call, and fails once `failAfter` bytes are out.
class TrickleSource : public _vqDataSource {
  public:
    TrickleSource(std::string data, size_t limit, size_t failAfter = SIZE_MAX)
        : m_data(std::move(data)), m_limit(limit), m_failAfter(failAfter) {}
    bool readSourceChunk(unsigned char* buf, size_t maxBytes, size_t& numRead, LogBase&) override {
        if (m_pos >= m_failAfter) return false;
        numRead = std::min({maxBytes, m_limit, m_data.size() - m_pos});
        std::copy_n(m_data.data() + m_pos, numRead, buf);
        m_pos += numRead;
        largestAsk = std::max(largestAsk, maxBytes);
        return true;
    }
    size_t largestAsk = 0;

  private:
    std::string m_data;
    size_t m_limit, m_failAfter, m_pos = 0;
};

// Asks to abort once the given percentage, or number of polls, is reached.
class AbortingEvent : public ProgressEvent {
  public:
    AbortingEvent(int atPercent, int afterPolls)
        : m_atPercent(atPercent), m_afterPolls(afterPolls) {}
    void OnPercent(int percent, bool& abort) override { abort = abort || percent >= m_atPercent; }
    void OnPoll(bool& abort) override { abort = abort || --m_afterPolls <= 0; }

  private:
    int m_atPercent, m_afterPolls;
};

enum Op { ReadN, Read, Send, WaitClose };

// An object on a fresh scripted peer.
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
    std::string text() { return renderedLog(log); }
    std::string received(int ch) {
        DataBuffer db;
        ssh.getReceivedData(ch, db, log);
        return str(db);
    }
    std::string readN(int ch, long long n, bool* ok = nullptr, bool progress = false) {
        DataBuffer db;
        OutputDataBuffer out(&db);
        out.m_reportsProgress = progress;
        bool r = ssh.channelReadNToOutput(ch, n, out, sp, log);
        if (ok) *ok = r;
        return str(db);
    }
    bool waitClose(int ch, int idleTimeoutMs = -1) {
        SshReadParams rp;
        rp.idleTimeoutMs = idleTimeoutMs;
        return ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log);
    }
    bool sendByte(int ch) {
        DataBuffer one;
        one.appendChar('x');
        return ssh.channelSendData(ch, one, sp, log);
    }
    bool run(Op op, int ch, long long n = 4 << 20) {
        TrickleSource source(pattern(static_cast<size_t>(n)), SIZE_MAX);
        source.m_reportsProgress = true;
        bool ok = false;
        if (op == ReadN) readN(ch, n, &ok, true);
        if (op == Read) ok = ssh.channelRead(ch, sp, log) > 0 && ssh.channelRead(ch, sp, log) >= 0;
        if (op == Send) ok = ssh.channelSendNFromSource(ch, source, n, sp, log);
        return op == WaitClose ? waitClose(ch) : ok;
    }
};

TEST(SshChannel, ReadExactlyNTakesBufferedBytesFirstAndNeverOverReads) {
    const std::string big = pattern(3 * ClsSsh::kChunkSize + 17);
    const size_t bigN = 2 * ClsSsh::kChunkSize + 5;
    struct Row {
        const char* name;
        std::string first, later;  // sent at once, and after the client's first write
        char end;                  // then 'e': EOF, 'c': CLOSE
        int preReads;              // channelRead calls before the exact read (fill the buffer)
        long long n;
        bool ok;
        std::string out, next;  // what the read delivers, what a following read must deliver
        const char* logged;
    };
    const Row rows[] = {
        {"from the transport", "abcdef", "", 0, 0, 2, true, "ab", "cdef", ""},
        {"all from the buffer", "abcdef", "", 0, 1, 4, true, "abcd", "ef", ""},
        {"buffer then transport", "ab", "cdefgh", 0, 1, 5, true, "abcde", "fgh", ""},
        {"zero bytes", "xy", "", 0, 0, 0, true, "", "xy", ""},
        {"several chunks", big, "", 0, 0, (long long)bigN, true, big.substr(0, bigN),
         big.substr(bigN), ""},
        {"short then EOF", "abc", "", 'e', 0, 5, false, "abc", "", "numBytesExpected: 5"},
        {"short then CLOSE", "abc", "", 'c', 0, 5, false, "abc", "", "numBytesReceived: 3"},
        {"negative count", "abc", "", 0, 0, -1, false, "", "abc",
         "Invalid number of bytes to read."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Rig rig;
        rig.peer().send(row.first).awaitWrites(1).send(row.later);
        if (row.end == 'e') rig.peer().eof();
        if (row.end == 'c') rig.peer().close();
        int ch = rig.open();
        for (int i = 0; i < row.preReads; ++i)
            ASSERT_GT(rig.ssh.channelRead(ch, rig.sp, rig.log), 0);
        ASSERT_TRUE(rig.sendByte(ch));  // releases `later`

        bool ok = false;
        std::string out = rig.readN(ch, row.n, &ok);
        EXPECT_EQ(ok, row.ok);
        EXPECT_TRUE(out == row.out) << out.size();
        // Read straight from the peer: nothing past n may have been taken in.
        if (row.preReads == 0 && !row.next.empty()) {
            EXPECT_FALSE(rig.ssh.receivedDataContainsChar(ch, row.next[0]));
        }
        expectLog(rig.text(), {row.logged, row.ok || row.n < 0 ? "" : "Channel closed before all"});
        EXPECT_TRUE(rig.readN(ch, (long long)row.next.size(), &ok) == row.next);
    }
}

TEST(SshChannel, ReadExactlyNAnnouncesTheCountToTheOutputBeforeWriting) {
    // A memory sink told the count up front holds the bytes in one block.
    struct Announced : OutputDataBuffer {
        using OutputDataBuffer::OutputDataBuffer;
        void expectBytes(long long n) override {
            told.push_back(n);
            OutputDataBuffer::expectBytes(n);
        }
        std::vector<long long> told;
    };
    Rig rig;
    const std::string data = pattern(3 * ClsSsh::kChunkSize + 1);
    rig.peer(0).send(data);
    int ch = rig.open();
    DataBuffer db;
    Announced out(&db);
    ASSERT_TRUE(rig.ssh.channelReadNToOutput(ch, (long long)data.size(), out, rig.sp, rig.log));
    EXPECT_EQ(out.told, std::vector<long long>{(long long)data.size()});
    EXPECT_TRUE(str(db) == data);
}

TEST(SshChannel, ChannelReadReportsDataThenEofThenCloseAndFailsAfterClose) {
    Rig rig;
    rig.peer(0).send("line one\nrest").eof();
    rig.peer(1).send("x").close();
    int ch = rig.open();
    EXPECT_EQ(rig.ssh.channelRead(ch, rig.sp, rig.log), 13);
    EXPECT_TRUE(rig.ssh.receivedDataContainsChar(ch, '\n'));
    EXPECT_FALSE(rig.sp.m_receivedEof);
    EXPECT_EQ(rig.ssh.channelRead(ch, rig.sp, rig.log), 0);
    EXPECT_TRUE(rig.sp.m_receivedEof);
    EXPECT_TRUE(rig.ssh.channelReceivedEof(ch, rig.log) &&
                !rig.ssh.channelReceivedClose(ch, rig.log));
    EXPECT_EQ(rig.received(ch), "line one\nrest");
    EXPECT_EQ(rig.received(ch), "");  // taken once

    // CLOSE without EOF: one read says nothing came, the next one fails, so
    // a caller waiting for EOF cannot loop for ever.
    int ch2 = rig.open();
    EXPECT_EQ(rig.ssh.channelRead(ch2, rig.sp, rig.log), 1);
    EXPECT_EQ(rig.ssh.channelRead(ch2, rig.sp, rig.log), 0);
    EXPECT_TRUE(rig.sp.m_receivedClose && !rig.sp.m_receivedEof);
    EXPECT_LT(rig.ssh.channelRead(ch2, rig.sp, rig.log), 0);

    // Unknown channels fail rather than touch another channel's state.
    EXPECT_FALSE(rig.sendByte(77));
    EXPECT_LT(rig.ssh.channelRead(77, rig.sp, rig.log), 0);
    EXPECT_FALSE(rig.ssh.channelSendClose(77, rig.sp, rig.log));
}

// Error text comes apart from the data, decoded from the charset asked for,
// or as the bytes came when they are not valid in it.
TEST(SshChannel, ErrorTextIsKeptApartAndDecoded) {
    for (const auto& [charset, sent, text] : {std::tuple{"iso-8859-1", "caf\xe9", "caf\xc3\xa9"},
                                              {"utf-8", "bad \xff\xfe", "bad \xff\xfe"}}) {
        SCOPED_TRACE(charset);
        Rig rig;
        rig.peer().send("out1").sendStderr(sent).send("out2").eof().close();
        int ch = rig.open();
        ASSERT_TRUE(rig.waitClose(ch));
        EXPECT_EQ(rig.received(ch), "out1out2");
        XString got;
        rig.ssh.getReceivedStderrText(ch, charset, got, rig.log);
        EXPECT_STREQ(got.getUtf8(), text);
    }
}

TEST(SshChannel, SendWritesExactlyTheBytesAskedForInBoundedChunks) {
    const std::string data = pattern(600 * 1024 + 3, 3);
    const size_t n = data.size() - 5;  // the tail stays unsent
    // Most bytes the source hands out per call, most the peer takes per write (0: all).
    for (const auto& [sourceLimit, transportLimit] :
         {std::pair<size_t, size_t>{SIZE_MAX, 0}, {7001, 0}, {SIZE_MAX, 40000}}) {
        SCOPED_TRACE(sourceLimit + transportLimit);
        Rig rig;
        rig.transport->maxWriteSize = transportLimit;
        int ch = rig.open();
        TrickleSource source(data, sourceLimit);
        ASSERT_TRUE(rig.ssh.channelSendNFromSource(ch, source, (long long)n, rig.sp, rig.log));
        EXPECT_TRUE(rig.peer().written == data.substr(0, n)) << rig.peer().written.size();
        EXPECT_LE(source.largestAsk, ClsSsh::kChunkSize);
        for (const std::string& w : rig.peer().writes) EXPECT_LE(w.size(), ClsSsh::kChunkSize);
    }
    // channelSendData: every byte, zeros included, through 3-byte writes.
    Rig rig;
    rig.transport->maxWriteSize = 3;
    const std::string wire("C0644 5 a\n\0\0x", 13);
    DataBuffer db;
    db.append(wire.data(), wire.size());
    ASSERT_TRUE(rig.ssh.channelSendData(rig.open(), db, rig.sp, rig.log));
    EXPECT_EQ(rig.peer().written, wire);
    // A source that ends early or fails: what it gave is sent, the call fails.
    for (size_t failAfter : {SIZE_MAX, size_t(4)}) {
        Rig r;
        TrickleSource source("0123456789", 4, failAfter);
        EXPECT_FALSE(r.ssh.channelSendNFromSource(r.open(), source, 20, r.sp, r.log));
        EXPECT_EQ(r.peer().written, failAfter == 4 ? "0123" : "0123456789");
        expectLog(r.text(), {failAfter == 4 ? "Failed to read from the data source."
                                            : "The data source ended before all bytes were sent."});
    }
}

TEST(SshChannel, ProgressCountsOnlyWhenTheSourceOrOutputAsksForIt) {
    const std::string data = pattern(5000, 9);
    for (bool flag : {false, true}) {
        SCOPED_TRACE(flag);
        Rig rig;
        ProgressMonitor pm(nullptr, 0, 100, 20000);
        rig.sp.m_progressMonitor = &pm;
        rig.peer().send(data);
        int ch = rig.open();
        EXPECT_TRUE(rig.readN(ch, 5000, nullptr, flag) == data);
        EXPECT_EQ(pm.done(), flag ? 5000 : 0);
        TrickleSource source(data, SIZE_MAX);
        source.m_reportsProgress = flag;
        ASSERT_TRUE(rig.ssh.channelSendNFromSource(ch, source, 3000, rig.sp, rig.log));
        EXPECT_EQ(pm.done(), flag ? 8000 : 0);
    }
}

// The peer sends 512 KiB and then nothing: the abort ends every wait long
// before the stall timeout could, and a send stops at the abort.
TEST(SshChannel, AbortFromTheProgressEventEndsEveryWait) {
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
        EXPECT_FALSE(rig.run(row.op, rig.open()));
        expectLog(rig.text(), {"Operation aborted by the application."}, {"stall timeout"});
        EXPECT_LE(rig.peer().written.size(), 512u * 1024);
    }
}

TEST(SshChannel, WaitsFailWhenNothingMovesWithinTheStallTimeout) {
    const struct {
        Op op;
        int objectMs, ownMs;  // the object's stall timeout, the wait's own (-1: none)
    } rows[] = {{ReadN, 150, -1}, {Read, 120, -1}, {WaitClose, 130, -1}, {WaitClose, 0, 140}};
    for (const auto& row : rows) {
        Rig rig(row.objectMs);
        rig.peer().send("abc");  // some data, then silence
        int ch = rig.open();
        EXPECT_FALSE(row.ownMs < 0 ? rig.run(row.op, ch, 10) : rig.waitClose(ch, row.ownMs));
        const int ms = row.ownMs < 0 ? row.objectMs : row.ownMs;
        expectLog(rig.text(),
                  {"stallTimeoutMs: " + std::to_string(ms), "within the stall timeout."});
    }
}

TEST(SshChannel, WaitingForCloseAnswersTheClientsCloseAndCapsAFlood) {
    Rig rig;
    rig.peer(0).closeOnClientClose();
    rig.peer(1).send(pattern(12 << 20, 11)).close();
    // A peer that closes only in answer to the client's CLOSE.
    int ch = rig.open();
    EXPECT_TRUE(rig.ssh.channelSendClose(ch, rig.sp, rig.log));
    EXPECT_TRUE(rig.peer(0).clientSentClose);
    EXPECT_TRUE(rig.waitClose(ch));
    EXPECT_TRUE(rig.waitClose(ch));  // already closed: true at once
    SshReadParams rp;
    EXPECT_FALSE(rig.ssh.channelReceiveUntilCondition(ch, 2, rp, rig.sp, rig.log));
    expectLog(rig.text(), {"condition: 2"});

    // 12 MiB while waiting: some is kept, not all of it.
    int flooded = rig.open();
    EXPECT_TRUE(rig.waitClose(flooded));
    const size_t kept = rig.received(flooded).size();
    EXPECT_TRUE(kept > 0 && kept < (12u << 20)) << kept;
}

// Several callers share one connection at once, each on its own channel.
TEST(SshChannel, ThreadsSharingTheObjectEachGetTheirOwnChannelsBytes) {
    constexpr int kThreads = 4;
    Rig rig;
    std::vector<std::string> payload, got(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        payload.push_back(pattern(300 * 1024, 100 + i));
        rig.peer(i).awaitBytes(1).send(payload.back());  // one byte in, the payload out
    }
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            _vqLogger l;
            SocketParams p(nullptr);
            int ch = rig.ssh.openSessionChannel(p, l);  // its script is the ch-th
            DataBuffer one, db;
            one.appendChar(static_cast<char>('0' + ch));
            OutputDataBuffer out(&db);
            if (ch >= 0 && rig.ssh.channelSendData(ch, one, p, l) &&
                rig.ssh.channelReadNToOutput(ch, 300 * 1024, out, p, l))
                got[ch] = str(db);
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_TRUE(got[i] == payload[i]) << "channel " << i;
        EXPECT_EQ(rig.peer(i).written, std::string(1, static_cast<char>('0' + i)));
    }
}

}  // namespace
}  // namespace scpkit::test
