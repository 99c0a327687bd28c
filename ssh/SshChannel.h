// One session channel as ClsSsh keeps it: what has arrived (data, error
// text, EOF, CLOSE), how far the closing has gone, and the threads waiting
// for it. The transport delivers into it; everything else reads and changes
// it with the channel table's lock held.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/ssh/ByteRing.h>
#include <scpkit/ssh/SshTransport.h>

namespace scpkit {

class ChannelTable;
class SocketParams;

class SshChannel : public ChannelInbox {
  public:
    // At most this many received bytes wait in a channel; beyond it the
    // transport keeps them, and the peer's window closes.
    static constexpr size_t kMaxBuffered = 2 * 1024 * 1024;
    static constexpr size_t kMaxStderrKept = 4 * 1024 * 1024;

    SshChannel(ChannelTable& table, std::mutex& lock, bool mergeStderr);

    // ---- ChannelInbox: called by the transport ----
    size_t onData(const unsigned char* bytes, size_t numBytes, bool isStderr,
                  size_t heldBehind) override;
    size_t freeSpace() override;
    void onEof() override;
    void onClose() override;
    void onWritable() override;

    // ---- the rest with the table's lock held ----
    // EOF and CLOSE count once every byte sent before them is here, so a
    // reader that stops at them has lost nothing.
    bool eofReceived() const { return m_eofArrived && m_held == 0; }
    bool closeReceived() const { return m_closeArrived && m_held == 0; }
    bool ended() const { return eofReceived() || closeReceived(); }
    // The server's CLOSE has come, whether or not the bytes before it have.
    bool closeArrived() const { return m_closeArrived; }
    // Bytes the transport keeps because the channel had no room.
    bool transportHolds() const { return m_held > 0; }
    // Whether they should be taken back now: when all of them fit, or the
    // reader has nothing else. libssh reopens the peer's window on every
    // read, so taking them a part at a time while the reader lags would let
    // the peer send without end.
    bool heldFits() const {
        return m_held > 0 && (m_held <= data.room(!readerBusy) || data.size() == 0);
    }
    // A read found nothing more to take: the EOF and CLOSE that have come
    // become known to the channel's user (its queries and SocketParams),
    // never earlier, so what a transfer sees does not depend on how soon the
    // network delivered them. True when the CLOSE became known now: it is
    // due to be answered (ChannelTable::settle).
    bool learnEnd();
    void mirrorInto(SocketParams& sp) const;
    // Drops the first numBytes received bytes (they have been read).
    void consume(size_t numBytes);

    int id = -1;
    ByteRing data{kMaxBuffered};
    DataBuffer stderrBytes;
    bool sentClose = false;
    bool finished = false;         // the transfer that opened it has ended
    bool detached = false;         // its transport is gone
    bool readerBusy = false;       // a reader hands a piece of `data` to an output
    bool discardOverflow = false;  // what does not fit is dropped instead of declined
    bool overflowed = false;       // something was dropped
    size_t unreported = 0;         // arrived since channelRead last reported
    bool eofKnown = false;         // see learnEnd()
    bool closeKnown = false;
    uint64_t activity = 0;  // changes whenever something arrives
    uint64_t writable = 0;  // changes when the peer's window reopens
    size_t wantBytes = 1;   // a waiting reader wakes once this many are here
    int waiters = 0;
    std::condition_variable wake;

  private:
    ChannelTable& m_table;
    std::mutex& m_lock;
    bool m_mergeStderr;
    bool m_eofArrived = false;
    bool m_closeArrived = false;
    size_t m_held = 0;
};

}  // namespace scpkit
