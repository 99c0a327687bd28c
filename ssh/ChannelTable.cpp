#include <scpkit/ssh/ChannelTable.h>

#include <algorithm>
#include <new>
#include <vector>

#include <scpkit/base/LogBase.h>
#include <scpkit/base/Progress.h>
#include <scpkit/ssh/SshTransport.h>

namespace scpkit {

namespace {

// No wait lasts longer than this, so abort requests are seen promptly
// whatever the stall timeout is.
constexpr int kSliceMs = 100;
// How long a refused open waits for finished transfers' channels to close,
// and how often it asks again meanwhile.
constexpr long long kReclaimWaitMs = 2000;
constexpr int kRetryMs = 50;

long long msSince(ChannelTable::Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(ChannelTable::Clock::now() - t)
        .count();
}

}  // namespace

ChannelTable::~ChannelTable() {
    attach(nullptr);
}

int ChannelTable::nextSlice(int idleTimeoutMs, Clock::time_point lastMove) {
    if (idleTimeoutMs <= 0) return kSliceMs;
    long long left = idleTimeoutMs - msSince(lastMove);
    if (left <= 0) return -1;
    return static_cast<int>(std::min<long long>(kSliceMs, left));
}

bool ChannelTable::abortRequested(SocketParams& sp, LogBase& log) {
    return sp.spAbortCheck(log);
}

void ChannelTable::attach(std::shared_ptr<SshTransport> transport) {
    std::lock_guard<std::mutex> attaching(m_attachMutex);
    stopIoThread();
    std::shared_ptr<SshTransport> old;
    std::map<int, std::shared_ptr<SshChannel>> dropped;
    {
        Lock lock(m_mutex);
        old = std::move(m_transport);
        m_transport = std::move(transport);
        dropped.swap(m_channels);
        m_lost = false;
        m_closesDue = false;
        for (auto& entry : dropped) {
            entry.second->detached = true;
            entry.second->wake.notify_all();
        }
    }
    if (!old) return;
    old->wakePump();
    for (auto& entry : dropped) old->releaseChannel(entry.first);
}

std::shared_ptr<SshTransport> ChannelTable::transport() {
    Lock lock(m_mutex);
    return m_transport;
}

std::shared_ptr<SshChannel> ChannelTable::find(int id) {
    auto it = m_channels.find(id);
    return it == m_channels.end() ? nullptr : it->second;
}

int ChannelTable::open(bool mergeStderr, SocketParams& sp, LogBase& log) {
    settle();
    std::shared_ptr<SshTransport> transport = this->transport();
    if (!transport) {
        log.LogError("Not connected to an SSH server.");
        return -1;
    }
    std::shared_ptr<SshChannel> fresh;
    try {
        fresh = std::make_shared<SshChannel>(*this, m_mutex, mergeStderr);
    } catch (const std::bad_alloc&) {
        log.LogError("Out of memory.");
        return -1;
    }
    int id = transport->openChannel(*fresh);
    // Servers allow a few sessions per connection (OpenSSH: MaxSessions 10),
    // and count a session until both sides have closed it.
    if (id < 0) waitForClosings(transport, *fresh, sp, log, id);
    if (id < 0) {
        log.LogError("Failed to open a session channel.");
        std::string why = transport->lastError();
        if (!why.empty()) log.LogData("sshError", why.c_str());
        return -1;
    }
    Lock lock(m_mutex);
    fresh->id = id;
    if (transport != m_transport) {  // replaced meanwhile: the channel went with it
        lock.unlock();
        transport->releaseChannel(id);
        log.LogError("Not connected to an SSH server.");
        return -1;
    }
    m_channels[id] = fresh;
    return id;
}

bool ChannelTable::waitForClosings(std::shared_ptr<SshTransport>& transport, SshChannel& fresh,
                                   SocketParams& sp, LogBase& log, int& id) {
    std::vector<std::shared_ptr<SshChannel>> closing;
    bool finishedLately = false;
    {
        Lock lock(m_mutex);
        for (auto& entry : m_channels)
            if (entry.second->finished && !entry.second->closeArrived())
                closing.push_back(entry.second);
        finishedLately = m_finishedAt && msSince(*m_finishedAt) < kReclaimWaitMs;
    }
    // Every session belongs to a running transfer: nothing will come free.
    if (closing.empty() && !finishedLately) return false;
    log.LogInfo("Waiting for the server to free the sessions of finished transfers.");
    log.LogDataLong("numChannels", static_cast<long>(closing.size()));
    Clock::time_point start = Clock::now();
    while (id < 0 && msSince(start) < kReclaimWaitMs) {
        if (abortRequested(sp, log)) return false;
        {
            Lock lock(m_mutex);
            auto pending = std::find_if(closing.begin(), closing.end(), [](const auto& ch) {
                return !ch->closeArrived() && !ch->detached;
            });
            if (pending != closing.end())
                waitSlice(lock, **pending, kRetryMs);
            else
                m_retryWait.wait_for(lock, std::chrono::milliseconds(kRetryMs));
        }
        settle();
        id = transport->openChannel(fresh);
    }
    return id >= 0;
}

void ChannelTable::finish(int id) {
    {
        Lock lock(m_mutex);
        std::shared_ptr<SshChannel> ch = find(id);
        if (!ch) return;
        ch->finished = true;
        ch->discardOverflow = true;  // nobody reads it any more
        m_finishedAt = Clock::now();
        m_closesDue = true;
    }
    settle();
}

void ChannelTable::settle() {
    std::shared_ptr<SshTransport> transport;
    std::vector<int> toClose;
    std::vector<int> toFree;
    {
        Lock lock(m_mutex);
        if (!m_closesDue || !m_transport) return;
        m_closesDue = false;
        transport = m_transport;
        for (auto it = m_channels.begin(); it != m_channels.end();) {
            SshChannel& ch = *it->second;
            // A CLOSE from the server is answered with one (RFC 4254, 5.3)
            // once the channel's user knows of it (until then its writes
            // stay as they were); the server counts the session as open
            // until then.
            if (!ch.sentClose && (ch.closeKnown || ch.finished)) {
                ch.sentClose = true;
                toClose.push_back(it->first);
            }
            if (ch.finished && ch.closeArrived()) {
                toFree.push_back(it->first);
                it = m_channels.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (int id : toClose) transport->sendClose(id);
    for (int id : toFree) transport->releaseChannel(id);
}

void ChannelTable::takeBackHeld(Lock& lock, SshChannel& ch) {
    std::shared_ptr<SshTransport> transport = m_transport;
    if (!ch.heldFits() || !transport || ch.detached) return;
    lock.unlock();
    transport->redeliver(ch.id);
    lock.lock();
}

void ChannelTable::delivered(SshChannel& ch, bool wakeWaiters) {
    if (!wakeWaiters) return;
    if (ch.waiters > 0) ch.wake.notify_all();
    // Bytes that another thread's call took in while the pumping thread
    // sleeps in its poll, waiting for exactly them.
    if (m_pumping && m_pumpWaitsFor == &ch && m_pumpThread != std::this_thread::get_id() &&
        m_transport)
        m_transport->wakePump();
}

void ChannelTable::waitSlice(Lock& lock, SshChannel& ch, int sliceMs) {
    if (!m_pumping && !ioThreadHasTurn()) {
        pumpTurn(lock, &ch, sliceMs);
        return;
    }
    ++ch.waiters;
    ++m_followers;
    ch.wake.wait_for(lock, std::chrono::milliseconds(sliceMs));
    --ch.waiters;
    --m_followers;
}

void ChannelTable::pumpTurn(Lock& lock, SshChannel* waitingFor, int sliceMs) {
    std::shared_ptr<SshTransport> transport = m_transport;
    if (!transport) {
        m_lost = true;
        return;
    }
    m_pumping = true;
    m_pumpThread = std::this_thread::get_id();
    m_pumpWaitsFor = waitingFor;
    lock.unlock();
    bool alive = transport->pump(sliceMs);
    settle();
    lock.lock();
    m_pumping = false;
    m_pumpWaitsFor = nullptr;
    if (!alive && transport == m_transport && !m_lost) {
        m_lost = true;
        for (auto& entry : m_channels) entry.second->wake.notify_all();
    }
    passTurn();
}

void ChannelTable::passTurn() {
    if (m_pumping) return;
    if (ioThreadHasTurn()) {
        m_ioWake.notify_one();
        return;
    }
    if (m_followers == 0) return;
    for (auto& entry : m_channels) {
        if (entry.second->waiters > 0) {
            entry.second->wake.notify_one();
            return;
        }
    }
}

bool ChannelTable::ioThreadHasTurn() const {
    return m_bulkReaders > 0 && m_ioThread.joinable() && !m_ioStop;
}

void ChannelTable::beginBulk() {
    Lock lock(m_mutex);
    ++m_bulkReaders;
    if (!m_ioThread.joinable() && !m_ioStop) {
        try {
            m_ioThread = std::thread([this] { ioLoop(); });
        } catch (const std::exception&) {
            // Without the thread the reader pumps for itself.
        }
    }
    m_ioWake.notify_one();
}

void ChannelTable::endBulk() {
    Lock lock(m_mutex);
    --m_bulkReaders;
}

void ChannelTable::ioLoop() {
    Lock lock(m_mutex);
    while (!m_ioStop) {
        if (m_bulkReaders == 0 || m_pumping || m_lost || !m_transport) {
            m_ioWake.wait(lock);
            continue;
        }
        pumpTurn(lock, nullptr, kSliceMs);
    }
}

void ChannelTable::stopIoThread() {
    std::shared_ptr<SshTransport> transport;
    {
        Lock lock(m_mutex);
        if (!m_ioThread.joinable()) return;
        m_ioStop = true;
        m_ioWake.notify_all();
        transport = m_transport;
    }
    if (transport) transport->wakePump();
    m_ioThread.join();
    Lock lock(m_mutex);
    m_ioThread = std::thread();
    m_ioStop = false;
    // Bulk readers that were waiting for it pump for themselves now.
    passTurn();
}

}  // namespace scpkit
