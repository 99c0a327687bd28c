#include <scpkit/ssh/SshChannel.h>

#include <algorithm>

#include <scpkit/base/Progress.h>
#include <scpkit/ssh/ChannelTable.h>

namespace scpkit {

SshChannel::SshChannel(ChannelTable& table, std::mutex& lock, bool mergeStderr)
    : m_table(table), m_lock(lock), m_mergeStderr(mergeStderr) {}

size_t SshChannel::onData(const unsigned char* bytes, size_t numBytes, bool isStderr,
                          size_t heldBehind) {
    std::lock_guard<std::mutex> guard(m_lock);
    bool wasEnded = ended();
    size_t before = data.size();
    size_t taken = numBytes;
    if (isStderr && !m_mergeStderr) {
        // Kept apart and bounded; never declined, so the data stream never
        // waits behind error text nobody reads.
        size_t kept = stderrBytes.getSize();
        if (kept < kMaxStderrKept)
            stderrBytes.append(bytes, std::min(numBytes, kMaxStderrKept - kept));
    } else {
        taken = data.append(bytes, numBytes, !readerBusy);
        if (taken < numBytes && (discardOverflow || isStderr)) {
            overflowed = true;
            taken = numBytes;
        }
        if (!isStderr) m_held = numBytes - taken + heldBehind;
    }
    unreported += data.size() - before;
    ++activity;
    if (closeReceived()) m_table.closeDue();
    m_table.delivered(*this, data.size() >= wantBytes || (ended() && !wasEnded));
    return taken;
}

size_t SshChannel::freeSpace() {
    std::lock_guard<std::mutex> guard(m_lock);
    return discardOverflow ? kMaxBuffered : data.room(!readerBusy);
}

void SshChannel::onEof() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_eofArrived = true;
    ++activity;
    m_table.delivered(*this, eofReceived());
}

void SshChannel::onClose() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_closeArrived = true;
    ++activity;
    m_table.closeDue();
    m_table.delivered(*this, closeReceived());
}

void SshChannel::onWritable() {
    std::lock_guard<std::mutex> guard(m_lock);
    ++writable;
    m_table.delivered(*this, true);
}

void SshChannel::consume(size_t numBytes) {
    data.consume(numBytes);
    unreported = std::min(unreported, data.size());
}

bool SshChannel::learnEnd() {
    eofKnown = eofKnown || eofReceived();
    if (closeKnown || !closeReceived()) return false;
    closeKnown = true;
    m_table.closeDue();
    return true;
}

void SshChannel::mirrorInto(SocketParams& sp) const {
    sp.m_receivedEof = eofKnown;
    sp.m_receivedClose = closeKnown;
}

}  // namespace scpkit
