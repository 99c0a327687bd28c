// ClsSsh: the object and the channel operations that file transfers drive,
// written once over ChannelTable (channels, their reclaim, the waits) and
// SshTransport (the connection). Connecting and logging in are in
// ClsSshConnect.cpp, the properties in ClsSshProperties.cpp.
#include <scpkit/ssh/ClsSsh.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <string>

#include <scpkit/base/DataSource.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/ssh/ChannelTable.h>
#include <scpkit/ssh/LibsshTransport.h>
#include <scpkit/ssh/SshTransport.h>

namespace scpkit {

namespace {

using WaitEnd = ChannelTable::WaitEnd;
using Clock = ChannelTable::Clock;

// A read of at least this many bytes is a bulk read: the table's I/O thread
// pumps while the reader writes to its output.
constexpr long long kBulkBytes = 1 << 20;
// A bulk reader that finds nothing buffered sleeps until this many bytes are
// (or kPartialMs passed with fewer), and hands at most kMaxPiece at a time to
// its output.
constexpr size_t kWakeBytes = 128 * 1024;
constexpr long long kPartialMs = 20;
constexpr size_t kMaxPiece = 512 * 1024;

// The channel, or null with "Unknown channel." logged.
std::shared_ptr<SshChannel> channelFor(ChannelTable& table, int channel, LogBase* log) {
    std::shared_ptr<SshChannel> ch;
    {
        ChannelTable::Lock lock = table.lock();
        ch = table.find(channel);
    }
    if (!ch && log) {
        log->LogError("Unknown channel.");
        log->LogDataLong("channel", channel);
    }
    return ch;
}

void logSshError(SshTransport& transport, LogBase& log) {
    std::string why = transport.lastError();
    if (!why.empty()) log.LogData("sshError", why.c_str());
}

// Reports an output's refusal: an abort is logged as such by the abort check.
void logOutputFailure(SocketParams& sp, LogBase& log) {
    ProgressMonitor* pm = sp.m_progressMonitor;
    if (pm && pm->abortRequested()) {
        sp.spAbortCheck(log);
        return;
    }
    log.LogError("Failed to write the received data to the output.");
}

// Counts a bulk read for the table while it runs.
class BulkRead {
  public:
    BulkRead(ChannelTable& table, bool bulk) : m_table(bulk ? &table : nullptr) {
        if (m_table) m_table->beginBulk();
    }
    ~BulkRead() {
        if (m_table) m_table->endBulk();
    }
    BulkRead(const BulkRead&) = delete;
    BulkRead& operator=(const BulkRead&) = delete;

  private:
    ChannelTable* m_table;
};

// Logs why a wait ended without what it waited for (an abort was logged by
// the abort check itself).
void logWaitEnd(ChannelTable& table, WaitEnd end, const char* stalled, int channel,
                int idleTimeoutMs, LogBase& log) {
    if (end == WaitEnd::Stalled) {
        log.LogError(stalled);
        log.LogDataLong("stallTimeoutMs", idleTimeoutMs);
    } else if (end == WaitEnd::Lost) {
        log.LogError("The SSH connection was lost.");
        log.LogDataLong("channel", channel);
        if (std::shared_ptr<SshTransport> t = table.transport()) logSshError(*t, log);
    }
}

}  // namespace

ClsSsh* ClsSsh::createNewCls() {
    try {
        return new ClsSsh();
    } catch (...) {
        return nullptr;
    }
}

ClsSsh::ClsSsh() : m_table(std::make_unique<ChannelTable>()) {
    m_hostKeyPolicy.setFromUtf8("yes");
}

ClsSsh::~ClsSsh() = default;

void ClsSsh::useTransport(std::shared_ptr<SshTransport> transport) {
    CritSecExitor cs(m_critSec);
    m_session.reset();
    m_table->attach(std::move(transport));
}

void ClsSsh::logServerInfo(LogBase& log) {
    std::shared_ptr<SshTransport> t = m_table->transport();
    if (!t || !t->isConnected()) {
        log.LogInfo("Not connected to an SSH server.");
        return;
    }
    t->describeServer(log);
}

int ClsSsh::openSessionChannel(SocketParams& sp, LogBase& log) {
    std::shared_ptr<SshTransport> t = m_table->transport();
    if (!t || !t->isConnected()) {
        log.LogError("Not connected to an SSH server.");
        return -1;
    }
    if (sp.spAbortCheck(log)) return -1;
    int channel = m_table->open(get_StderrToStdout(), sp, log);
    if (channel < 0) return -1;
    sp.m_receivedEof = false;
    sp.m_receivedClose = false;
    if (log.m_verboseLogging) log.LogDataLong("channel", channel);
    return channel;
}

bool ClsSsh::sendReqSetEnv(int channel, XString& name, XString& value, SocketParams& sp,
                           LogBase& log) {
    std::shared_ptr<SshTransport> t = m_table->transport();
    if (!channelFor(*m_table, channel, &log) || !t || sp.spAbortCheck(log)) return false;
    if (!t->setEnv(channel, name.getUtf8(), value.getUtf8())) {
        log.LogError("The server refused the environment variable.");
        log.LogDataX("name", name);
        if (!t->isConnected()) logSshError(*t, log);
        return false;
    }
    if (log.m_verboseLogging) {
        log.LogDataX("envName", name);
        log.LogDataX("envValue", value);
    }
    return true;
}

bool ClsSsh::sendReqExec(int channel, XString& command, SocketParams& sp, LogBase& log) {
    std::shared_ptr<SshTransport> t = m_table->transport();
    if (!channelFor(*m_table, channel, &log) || !t || sp.spAbortCheck(log)) return false;
    notifyExec(command);
    if (!t->exec(channel, command.getUtf8())) {
        log.LogError("The server refused to run the command.");
        log.LogDataX("command", command);
        logSshError(*t, log);
        return false;
    }
    return true;
}

bool ClsSsh::writeAll(int channel, const unsigned char* data, size_t numBytes, SocketParams& sp,
                      LogBase& log) {
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, &log);
    std::shared_ptr<SshTransport> t = m_table->transport();
    if (!ch || !t) return false;
    const int idleTimeoutMs = get_StallTimeoutMs();
    size_t sent = 0;
    while (sent < numBytes) {
        if (sp.spAbortCheck(log)) return false;
        uint64_t writable;
        {
            ChannelTable::Lock lock = m_table->lock();
            writable = ch->writable;
        }
        long n = t->write(channel, data + sent, numBytes - sent);
        if (n < 0) {
            log.LogError("Failed to send data on the channel.");
            log.LogDataLong("channel", channel);
            logSshError(*t, log);
            return false;
        }
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        // The peer's window is closed: wait until it reopens.
        ChannelTable::Lock lock = m_table->lock();
        WaitEnd end = m_table->waitUntil(lock, *ch, idleTimeoutMs, sp, log, [&] {
            return ch->writable != writable || ch->closeArrived();
        });
        lock.unlock();
        if (end != WaitEnd::Done) {
            logWaitEnd(*m_table, end, "No data could be sent within the stall timeout.", channel,
                       idleTimeoutMs, log);
            return false;
        }
    }
    return true;
}

bool ClsSsh::channelSendData(unsigned channel, DataBuffer& data, SocketParams& sp, LogBase& log) {
    return writeAll(static_cast<int>(channel), data.getData2(), data.getSize(), sp, log);
}

bool ClsSsh::channelSendNFromSource(int channel, _vqDataSource& source, long long numBytes,
                                    SocketParams& sp, LogBase& log) {
    if (!channelFor(*m_table, channel, &log)) return false;
    if (numBytes < 0) {
        log.LogError("Invalid number of bytes to send.");
        log.LogDataInt64("numBytes", numBytes);
        return false;
    }
    std::unique_ptr<unsigned char[]> chunk;  // for sources that only copy
    ProgressMonitor* pm = source.m_reportsProgress ? sp.m_progressMonitor : nullptr;
    long long remaining = numBytes;
    while (remaining > 0) {
        size_t want = static_cast<size_t>(std::min<long long>(remaining, kChunkSize));
        const unsigned char* piece = nullptr;
        size_t got = 0;
        if (!source.lendSourceChunk(piece, want, got)) {
            if (!chunk) chunk.reset(new (std::nothrow) unsigned char[want]);  // the largest ask
            if (!chunk) {
                log.LogError("Out of memory.");
                return false;
            }
            if (!source.readSourceChunk(chunk.get(), want, got, log)) {
                log.LogError("Failed to read from the data source.");
                return false;
            }
            piece = chunk.get();
        }
        if (got == 0) {
            log.LogError("The data source ended before all bytes were sent.");
            log.LogDataInt64("numBytesExpected", numBytes);
            log.LogDataInt64("numBytesSent", numBytes - remaining);
            return false;
        }
        got = std::min(got, want);
        if (!writeAll(channel, piece, got, sp, log)) return false;
        remaining -= static_cast<long long>(got);
        if (pm && pm->consumeProgress(static_cast<int64_t>(got), &log)) {
            sp.spAbortCheck(log);
            return false;
        }
    }
    return true;
}

bool ClsSsh::channelReadNToOutput(int channel, long long numBytes, _vqOutput& out, SocketParams& sp,
                                  LogBase& log) {
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, &log);
    if (!ch) return false;
    if (numBytes < 0) {
        log.LogError("Invalid number of bytes to read.");
        log.LogDataInt64("numBytes", numBytes);
        return false;
    }
    out.expectBytes(numBytes);
    return readIntoOutput(*ch, numBytes, out, sp, log);
}

bool ClsSsh::readIntoOutput(SshChannel& ch, long long numBytes, _vqOutput& out, SocketParams& sp,
                            LogBase& log) {
    const int idleTimeoutMs = get_StallTimeoutMs();
    ProgressMonitor* pm = sp.m_progressMonitor;
    BulkRead bulk(*m_table, numBytes >= kBulkBytes);
    long long remaining = numBytes;
    ChannelTable::Lock lock = m_table->lock();
    while (remaining > 0) {
        if (ch.data.size() == 0) {
            if (ch.ended()) {
                bool closeDue = ch.learnEnd();
                ch.mirrorInto(sp);
                lock.unlock();
                if (closeDue) m_table->settle();
                log.LogError("Channel closed before all data was received.");
                log.LogDataInt64("numBytesExpected", numBytes);
                log.LogDataInt64("numBytesReceived", numBytes - remaining);
                return false;
            }
            size_t want = numBytes >= kBulkBytes
                              ? static_cast<size_t>(std::min<long long>(remaining, kWakeBytes))
                              : 1;
            Clock::time_point start = Clock::now();
            ch.wantBytes = want;
            WaitEnd end = m_table->waitUntil(lock, ch, idleTimeoutMs, sp, log, [&] {
                size_t have = ch.data.size();
                return have >= want || ch.ended() ||
                       (have > 0 && Clock::now() - start >= std::chrono::milliseconds(kPartialMs));
            });
            ch.wantBytes = 1;
            if (end != WaitEnd::Done) {
                ch.mirrorInto(sp);
                lock.unlock();
                logWaitEnd(*m_table, end, "No data received within the stall timeout.", ch.id,
                           idleTimeoutMs, log);
                return false;
            }
            continue;
        }
        // Never more than is still owed: what follows stays for the next read.
        size_t piece = 0;
        const unsigned char* bytes = ch.data.front(&piece);
        piece = std::min({piece, kMaxPiece, static_cast<size_t>(remaining)});
        ch.readerBusy = true;  // the storage under `bytes` stays put
        lock.unlock();
        bool aborted = sp.spAbortCheck(log);
        bool written = !aborted && out.writeBytes(bytes, piece, pm, log);
        lock.lock();
        ch.readerBusy = false;
        if (aborted) return false;
        ch.consume(piece);
        remaining -= static_cast<long long>(piece);
        m_table->takeBackHeld(lock, ch);
        if (!written) {
            lock.unlock();
            logOutputFailure(sp, log);
            return false;
        }
    }
    ch.mirrorInto(sp);
    return true;
}

int ClsSsh::channelRead(int channel, SocketParams& sp, LogBase& log) {
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, &log);
    if (!ch) return -1;
    const int idleTimeoutMs = get_StallTimeoutMs();
    ChannelTable::Lock lock = m_table->lock();
    ch->mirrorInto(sp);
    // A channel the server closed without EOF will never deliver again:
    // saying so keeps a caller that waits for EOF from looping.
    if (ch->closeKnown && !ch->eofKnown) {
        lock.unlock();
        log.LogError("The channel was already closed by the server.");
        return -1;
    }
    if (ch->eofKnown) return 0;
    WaitEnd end = m_table->waitUntil(lock, *ch, idleTimeoutMs, sp, log,
                                     [&] { return ch->unreported > 0 || ch->ended(); });
    if (end != WaitEnd::Done) {
        lock.unlock();
        logWaitEnd(*m_table, end, "No data received within the stall timeout.", channel,
                   idleTimeoutMs, log);
        return -1;
    }
    if (ch->unreported > 0) {
        int n = static_cast<int>(std::min<size_t>(ch->unreported, 1 << 30));
        ch->unreported = 0;
        return n;
    }
    bool closeDue = ch->learnEnd();
    ch->mirrorInto(sp);
    lock.unlock();
    if (closeDue) m_table->settle();
    return 0;
}

bool ClsSsh::receivedDataContainsChar(int channel, char c) {
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, nullptr);
    ChannelTable::Lock lock = m_table->lock();
    return ch && ch->data.countThrough(static_cast<unsigned char>(c)) > 0;
}

void ClsSsh::getReceivedData(int channel, DataBuffer& out, LogBase& log) {
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, &log);
    if (!ch) return;
    ChannelTable::Lock lock = m_table->lock();
    size_t n = ch->data.size();
    bool copied = ch->data.copyTo(n, out);
    ch->consume(n);
    m_table->takeBackHeld(lock, *ch);
    lock.unlock();
    if (!copied) log.LogError("Out of memory.");
}

bool ClsSsh::getReceivedDataThrough(int channel, char delimiter, DataBuffer& out, LogBase& log) {
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, &log);
    if (!ch) return false;
    ChannelTable::Lock lock = m_table->lock();
    size_t n = ch->data.countThrough(static_cast<unsigned char>(delimiter));
    if (n == 0) return false;
    if (!ch->data.copyTo(n, out)) {
        lock.unlock();
        log.LogError("Out of memory.");
        return false;
    }
    ch->consume(n);
    m_table->takeBackHeld(lock, *ch);
    return true;
}

void ClsSsh::getReceivedStderrText(int channel, const char* charset, XString& out, LogBase& log) {
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, &log);
    if (!ch) return;
    DataBuffer bytes;
    {
        ChannelTable::Lock lock = m_table->lock();
        bytes.append(ch->stderrBytes);
    }
    if (bytes.getSize() == 0) return;
    XString text;
    LogNull quiet;  // undecodable text is still shown: the raw bytes below
    if (ClsBase::dbToXString(XString(charset ? charset : "utf-8"), bytes, text, quiet)) {
        out.appendX(text);
    } else {
        out.getUtf8Sb_rw().appendN(reinterpret_cast<const char*>(bytes.getData2()),
                                   bytes.getSize());
    }
}

bool ClsSsh::channelReceivedEof(int channel, LogBase& log) {
    (void)log;
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, nullptr);
    ChannelTable::Lock lock = m_table->lock();
    return ch && ch->eofKnown;
}

bool ClsSsh::channelReceivedClose(int channel, LogBase& log) {
    (void)log;
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, nullptr);
    ChannelTable::Lock lock = m_table->lock();
    return ch && ch->closeKnown;
}

bool ClsSsh::channelSendClose(int channel, SocketParams& sp, LogBase& log) {
    (void)sp;
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, &log);
    std::shared_ptr<SshTransport> t = m_table->transport();
    if (!ch || !t) return false;
    {
        ChannelTable::Lock lock = m_table->lock();
        if (ch->sentClose) return true;
        ch->sentClose = true;
    }
    if (t->sendClose(channel)) return true;
    log.LogError("Failed to send the channel CLOSE message.");
    log.LogDataLong("channel", channel);
    logSshError(*t, log);
    return false;
}

bool ClsSsh::channelReceiveUntilCondition(int channel, unsigned condition, SshReadParams& rp,
                                          SocketParams& sp, LogBase& log) {
    std::shared_ptr<SshChannel> ch = channelFor(*m_table, channel, &log);
    if (!ch) return false;
    if (condition != 1) {
        log.LogError("Unsupported receive condition.");
        log.LogDataLong("condition", static_cast<int32_t>(condition));
        return false;
    }
    int idleTimeoutMs = rp.idleTimeoutMs >= 0 ? rp.idleTimeoutMs : get_StallTimeoutMs();
    ChannelTable::Lock lock = m_table->lock();
    // A peer that keeps talking until it closes cannot grow memory without
    // end: beyond the channel's buffer, what arrives is dropped.
    ch->discardOverflow = true;
    WaitEnd end =
        m_table->waitUntil(lock, *ch, idleTimeoutMs, sp, log, [&] { return ch->closeReceived(); });
    bool closeDue = end == WaitEnd::Done && ch->learnEnd();
    ch->mirrorInto(sp);
    bool dropped = ch->overflowed;
    lock.unlock();
    if (closeDue) m_table->settle();
    if (dropped && log.m_verboseLogging)
        log.LogInfo("Discarding data received while waiting for the channel CLOSE.");
    if (end == WaitEnd::Done) return true;
    logWaitEnd(*m_table, end, "No channel CLOSE received within the stall timeout.", channel,
               idleTimeoutMs, log);
    return false;
}

void ClsSsh::channelFinished(int channel) {
    m_table->finish(channel);
}

}  // namespace scpkit
