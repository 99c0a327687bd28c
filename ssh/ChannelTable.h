// The session channels of one ClsSsh and the waits on them.
//
// Ownership: a channel belongs to the transfer that opened it until that
// transfer calls finish(); only then is it closed and, once the server has
// closed it too, freed. The server's CLOSE is answered in one place,
// settle(), as soon as every byte before it has been taken in.
//
// Waiting: no lock is held while a thread waits. A thread that needs
// something to arrive pumps the connection itself when no other thread
// does (so a lone caller waits exactly as long as the network takes), or
// sleeps on its channel until the pumping thread delivers what it waits
// for. While a bulk read runs, a thread of the table pumps instead, so that
// decrypting overlaps the reader's writes to its output.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include <scpkit/ssh/SshChannel.h>

namespace scpkit {

class LogBase;
class SocketParams;
class SshTransport;

class ChannelTable {
  public:
    using Lock = std::unique_lock<std::mutex>;
    using Clock = std::chrono::steady_clock;
    enum class WaitEnd { Done, Stalled, Aborted, Lost };

    ChannelTable() = default;
    ~ChannelTable();
    ChannelTable(const ChannelTable&) = delete;
    ChannelTable& operator=(const ChannelTable&) = delete;

    // Replaces the transport (null: none). The old one's channels are
    // released, and threads waiting on them return.
    void attach(std::shared_ptr<SshTransport> transport);
    std::shared_ptr<SshTransport> transport();

    // Opens a channel. When the server refuses one while channels of
    // finished transfers are still closing, waits (bounded) for them and
    // tries again. -1 with the reason logged.
    int open(bool mergeStderr, SocketParams& sp, LogBase& log);
    // The transfer that opened the channel is done with it.
    void finish(int id);

    Lock lock() { return Lock(m_mutex); }
    // The channel (the lock held); null when there is none.
    std::shared_ptr<SshChannel> find(int id);

    // With the lock held on entry and on return: waits until done() holds,
    // nothing arrives on the channel for idleTimeoutMs (0: no limit), the
    // application aborts, or the connection is lost. Each wait lasts at
    // most a slice, so the abort check runs often.
    template <class Done>
    WaitEnd waitUntil(Lock& lock, SshChannel& ch, int idleTimeoutMs, SocketParams& sp, LogBase& log,
                      Done done);

    // With the lock held: takes back what the transport holds for the
    // channel once it should (SshChannel::heldFits). Every consuming and
    // waiting operation does, so held bytes never wait for new traffic.
    void takeBackHeld(Lock& lock, SshChannel& ch);

    // A bulk read on some channel begins or ends.
    void beginBulk();
    void endBulk();

    // Sends the CLOSEs that are due (answers to the server's, and those of
    // finished channels) and frees the finished channels closed both ways.
    // Called without the lock.
    void settle();

    // ---- for SshChannel, with the lock held ----
    void delivered(SshChannel& ch, bool wakeWaiters);
    void closeDue() { m_closesDue = true; }

  private:
    void waitSlice(Lock& lock, SshChannel& ch, int sliceMs);
    // Pumps the connection once, as the thread holding the turn.
    void pumpTurn(Lock& lock, SshChannel* waitingFor, int sliceMs);
    // Hands the free turn to a thread that waits for it.
    void passTurn();
    bool ioThreadHasTurn() const;
    void ioLoop();
    void stopIoThread();
    bool waitForClosings(std::shared_ptr<SshTransport>& transport, SshChannel& fresh,
                         SocketParams& sp, LogBase& log, int& id);
    static int nextSlice(int idleTimeoutMs, Clock::time_point lastMove);
    static bool abortRequested(SocketParams& sp, LogBase& log);

    std::mutex m_attachMutex;  // one attach() at a time
    std::mutex m_mutex;
    std::condition_variable m_retryWait;
    std::shared_ptr<SshTransport> m_transport;
    std::map<int, std::shared_ptr<SshChannel>> m_channels;
    bool m_lost = false;       // the transport's connection failed
    bool m_closesDue = false;  // settle() has work
    // When a transfer last finished a channel: the server frees a session a
    // moment after the CLOSE of both sides.
    std::optional<Clock::time_point> m_finishedAt;

    // The pump turn: at most one thread pumps the connection at a time.
    bool m_pumping = false;
    std::thread::id m_pumpThread;
    SshChannel* m_pumpWaitsFor = nullptr;
    int m_followers = 0;  // threads asleep on their channels

    std::thread m_ioThread;
    std::condition_variable m_ioWake;
    int m_bulkReaders = 0;
    bool m_ioStop = false;
};

template <class Done>
ChannelTable::WaitEnd ChannelTable::waitUntil(Lock& lock, SshChannel& ch, int idleTimeoutMs,
                                              SocketParams& sp, LogBase& log, Done done) {
    Clock::time_point lastMove = Clock::now();
    uint64_t seen = ch.activity;
    for (;;) {
        takeBackHeld(lock, ch);
        if (done()) {
            passTurn();  // this thread may have been woken to pump
            return WaitEnd::Done;
        }
        if (m_lost || ch.detached) return WaitEnd::Lost;
        if (ch.activity != seen) {
            seen = ch.activity;
            lastMove = Clock::now();
        }
        int slice = nextSlice(idleTimeoutMs, lastMove);
        if (slice < 0) return WaitEnd::Stalled;
        lock.unlock();
        bool aborted = abortRequested(sp, log);
        lock.lock();
        if (aborted) return WaitEnd::Aborted;
        if (!done()) waitSlice(lock, ch, slice);
    }
}

}  // namespace scpkit
