// ClsSsh's channel operations against the scripted peer: exact-n reads and
// writes, the error stream, EOF/CLOSE, stall timeouts, abort and progress.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/DataSource.h"
#include "base/Logger.h"
#include "base/Output.h"
#include "base/Progress.h"
#include "ssh/ClsSsh.h"
#include "tests/support/ScriptedTransport.h"

namespace scpkit::test {
namespace {

std::string pattern(size_t n, unsigned seed = 1) {
    std::string s(n, '\0');
    unsigned x = seed;
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245u + 12345u;
        s[i] = static_cast<char>(x >> 16);
    }
    return s;
}

std::string str(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

DataBuffer bytes(const std::string& s) {
    DataBuffer db;
    db.append(s.data(), s.size());
    return db;
}

// Hands out at most `limit` bytes per call, or fails after `failAfter` bytes.
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
    size_t m_limit;
    size_t m_failAfter;
    size_t m_pos = 0;
};

// Asks to abort once the given percentage, or number of polls, is reached.
class AbortingEvent : public ProgressEvent {
  public:
    int abortAtPercent = 1000;
    int abortAfterPolls = 1000000;
    int polls = 0;
    int lastPercent = -1;
    void OnPercent(int percent, bool& abort) override {
        lastPercent = percent;
        if (percent >= abortAtPercent) abort = true;
    }
    void OnPoll(bool& abort) override {
        if (++polls >= abortAfterPolls) abort = true;
    }
};

class SshChannelTest : public ::testing::Test {
  protected:
    void SetUp() override { reset(); }
    void TearDown() override { ssh->decRefCount(); }

    // A fresh object on a fresh peer, for each case of a table.
    void reset() {
        if (ssh) ssh->decRefCount();
        transport = std::make_shared<ScriptedTransport>();
        ssh = ClsSsh::createNewCls();
        ASSERT_NE(ssh, nullptr);
        ssh->useTransport(transport);
        ssh->put_StallTimeoutMs(5000);  // a failing wait ends the test, never hangs it
        log.clearLog();
        sp = SocketParams(nullptr);
    }

    int open(SocketParams& p) {
        int ch = ssh->openSessionChannel(p, log);
        EXPECT_GE(ch, 0);
        return ch;
    }
    int open() { return open(sp); }
    std::string logText() {
        std::string s;
        log.renderText(s);
        return s;
    }
    std::string received(int ch) {
        DataBuffer db;
        ssh->getReceivedData(ch, db, log);
        return str(db);
    }
    std::string readN(int ch, long long n, bool* ok = nullptr) {
        DataBuffer db;
        OutputDataBuffer out(&db);
        bool r = ssh->channelReadNToOutput(ch, n, out, sp, log);
        if (ok) *ok = r;
        return str(db);
    }

    std::shared_ptr<ScriptedTransport> transport;
    ClsSsh* ssh = nullptr;
    _vqLogger log;
    SocketParams sp{nullptr};
};

// ---- exact-n reads ----

struct ReadCase {
    const char* name;
    std::function<void(ScriptedPeer&)> script;
    int preReads;  // channelRead calls before the exact read (fill the buffer)
    long long n;   // bytes asked for
    bool ok;
    std::string out;   // what reached the output
    std::string next;  // what a following exact read must deliver
    const char* logLine;
};

TEST_F(SshChannelTest, ReadExactlyNDeliversBufferedBytesFirstAndNeverOverReads) {
    const std::string big = pattern(3 * ClsSsh::kChunkSize + 17);
    const size_t bigN = 2 * ClsSsh::kChunkSize + 5;
    const std::vector<ReadCase> cases = {
        {"from the transport, rest left unread", [](ScriptedPeer& p) { p.send("abcdef"); }, 0, 2,
         true, "ab", "cdef", nullptr},
        {"all from the buffer, rest stays buffered", [](ScriptedPeer& p) { p.send("abcdef"); }, 1,
         4, true, "abcd", "ef", nullptr},
        {"buffer then transport",
         [](ScriptedPeer& p) { p.send("ab").awaitWrites(1).send("cdefgh"); }, 1, 5, true, "abcde",
         "fgh", nullptr},
        {"zero bytes", [](ScriptedPeer& p) { p.send("xy"); }, 0, 0, true, "", "xy", nullptr},
        {"spans several chunks", [&big](ScriptedPeer& p) { p.send(big); }, 0,
         static_cast<long long>(bigN), true, big.substr(0, bigN), big.substr(bigN), nullptr},
        {"short data then EOF", [](ScriptedPeer& p) { p.send("abc").eof(); }, 0, 5, false, "abc",
         "", "Channel closed before all data was received."},
        {"short data then CLOSE without EOF", [](ScriptedPeer& p) { p.send("abc").close(); }, 0, 5,
         false, "abc", "", "numBytesReceived: 3"},
        {"negative count", [](ScriptedPeer& p) { p.send("abc"); }, 0, -1, false, "", "abc",
         "Invalid number of bytes to read."},
    };
    for (const ReadCase& c : cases) {
        SCOPED_TRACE(c.name);
        reset();
        c.script(transport->peer(0));
        int ch = open();
        for (int i = 0; i < c.preReads; ++i) ASSERT_GT(ssh->channelRead(ch, sp, log), 0);
        DataBuffer one;
        one.appendChar('x');
        ASSERT_TRUE(ssh->channelSendData(ch, one, sp, log));  // releases awaiting scripts

        bool ok = false;
        std::string out = readN(ch, c.n, &ok);
        EXPECT_EQ(ok, c.ok);
        EXPECT_EQ(out.size(), c.out.size());
        EXPECT_TRUE(out == c.out);
        // Read straight from the peer: nothing past n may have been taken in.
        if (c.preReads == 0 && !c.next.empty()) {
            EXPECT_FALSE(ssh->receivedDataContainsChar(ch, c.next[0]));
        }
        if (c.logLine) {
            EXPECT_NE(logText().find(c.logLine), std::string::npos) << logText();
        }
        if (!c.next.empty()) {
            std::string next = readN(ch, static_cast<long long>(c.next.size()), &ok);
            EXPECT_TRUE(ok);
            EXPECT_TRUE(next == c.next);
        }
    }
}

TEST_F(SshChannelTest, ReadExactlyNAnnouncesTheCountToTheOutputBeforeWriting) {
    // A memory sink told the count up front holds the bytes in one block.
    struct Announced : OutputDataBuffer {
        using OutputDataBuffer::OutputDataBuffer;
        void expectBytes(long long n) override {
            told.push_back(n);
            OutputDataBuffer::expectBytes(n);
        }
        std::vector<long long> told;
    };
    const std::string data = pattern(3 * ClsSsh::kChunkSize + 1);
    transport->peer(0).send(data);
    int ch = open();
    DataBuffer db;
    Announced out(&db);
    ASSERT_TRUE(ssh->channelReadNToOutput(ch, static_cast<long long>(data.size()), out, sp, log));
    EXPECT_EQ(out.told, std::vector<long long>{static_cast<long long>(data.size())});
    EXPECT_TRUE(str(db) == data);
}

TEST_F(SshChannelTest, ShortReadReportsExpectedAndReceivedCounts) {
    transport->peer(0).send("12345").eof().close();
    int ch = open();
    bool ok = true;
    readN(ch, 8, &ok);
    EXPECT_FALSE(ok);
    const std::string text = logText();
    EXPECT_NE(text.find("Channel closed before all data was received."), std::string::npos);
    EXPECT_NE(text.find("numBytesExpected: 8"), std::string::npos);
    EXPECT_NE(text.find("numBytesReceived: 5"), std::string::npos);
    EXPECT_TRUE(sp.m_receivedEof);
    EXPECT_TRUE(sp.m_receivedClose);
}

// ---- channelRead, EOF and CLOSE ----

TEST_F(SshChannelTest, ChannelReadReportsDataThenEofThenCloseAndStopsAfterClose) {
    transport->peer(0).send("line one\nrest").eof();
    transport->peer(1).send("x").close();
    int ch = open();
    EXPECT_EQ(ssh->channelRead(ch, sp, log), 13);
    EXPECT_TRUE(ssh->receivedDataContainsChar(ch, '\n'));
    EXPECT_FALSE(ssh->receivedDataContainsChar(ch, '#'));
    EXPECT_FALSE(sp.m_receivedEof);
    EXPECT_EQ(ssh->channelRead(ch, sp, log), 0);
    EXPECT_TRUE(sp.m_receivedEof);
    EXPECT_TRUE(ssh->channelReceivedEof(ch, log));
    EXPECT_FALSE(ssh->channelReceivedClose(ch, log));
    EXPECT_EQ(received(ch), "line one\nrest");
    EXPECT_FALSE(ssh->receivedDataContainsChar(ch, '\n'));
    EXPECT_EQ(received(ch), "");

    // CLOSE without EOF: one read says nothing came, the next one fails, so
    // a caller waiting for EOF cannot loop for ever.
    int ch2 = open();
    EXPECT_EQ(ssh->channelRead(ch2, sp, log), 1);
    EXPECT_EQ(ssh->channelRead(ch2, sp, log), 0);
    EXPECT_TRUE(sp.m_receivedClose);
    EXPECT_FALSE(sp.m_receivedEof);
    EXPECT_LT(ssh->channelRead(ch2, sp, log), 0);
}

TEST_F(SshChannelTest, ConsumedBytesAreNeverDeliveredTwice) {
    // Many small reads from one large buffered block.
    const std::string data = pattern(200 * 1024, 7);
    transport->peer(0).send(data).eof();
    int ch = open();
    ASSERT_GT(ssh->channelRead(ch, sp, log), 0);
    std::string got;
    while (got.size() < data.size()) {
        bool ok = false;
        got += readN(ch, std::min<long long>(999, static_cast<long long>(data.size() - got.size())),
                     &ok);
        ASSERT_TRUE(ok);
    }
    EXPECT_TRUE(got == data);
}

// ---- the error stream ----

TEST_F(SshChannelTest, ErrorStreamIsKeptApartOrMergedIntoTheData) {
    struct Case {
        bool merge;
        std::string data;
        std::string err;
    };
    for (const Case& c : {Case{false, "out1out2", "err1"}, Case{true, "", ""}}) {
        SCOPED_TRACE(c.merge);
        reset();
        ssh->put_StderrToStdout(c.merge);
        transport->peer(0).send("out1").sendStderr("err1").send("out2").eof().close();
        int ch = open();
        SshReadParams rp;
        ASSERT_TRUE(ssh->channelReceiveUntilCondition(ch, 1, rp, sp, log));
        std::string data = received(ch);
        XString err;
        ssh->getReceivedStderrText(ch, "utf-8", err, log);
        if (c.merge) {
            EXPECT_EQ(data.size(), 12u);
            EXPECT_NE(data.find("err1"), std::string::npos);
            EXPECT_NE(data.find("out1"), std::string::npos);
            EXPECT_STREQ(err.getUtf8(), "");
        } else {
            EXPECT_EQ(data, c.data);
            EXPECT_STREQ(err.getUtf8(), c.err.c_str());
        }
    }
}

TEST_F(SshChannelTest, ErrorTextIsDecodedFromTheCharsetOrKeptRaw) {
    struct Case {
        const char* charset;
        std::string sent;
        std::string text;
    };
    const std::vector<Case> cases = {
        {"utf-8", "scp: /x: No such file or directory\n", "scp: /x: No such file or directory\n"},
        {"iso-8859-1", "caf\xe9", "caf\xc3\xa9"},
        {"utf-8", "bad \xff\xfe", "bad \xff\xfe"},  // not UTF-8: the bytes as they came
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.charset);
        reset();
        transport->peer(0).sendStderr(c.sent).send("z").eof();
        int ch = open();
        ASSERT_GT(ssh->channelRead(ch, sp, log), 0);
        XString text;
        text.appendUtf8("kept:");
        ssh->getReceivedStderrText(ch, c.charset, text, log);
        EXPECT_EQ(std::string(text.getUtf8()), "kept:" + c.text);
    }
}

// ---- sending ----

TEST_F(SshChannelTest, SendFromSourceWritesExactlyNBytesInBoundedChunks) {
    struct Case {
        const char* name;
        size_t sourceLimit;     // most bytes the source hands out per call
        size_t transportLimit;  // most bytes the peer accepts per write (0: all)
    };
    const std::string data = pattern(600 * 1024 + 3, 3);
    const long long n = static_cast<long long>(data.size()) - 5;  // the tail stays unsent
    for (const Case& c : {Case{"whole chunks", SIZE_MAX, 0}, Case{"trickling source", 7001, 0},
                          Case{"partial writes", SIZE_MAX, 40000}}) {
        SCOPED_TRACE(c.name);
        reset();
        transport->maxWriteSize = c.transportLimit;
        int ch = open();
        TrickleSource source(data, c.sourceLimit);
        ASSERT_TRUE(ssh->channelSendNFromSource(ch, source, n, sp, log)) << logText();
        const ScriptedPeer& peer = transport->peer(0);
        EXPECT_EQ(peer.written.size(), static_cast<size_t>(n));
        EXPECT_TRUE(peer.written == data.substr(0, static_cast<size_t>(n)));
        EXPECT_LE(source.largestAsk, ClsSsh::kChunkSize);
        for (const std::string& w : peer.writes) EXPECT_LE(w.size(), ClsSsh::kChunkSize);
    }
}

TEST_F(SshChannelTest, SendFromSourceFailsWhenTheSourceEndsOrFails) {
    struct Case {
        const char* name;
        size_t failAfter;
        const char* logLine;
        size_t sent;
    };
    for (const Case& c :
         {Case{"ends early", SIZE_MAX, "The data source ended before all bytes were sent.", 10},
          Case{"read error", 4, "Failed to read from the data source.", 4}}) {
        SCOPED_TRACE(c.name);
        reset();
        int ch = open();
        TrickleSource source("0123456789", 4, c.failAfter);
        EXPECT_FALSE(ssh->channelSendNFromSource(ch, source, 20, sp, log));
        EXPECT_EQ(transport->peer(0).written, std::string("0123456789").substr(0, c.sent));
        EXPECT_NE(logText().find(c.logLine), std::string::npos) << logText();
    }
}

TEST_F(SshChannelTest, SendDataWritesEveryByteIncludingZeros) {
    transport->maxWriteSize = 3;
    int ch = open();
    const std::string wire("C0644 5 a\n\0\0x", 13);
    DataBuffer db = bytes(wire);
    ASSERT_TRUE(ssh->channelSendData(static_cast<unsigned>(ch), db, sp, log));
    EXPECT_EQ(transport->peer(0).written, wire);
    EXPECT_EQ(db.getSize(), wire.size());  // the caller's buffer is left alone
}

// ---- progress and abort ----

TEST_F(SshChannelTest, ProgressCountsOnlyWhenTheSourceOrOutputAsksForIt) {
    const std::string data = pattern(5000, 9);
    for (bool flag : {false, true}) {
        SCOPED_TRACE(flag);
        reset();
        AbortingEvent ev;
        ProgressMonitor pm(&ev, 0, 100, 20000);
        SocketParams p(&pm);
        transport->peer(0).send(data);
        int ch = open(p);

        DataBuffer got;
        OutputDataBuffer out(&got);
        out.m_reportsProgress = flag;
        ASSERT_TRUE(ssh->channelReadNToOutput(ch, 5000, out, p, log));
        EXPECT_EQ(pm.done(), flag ? 5000 : 0);

        TrickleSource source(data, SIZE_MAX);
        source.m_reportsProgress = flag;
        ASSERT_TRUE(ssh->channelSendNFromSource(ch, source, 3000, p, log));
        EXPECT_EQ(pm.done(), flag ? 8000 : 0);
    }
}

TEST_F(SshChannelTest, AbortFromProgressEventStopsTransfersPromptly) {
    const std::string data = pattern(1024 * 1024, 5);
    struct Case {
        const char* name;
        int atPercent;
        int afterPolls;
        std::function<bool(ClsSsh&, int, SocketParams&, LogBase&)> run;
        size_t maxWritten;  // sending: the peer never sees more than this
    };
    const std::vector<Case> cases = {
        {"reading data with progress", 25, 1000000,
         [](ClsSsh& s, int ch, SocketParams& p, LogBase& l) {
             DataBuffer db;
             OutputDataBuffer out(&db);
             out.m_reportsProgress = true;
             return s.channelReadNToOutput(ch, 4 * 1024 * 1024, out, p, l);
         },
         0},
        {"waiting for data that never comes", 1000, 3,
         [](ClsSsh& s, int ch, SocketParams& p, LogBase& l) {
             DataBuffer db;
             OutputDataBuffer out(&db);
             return s.channelReadNToOutput(ch, 2 * 1024 * 1024, out, p, l);
         },
         0},
        {"sending with progress", 25, 1000000,
         [&data](ClsSsh& s, int ch, SocketParams& p, LogBase& l) {
             TrickleSource source(data, SIZE_MAX);
             source.m_reportsProgress = true;
             return s.channelSendNFromSource(ch, source, 1024 * 1024, p, l);
         },
         512 * 1024},
        {"waiting for CLOSE", 1000, 3,
         [](ClsSsh& s, int ch, SocketParams& p, LogBase& l) {
             SshReadParams rp;
             return s.channelReceiveUntilCondition(ch, 1, rp, p, l);
         },
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        reset();
        ssh->put_StallTimeoutMs(20000);  // only the abort can end these waits in time
        AbortingEvent ev;
        ev.abortAtPercent = c.atPercent;
        ev.abortAfterPolls = c.afterPolls;
        ProgressMonitor pm(&ev, 10, 100, 1024 * 1024);
        SocketParams p(&pm);
        transport->peer(0).send(data.substr(0, 512 * 1024));
        int ch = open(p);
        EXPECT_FALSE(c.run(*ssh, ch, p, log));
        const std::string text = logText();
        EXPECT_NE(text.find("Operation aborted by the application."), std::string::npos) << text;
        EXPECT_EQ(text.find("stall timeout"), std::string::npos) << text;
        if (c.maxWritten) {
            EXPECT_LE(transport->peer(0).written.size(), c.maxWritten);
        }
    }
}

// ---- stall timeouts ----

TEST_F(SshChannelTest, WaitsFailWhenNothingMovesWithinTheStallTimeout) {
    struct Case {
        const char* name;
        int objectTimeoutMs;
        std::function<bool(ClsSsh&, int, SocketParams&, LogBase&)> run;
        const char* logLine;
    };
    const std::vector<Case> cases = {
        {"exact read", 150,
         [](ClsSsh& s, int ch, SocketParams& p, LogBase& l) {
             DataBuffer db;
             OutputDataBuffer out(&db);
             return s.channelReadNToOutput(ch, 10, out, p, l);
         },
         "stallTimeoutMs: 150"},
        {"channelRead", 120,
         [](ClsSsh& s, int ch, SocketParams& p, LogBase& l) {
             return s.channelRead(ch, p, l) > 0 && s.channelRead(ch, p, l) >= 0;
         },
         "stallTimeoutMs: 120"},
        {"wait for CLOSE with the object's timeout", 130,
         [](ClsSsh& s, int ch, SocketParams& p, LogBase& l) {
             SshReadParams rp;
             return s.channelReceiveUntilCondition(ch, 1, rp, p, l);
         },
         "stallTimeoutMs: 130"},
        {"wait for CLOSE with its own timeout (object waits for ever)", 0,
         [](ClsSsh& s, int ch, SocketParams& p, LogBase& l) {
             SshReadParams rp;
             rp.idleTimeoutMs = 140;
             return s.channelReceiveUntilCondition(ch, 1, rp, p, l);
         },
         "stallTimeoutMs: 140"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        reset();
        ssh->put_StallTimeoutMs(c.objectTimeoutMs);
        transport->peer(0).send("abc");  // some data, then silence
        int ch = open();
        EXPECT_FALSE(c.run(*ssh, ch, sp, log));
        const std::string text = logText();
        EXPECT_NE(text.find(c.logLine), std::string::npos) << text;
        EXPECT_NE(text.find("within the stall timeout."), std::string::npos) << text;
    }
}

// ---- waiting for CLOSE ----

TEST_F(SshChannelTest, ReceiveUntilCloseKeepsDataAndSeesClose) {
    transport->peer(0).send("tail\n").sendStderr("warning\n").eof().close();
    transport->peer(1).closeOnClientClose();
    int ch = open();
    SshReadParams rp;
    EXPECT_TRUE(ssh->channelReceiveUntilCondition(ch, 1, rp, sp, log));
    EXPECT_TRUE(sp.m_receivedEof);
    EXPECT_TRUE(sp.m_receivedClose);
    EXPECT_TRUE(ssh->channelReceivedClose(ch, log));
    EXPECT_EQ(received(ch), "tail\n");
    XString err;
    ssh->getReceivedStderrText(ch, "utf-8", err, log);
    EXPECT_STREQ(err.getUtf8(), "warning\n");
    // Already closed: true at once.
    EXPECT_TRUE(ssh->channelReceiveUntilCondition(ch, 1, rp, sp, log));

    // A peer that closes only in answer to the client's CLOSE.
    int ch2 = open();
    EXPECT_TRUE(ssh->channelSendClose(ch2, sp, log));
    EXPECT_TRUE(transport->peer(1).clientSentClose);
    EXPECT_TRUE(ssh->channelReceiveUntilCondition(ch2, 1, rp, sp, log));
    EXPECT_FALSE(sp.m_receivedEof);  // flags follow the channel read last

    EXPECT_FALSE(ssh->channelReceiveUntilCondition(ch2, 2, rp, sp, log));
    EXPECT_NE(logText().find("condition: 2"), std::string::npos);
}

TEST_F(SshChannelTest, DataFloodWhileWaitingForCloseIsCapped) {
    transport->peer(0).send(pattern(12 * 1024 * 1024, 11)).close();
    int ch = open();
    SshReadParams rp;
    EXPECT_TRUE(ssh->channelReceiveUntilCondition(ch, 1, rp, sp, log));
    std::string kept = received(ch);
    EXPECT_GT(kept.size(), 0u);
    EXPECT_LT(kept.size(), 12u * 1024 * 1024);
}

// ---- opening, requests, releasing ----

TEST_F(SshChannelTest, OpenEnvAndExecReportFailures) {
    transport->peer(0).refuseEnv("BAD");
    transport->peer(1).refuseExec();
    int ch = open();
    XString lang("LANG"), c("C"), bad("BAD"), v("1"), cmd("scp -t /tmp/");
    EXPECT_TRUE(ssh->sendReqSetEnv(ch, lang, c, sp, log));
    EXPECT_FALSE(ssh->sendReqSetEnv(ch, bad, v, sp, log));
    EXPECT_NE(logText().find("name: BAD"), std::string::npos);
    EXPECT_TRUE(ssh->sendReqExec(ch, cmd, sp, log));
    const ScriptedPeer& p0 = transport->peer(0);
    ASSERT_EQ(p0.envRequests.size(), 2u);
    EXPECT_EQ(p0.envRequests[0], std::make_pair(std::string("LANG"), std::string("C")));
    EXPECT_EQ(p0.execCommand, "scp -t /tmp/");

    int ch1 = open();
    EXPECT_FALSE(ssh->sendReqExec(ch1, cmd, sp, log));
    EXPECT_NE(logText().find("command: scp -t /tmp/"), std::string::npos);

    // Unknown channels fail rather than touch another channel's state.
    DataBuffer db = bytes("x");
    EXPECT_FALSE(ssh->channelSendData(77, db, sp, log));
    EXPECT_LT(ssh->channelRead(77, sp, log), 0);
    EXPECT_FALSE(ssh->channelSendClose(77, sp, log));

    transport->failOpen = true;
    EXPECT_LT(ssh->openSessionChannel(sp, log), 0);
    EXPECT_NE(logText().find("Failed to open a session channel."), std::string::npos);
    transport->connected = false;
    EXPECT_LT(ssh->openSessionChannel(sp, log), 0);
    EXPECT_NE(logText().find("Not connected to an SSH server."), std::string::npos);
}

TEST_F(SshChannelTest, ChannelsClosedBothWaysAreReleasedWhenTheNextOpens) {
    transport->peer(0).closeOnClientClose();
    transport->peer(1).close();  // the peer closed, the client did not
    SshReadParams rp;
    int a = open();
    ASSERT_TRUE(ssh->channelSendClose(a, sp, log));
    ASSERT_TRUE(ssh->channelReceiveUntilCondition(a, 1, rp, sp, log));
    int b = open();
    EXPECT_TRUE(transport->peer(0).released);
    ASSERT_TRUE(ssh->channelReceiveUntilCondition(b, 1, rp, sp, log));
    EXPECT_FALSE(transport->peer(1).clientSentClose);
    // The next open from the thread that used it answers the peer's CLOSE.
    open();
    EXPECT_TRUE(transport->peer(1).clientSentClose);
    EXPECT_TRUE(transport->peer(1).released);
}

TEST_F(SshChannelTest, ServerInfoComesFromTheTransport) {
    ssh->logServerInfo(log);
    EXPECT_NE(logText().find("serverVersion: scripted test peer"), std::string::npos);
    ClsSsh* bare = ClsSsh::createNewCls();
    _vqLogger other;
    bare->logServerInfo(other);
    std::string text;
    other.renderText(text);
    EXPECT_NE(text.find("Not connected to an SSH server."), std::string::npos);
    bare->decRefCount();
}

// Several callers share one connection, each on its own channel.
TEST_F(SshChannelTest, ThreadsSharingTheObjectEachGetTheirOwnChannelsBytes) {
    constexpr int kThreads = 4;
    std::vector<std::string> payload;
    for (int i = 0; i < kThreads; ++i) {
        payload.push_back(pattern(300 * 1024, 100 + static_cast<unsigned>(i)));
        // Every channel answers one written byte with its payload.
        transport->peer(i).awaitBytes(1).send(payload.back());
    }
    std::vector<std::string> got(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            _vqLogger l;
            SocketParams p(nullptr);
            int ch = ssh->openSessionChannel(p, l);
            if (ch < 0) return;
            // Channel numbers follow opening order; its script was set above.
            DataBuffer one = bytes(std::string(1, static_cast<char>('0' + ch)));
            if (!ssh->channelSendData(static_cast<unsigned>(ch), one, p, l)) return;
            DataBuffer db;
            OutputDataBuffer out(&db);
            if (ssh->channelReadNToOutput(ch, 300 * 1024, out, p, l)) got[ch] = str(db);
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_TRUE(got[i] == payload[i]) << "channel " << i;
        EXPECT_EQ(transport->peer(i).written, std::string(1, static_cast<char>('0' + i)));
    }
}

}  // namespace
}  // namespace scpkit::test
