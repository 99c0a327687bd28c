// ClsSsh: the object itself and every channel operation that file transfers
// drive, written once over SshTransport. Connecting, logging in and the
// connection properties live in ClsSshConnect.cpp.
#include <scpkit/ssh/ClsSsh.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include <scpkit/base/DataSource.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/ssh/SshTransport.h>

namespace scpkit {

namespace {

using Clock = std::chrono::steady_clock;

// No transport call blocks longer than this, so abort requests are seen
// promptly whatever the stall timeout is.
constexpr int kSliceMs = 100;

// While waiting for CLOSE, and for the error stream at any time, keep at
// most this much: a peer that keeps talking cannot grow memory without end.
constexpr size_t kMaxKeptWhileClosing = 4 * 1024 * 1024;
constexpr size_t kMaxStderrKept = 4 * 1024 * 1024;

// Consumed bytes at the front of a receive buffer are dropped only once
// they are this many and at least half of the buffer, so reading a little at
// a time does not move memory on every call.
constexpr size_t kCompactThreshold = 64 * 1024;

// A transfer uses one channel at a time and its channel operations follow
// one another closely. So a channel belongs to a transfer that has ended
// when the thread that last used it opens a new one, or when nothing has
// touched it for this long.
constexpr long long kReclaimIdleMs = 1000;
// How long to wait for the server to confirm the CLOSE of reclaimed channels.
constexpr long long kReclaimWaitMs = 2000;

long long msSince(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

// The next wait slice, or -1 when the idle time is used up (0 = no limit).
int nextSlice(int idleTimeoutMs, Clock::time_point lastMove) {
    if (idleTimeoutMs <= 0) return kSliceMs;
    long long left = idleTimeoutMs - msSince(lastMove);
    if (left <= 0) return -1;
    return static_cast<int>(std::min<long long>(kSliceMs, left));
}

void logStall(const char* what, int idleTimeoutMs, LogBase& log) {
    log.LogError(what);
    log.LogDataLong("stallTimeoutMs", idleTimeoutMs);
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

}  // namespace

struct ClsSsh::Channel {
    // Received data-stream bytes; those before readPos are already consumed.
    DataBuffer data;
    size_t readPos = 0;
    DataBuffer stderrBytes;
    bool receivedEof = false;
    bool receivedClose = false;
    bool sentClose = false;
    bool finished = false;  // its transfer has ended
    Clock::time_point lastUse = Clock::now();
    std::thread::id lastUser = std::this_thread::get_id();

    void touch() {
        lastUse = Clock::now();
        lastUser = std::this_thread::get_id();
    }

    size_t available() const { return data.getSize() - readPos; }
    const unsigned char* pending() const { return data.getData2() + readPos; }
    void consume(size_t n) {
        readPos += n;
        if (readPos >= data.getSize()) {
            data.clear();
            readPos = 0;
        }
    }
    bool appendData(const unsigned char* bytes, size_t n) {
        if (readPos >= kCompactThreshold && readPos * 2 >= data.getSize()) {
            data.removeFront(readPos);
            readPos = 0;
        }
        return data.append(bytes, n);
    }
    void mirrorInto(SocketParams& sp) const {
        sp.m_receivedEof = receivedEof;
        sp.m_receivedClose = receivedClose;
    }
};

ClsSsh* ClsSsh::createNewCls() {
    try {
        return new ClsSsh();
    } catch (...) {
        return nullptr;
    }
}

ClsSsh::ClsSsh() {
    m_hostKeyPolicy.setFromUtf8("yes");
}

ClsSsh::~ClsSsh() {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    if (m_transport) {
        for (auto& entry : m_channels) m_transport->releaseChannel(entry.first);
    }
    m_channels.clear();
}

void ClsSsh::useTransport(std::shared_ptr<SshTransport> transport) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    // Channels belong to the transport that opened them.
    if (m_transport) {
        for (auto& entry : m_channels) m_transport->releaseChannel(entry.first);
    }
    m_channels.clear();
    m_transport = std::move(transport);
}

void ClsSsh::put_StallTimeoutMs(int ms) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    m_stallTimeoutMs = ms < 0 ? 0 : ms;
}

int ClsSsh::get_StallTimeoutMs() {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    return m_stallTimeoutMs;
}

void ClsSsh::put_StderrToStdout(bool merge) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    m_stderrToStdout = merge;
}

bool ClsSsh::get_StderrToStdout() {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    return m_stderrToStdout;
}

ClsSsh::Channel* ClsSsh::findChannel(int channel) {
    auto it = m_channels.find(channel);
    if (it == m_channels.end()) return nullptr;
    it->second->touch();
    return it->second.get();
}

ClsSsh::Channel* ClsSsh::findChannelLogged(int channel, LogBase& log) {
    Channel* ch = findChannel(channel);
    if (!ch) {
        log.LogError("Unknown channel.");
        log.LogDataLong("channel", channel);
    }
    return ch;
}

unsigned char* ClsSsh::scratch() {
    if (m_scratch.size() < kChunkSize) m_scratch.resize(kChunkSize);
    return m_scratch.data();
}

bool ClsSsh::isDoneWith(const Channel& ch) const {
    return ch.finished || ch.lastUser == std::this_thread::get_id() ||
           msSince(ch.lastUse) >= kReclaimIdleMs;
}

void ClsSsh::releaseFinishedChannels() {
    LogNull quiet;
    for (auto it = m_channels.begin(); it != m_channels.end();) {
        Channel& ch = *it->second;
        // A CLOSE from the server is answered with one (RFC 4254, 5.3); until
        // then the server counts the session as open. Downloads never send
        // their own.
        if (ch.receivedClose && !ch.sentClose && isDoneWith(ch) && m_transport &&
            m_transport->sendClose(it->first, quiet))
            ch.sentClose = true;
        if (ch.sentClose && ch.receivedClose && isDoneWith(ch)) {
            if (m_transport) m_transport->releaseChannel(it->first);
            it = m_channels.erase(it);
        } else {
            ++it;
        }
    }
}

bool ClsSsh::reclaimIdleChannels(SocketParams& sp, LogBase& log) {
    // Those closed earlier whose confirmation was never read count too.
    std::vector<int> closing;
    for (auto& [id, ch] : m_channels) {
        if (ch->sentClose && ch->receivedClose) continue;
        if (!ch->sentClose) {
            if (!isDoneWith(*ch) || !m_transport->sendClose(id, log)) continue;
            ch->sentClose = true;
        }
        closing.push_back(id);
    }
    if (closing.empty()) return false;
    log.LogInfo("Closing channels left by earlier transfers.");
    log.LogDataLong("numChannels", static_cast<int32_t>(closing.size()));
    Clock::time_point start = Clock::now();
    for (int id : closing) {
        Channel& ch = *m_channels[id];
        while (!ch.receivedClose && msSince(start) < kReclaimWaitMs && !sp.spAbortCheck(log)) {
            bool moved = false;  // what still arrives is discarded
            if (pollTransport(id, ch, scratch(), kChunkSize, kSliceMs, moved, log) < 0) break;
        }
    }
    releaseFinishedChannels();
    return true;
}

void ClsSsh::logServerInfo(LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    if (!m_transport || !m_transport->isConnected()) {
        log.LogInfo("Not connected to an SSH server.");
        return;
    }
    m_transport->describeServer(log);
}

int ClsSsh::openSessionChannel(SocketParams& sp, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    if (!m_transport || !m_transport->isConnected()) {
        log.LogError("Not connected to an SSH server.");
        return -1;
    }
    if (sp.spAbortCheck(log)) return -1;
    releaseFinishedChannels();
    int channel = m_transport->openChannel(log);
    // Servers allow a few sessions per connection (OpenSSH: MaxSessions 10),
    // and a failed transfer leaves its channel open here: once the server
    // refuses a new one, those are closed and the open is tried again, for a
    // little while, as the server frees a session a moment after its CLOSE.
    if (channel < 0 && reclaimIdleChannels(sp, log)) {
        Clock::time_point start = Clock::now();
        LogNull quiet;
        while (channel < 0 && msSince(start) < kReclaimWaitMs && !sp.spAbortCheck(log)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kSliceMs / 2));
            channel = m_transport->openChannel(quiet);
        }
        if (channel < 0) channel = m_transport->openChannel(log);
    }
    if (channel < 0) {
        log.LogError("Failed to open a session channel.");
        return -1;
    }
    try {
        m_channels[channel] = std::make_unique<Channel>();
    } catch (...) {
        m_transport->releaseChannel(channel);
        log.LogError("Out of memory.");
        return -1;
    }
    sp.m_receivedEof = false;
    sp.m_receivedClose = false;
    if (log.m_verboseLogging) log.LogDataLong("channel", channel);
    return channel;
}

bool ClsSsh::sendReqSetEnv(int channel, XString& name, XString& value, SocketParams& sp,
                           LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    if (!findChannelLogged(channel, log)) return false;
    if (sp.spAbortCheck(log)) return false;
    if (!m_transport->setEnv(channel, name.getUtf8(), value.getUtf8(), log)) {
        log.LogError("The server refused the environment variable.");
        log.LogDataX("name", name);
        return false;
    }
    if (log.m_verboseLogging) {
        log.LogDataX("envName", name);
        log.LogDataX("envValue", value);
    }
    return true;
}

bool ClsSsh::sendReqExec(int channel, XString& command, SocketParams& sp, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    if (!findChannelLogged(channel, log)) return false;
    if (sp.spAbortCheck(log)) return false;
    if (!m_transport->exec(channel, command.getUtf8(), log)) {
        log.LogError("The server refused to run the command.");
        log.LogDataX("command", command);
        return false;
    }
    return true;
}

long ClsSsh::pollTransport(int channel, Channel& ch, unsigned char* buf, size_t cap, int sliceMs,
                           bool& moved, LogBase& log) {
    DataBuffer errBytes;
    Clock::time_point start = Clock::now();
    long n = m_transport->read(channel, buf, cap, errBytes, sliceMs, log);
    ch.touch();
    moved = n > 0;
    if (errBytes.getSize() > 0) {
        moved = true;
        if (m_stderrToStdout) {
            ch.appendData(errBytes.getData2(), errBytes.getSize());
        } else if (ch.stderrBytes.getSize() < kMaxStderrKept) {
            size_t room = kMaxStderrKept - ch.stderrBytes.getSize();
            ch.stderrBytes.append(errBytes.getData2(), std::min(room, errBytes.getSize()));
        }
    }
    if (n == 0) {
        // Only an empty read proves the data stream has nothing left before
        // EOF; the transport may report EOF while it still buffers bytes.
        bool eof = ch.receivedEof || m_transport->receivedEof(channel);
        bool close = ch.receivedClose || m_transport->receivedClose(channel);
        if (eof != ch.receivedEof || close != ch.receivedClose) moved = true;
        ch.receivedEof = eof;
        ch.receivedClose = close;
        // A transport that returns at once (as after EOF) must not make a
        // waiting caller spin.
        if (!moved) {
            long long left = sliceMs - msSince(start);
            if (left > 1)
                std::this_thread::sleep_for(std::chrono::milliseconds(std::min(left, 10LL)));
        }
    }
    return n;
}

long ClsSsh::readSome(int channel, Channel& ch, unsigned char* buf, size_t cap, int idleTimeoutMs,
                      SocketParams& sp, LogBase& log) {
    Clock::time_point lastMove = Clock::now();
    unsigned char* target = buf ? buf : scratch();
    if (!buf) cap = std::min(cap, kChunkSize);
    for (;;) {
        ch.mirrorInto(sp);
        if (ch.receivedEof || ch.receivedClose) return 0;  // nothing more can arrive
        if (sp.spAbortCheck(log)) return -1;
        int slice = nextSlice(idleTimeoutMs, lastMove);
        if (slice < 0) {
            logStall("No data received within the stall timeout.", idleTimeoutMs, log);
            return -1;
        }
        size_t bufferedBefore = ch.available();
        bool moved = false;
        long n = pollTransport(channel, ch, target, cap, slice, moved, log);
        ch.mirrorInto(sp);
        if (n < 0) {
            log.LogError("Failed to read from the channel.");
            log.LogDataLong("channel", channel);
            return -1;
        }
        size_t merged = ch.available() - bufferedBefore;  // error-stream bytes taken as data
        if (!buf) {
            if (n > 0 && !ch.appendData(target, static_cast<size_t>(n))) {
                log.LogError("Out of memory.");
                return -1;
            }
            if (n > 0 || merged > 0) return n + static_cast<long>(merged);
        } else {
            if (n > 0) return n;
            if (merged > 0) return 0;  // the caller finds them in the channel's buffer
        }
        if (moved) lastMove = Clock::now();
    }
}

bool ClsSsh::writeAll(int channel, const unsigned char* data, size_t numBytes, SocketParams& sp,
                      LogBase& log) {
    Clock::time_point lastMove = Clock::now();
    size_t sent = 0;
    while (sent < numBytes) {
        if (sp.spAbortCheck(log)) return false;
        int slice = nextSlice(m_stallTimeoutMs, lastMove);
        if (slice < 0) {
            logStall("No data could be sent within the stall timeout.", m_stallTimeoutMs, log);
            return false;
        }
        long n = m_transport->write(channel, data + sent, numBytes - sent, slice, log);
        if (n < 0) {
            log.LogError("Failed to send data on the channel.");
            log.LogDataLong("channel", channel);
            return false;
        }
        if (n > 0) {
            sent += static_cast<size_t>(n);
            lastMove = Clock::now();
            findChannel(channel);  // marks the channel as in use
        }
    }
    return true;
}

bool ClsSsh::channelSendData(unsigned channel, DataBuffer& data, SocketParams& sp, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    int ch = static_cast<int>(channel);
    if (!findChannelLogged(ch, log)) return false;
    return writeAll(ch, data.getData2(), data.getSize(), sp, log);
}

bool ClsSsh::channelSendNFromSource(int channel, _vqDataSource& source, long long numBytes,
                                    SocketParams& sp, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    if (!findChannelLogged(channel, log)) return false;
    if (numBytes < 0) {
        log.LogError("Invalid number of bytes to send.");
        log.LogDataInt64("numBytes", numBytes);
        return false;
    }
    unsigned char* buf = scratch();
    ProgressMonitor* pm = source.m_reportsProgress ? sp.m_progressMonitor : nullptr;
    long long remaining = numBytes;
    while (remaining > 0) {
        size_t want = static_cast<size_t>(std::min<long long>(remaining, kChunkSize));
        size_t got = 0;
        if (!source.readSourceChunk(buf, want, got, log)) {
            log.LogError("Failed to read from the data source.");
            return false;
        }
        if (got == 0) {
            log.LogError("The data source ended before all bytes were sent.");
            log.LogDataInt64("numBytesExpected", numBytes);
            log.LogDataInt64("numBytesSent", numBytes - remaining);
            return false;
        }
        got = std::min(got, want);
        if (!writeAll(channel, buf, got, sp, log)) return false;
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
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannelLogged(channel, log);
    if (!ch) return false;
    if (numBytes < 0) {
        log.LogError("Invalid number of bytes to read.");
        log.LogDataInt64("numBytes", numBytes);
        return false;
    }
    ProgressMonitor* pm = sp.m_progressMonitor;
    out.expectBytes(numBytes);
    long long remaining = numBytes;
    while (remaining > 0) {
        // Bytes already received go first; the rest comes straight from the
        // transport, never more than is still owed.
        if (ch->available() > 0) {
            size_t take = static_cast<size_t>(
                std::min<long long>(remaining, static_cast<long long>(ch->available())));
            if (!out.writeBytes(ch->pending(), take, pm, log)) {
                logOutputFailure(sp, log);
                return false;
            }
            ch->consume(take);
            remaining -= static_cast<long long>(take);
            continue;
        }
        size_t want = static_cast<size_t>(std::min<long long>(remaining, kChunkSize));
        unsigned char* buf = scratch();
        long n = readSome(channel, *ch, buf, want, m_stallTimeoutMs, sp, log);
        if (n < 0) return false;
        if (n > 0) {
            if (!out.writeBytes(buf, static_cast<size_t>(n), pm, log)) {
                logOutputFailure(sp, log);
                return false;
            }
            remaining -= n;
            continue;
        }
        if (ch->available() == 0 && (ch->receivedEof || ch->receivedClose)) {
            log.LogError("Channel closed before all data was received.");
            log.LogDataInt64("numBytesExpected", numBytes);
            log.LogDataInt64("numBytesReceived", numBytes - remaining);
            return false;
        }
    }
    ch->mirrorInto(sp);
    return true;
}

int ClsSsh::channelRead(int channel, SocketParams& sp, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannelLogged(channel, log);
    if (!ch) return -1;
    ch->mirrorInto(sp);
    // A channel the peer closed earlier will never deliver again; saying so
    // keeps a caller that waits for EOF from looping.
    if (ch->receivedClose && !ch->receivedEof) {
        log.LogError("The channel was already closed by the server.");
        return -1;
    }
    long n = readSome(channel, *ch, nullptr, kChunkSize, m_stallTimeoutMs, sp, log);
    if (n < 0) return -1;
    return static_cast<int>(n);
}

bool ClsSsh::receivedDataContainsChar(int channel, char c) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannel(channel);
    if (!ch || ch->available() == 0) return false;
    return std::memchr(ch->pending(), static_cast<unsigned char>(c), ch->available()) != nullptr;
}

void ClsSsh::getReceivedData(int channel, DataBuffer& out, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannelLogged(channel, log);
    if (!ch) return;
    if (ch->available() == 0) return;
    if (out.getSize() == 0 && ch->readPos == 0) {
        out.swapWith(ch->data);  // everything is unread: hand the bytes over
        ch->data.clear();
    } else {
        out.append(ch->pending(), ch->available());
    }
    ch->consume(ch->available());
}

bool ClsSsh::getReceivedDataThrough(int channel, char delimiter, DataBuffer& out, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannelLogged(channel, log);
    if (!ch || ch->available() == 0) return false;
    const void* found =
        std::memchr(ch->pending(), static_cast<unsigned char>(delimiter), ch->available());
    if (!found) return false;
    size_t n = static_cast<size_t>(static_cast<const unsigned char*>(found) - ch->pending()) + 1;
    if (!out.append(ch->pending(), n)) {
        log.LogError("Out of memory.");
        return false;
    }
    ch->consume(n);
    return true;
}

void ClsSsh::getReceivedStderrText(int channel, const char* charset, XString& out, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannelLogged(channel, log);
    if (!ch) return;
    if (ch->stderrBytes.getSize() == 0) return;
    XString text;
    LogNull quiet;  // undecodable text is still shown: the raw bytes below
    if (ClsBase::dbToXString(XString(charset ? charset : "utf-8"), ch->stderrBytes, text, quiet)) {
        out.appendX(text);
    } else {
        out.getUtf8Sb_rw().appendN(reinterpret_cast<const char*>(ch->stderrBytes.getData2()),
                                   ch->stderrBytes.getSize());
    }
}

bool ClsSsh::channelReceivedEof(int channel, LogBase& log) {
    (void)log;
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannel(channel);
    return ch && ch->receivedEof;
}

bool ClsSsh::channelReceivedClose(int channel, LogBase& log) {
    (void)log;
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannel(channel);
    return ch && ch->receivedClose;
}

bool ClsSsh::channelSendClose(int channel, SocketParams& sp, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannelLogged(channel, log);
    if (!ch) return false;
    (void)sp;
    if (ch->sentClose) return true;
    if (!m_transport->sendClose(channel, log)) {
        log.LogError("Failed to send the channel CLOSE message.");
        log.LogDataLong("channel", channel);
        return false;
    }
    ch->sentClose = true;
    return true;
}

bool ClsSsh::channelReceiveUntilCondition(int channel, unsigned condition, SshReadParams& rp,
                                          SocketParams& sp, LogBase& log) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    Channel* ch = findChannelLogged(channel, log);
    if (!ch) return false;
    if (condition != 1) {
        log.LogError("Unsupported receive condition.");
        log.LogDataLong("condition", static_cast<int32_t>(condition));
        return false;
    }
    int idleTimeoutMs = rp.idleTimeoutMs >= 0 ? rp.idleTimeoutMs : m_stallTimeoutMs;
    unsigned char* buf = scratch();
    Clock::time_point lastMove = Clock::now();
    bool capLogged = false;
    for (;;) {
        ch->mirrorInto(sp);
        if (ch->receivedClose) return true;
        if (sp.spAbortCheck(log)) return false;
        int slice = nextSlice(idleTimeoutMs, lastMove);
        if (slice < 0) {
            logStall("No channel CLOSE received within the stall timeout.", idleTimeoutMs, log);
            return false;
        }
        bool moved = false;
        long n = pollTransport(channel, *ch, buf, kChunkSize, slice, moved, log);
        if (n < 0) {
            ch->mirrorInto(sp);
            log.LogError("Failed to read from the channel.");
            log.LogDataLong("channel", channel);
            return false;
        }
        if (n > 0) {
            size_t kept = ch->available();
            size_t room = kept < kMaxKeptWhileClosing ? kMaxKeptWhileClosing - kept : 0;
            size_t keep = std::min(room, static_cast<size_t>(n));
            if (keep > 0) ch->appendData(buf, keep);
            if (keep < static_cast<size_t>(n) && !capLogged && log.m_verboseLogging) {
                log.LogInfo("Discarding data received while waiting for the channel CLOSE.");
                capLogged = true;
            }
        }
        if (moved) lastMove = Clock::now();
    }
}

void ClsSsh::channelFinished(int channel) {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    auto it = m_channels.find(channel);
    if (it != m_channels.end()) it->second->finished = true;
}

}  // namespace scpkit
