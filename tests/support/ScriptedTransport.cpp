#include "tests/support/ScriptedTransport.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/LogBase.h>

namespace scpkit::test {

void ScriptedPeer::advance() {
    for (; !m_steps.empty(); m_steps.pop_front()) {
        Step& step = m_steps.front();
        if (step.kind == AwaitBytes || step.kind == AwaitWrites) {
            size_t done = step.kind == AwaitBytes ? written.size() : writes.size();
            if (!step.armed) step.count += done, step.armed = true;
            if (done < step.count) return;
        }
        if (step.kind == Data) m_readable += step.bytes;
        if (step.kind == Stderr) m_stderr += step.bytes;
        if (step.kind == Eof) m_eof = true;
        if (step.kind == Close) m_close = true;
    }
}

ScriptedPeer& ScriptedTransport::peer(int index) {
    std::lock_guard<std::mutex> lock(m_mutex);
    while (static_cast<int>(m_peers.size()) <= index) m_peers.emplace_back();
    return m_peers[static_cast<size_t>(index)];
}

ScriptedPeer* ScriptedTransport::opened(int ch) {
    if (ch < 0 || ch >= m_opened) return nullptr;
    ScriptedPeer* p = &m_peers[static_cast<size_t>(ch)];
    p->advance();
    return p;
}

void ScriptedTransport::describeServer(LogBase& log) {
    log.LogData("serverVersion", "scripted test peer");
}

int ScriptedTransport::openChannel(ChannelInbox& inbox) {
    std::lock_guard<std::mutex> lock(m_mutex);
    while (static_cast<int>(m_peers.size()) <= m_opened) m_peers.emplace_back();
    m_peers[static_cast<size_t>(m_opened)].m_inbox = &inbox;
    return m_opened++;
}

bool ScriptedTransport::setEnv(int ch, const char* name, const char* value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ScriptedPeer* p = opened(ch);
    if (p) p->envRequests.emplace_back(name, value);
    return p && p->m_refusedEnv.count(name) == 0;
}

bool ScriptedTransport::exec(int ch, const char* command) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ScriptedPeer* p = opened(ch);
    if (p) p->execCommand = command;
    return p != nullptr;
}

long ScriptedTransport::write(int ch, const unsigned char* data, size_t numBytes) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ScriptedPeer* p = opened(ch);
        if (!p || p->clientSentClose) return -1;
        if (maxWriteSize > 0) numBytes = std::min(numBytes, maxWriteSize);
        p->writes.emplace_back(reinterpret_cast<const char*>(data), numBytes);
        p->written += p->writes.back();
        p->advance();
    }
    m_wrote.notify_all();
    return static_cast<long>(numBytes);
}

bool ScriptedTransport::deliver(ScriptedPeer& p) {
    p.advance();
    ChannelInbox* inbox = p.m_inbox;
    if (!inbox) return false;
    bool moved = !p.m_stderr.empty();
    if (moved)
        inbox->onData(reinterpret_cast<const unsigned char*>(p.m_stderr.data()), p.m_stderr.size(),
                      true, 0);
    p.m_stderr.clear();
    if (!p.m_readable.empty()) {
        size_t n = inbox->onData(reinterpret_cast<const unsigned char*>(p.m_readable.data()),
                                 p.m_readable.size(), false, 0);
        p.m_readable.erase(0, n);
        moved = moved || n > 0;
    }
    if (!p.m_readable.empty()) return moved;  // EOF and CLOSE come after the bytes
    if (p.m_eof && !p.m_eofDelivered) inbox->onEof();
    if (p.m_close && !p.m_closeDelivered) inbox->onClose();
    moved = moved || (p.m_eof && !p.m_eofDelivered) || (p.m_close && !p.m_closeDelivered);
    p.m_eofDelivered = p.m_eof;
    p.m_closeDelivered = p.m_close;
    return moved;
}

bool ScriptedTransport::pump(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wrote.wait_for(lock, std::chrono::milliseconds(std::max(timeoutMs, 0)), [this] {
        bool moved = false;
        for (int i = 0; i < m_opened; ++i)
            moved = deliver(m_peers[static_cast<size_t>(i)]) || moved;
        return moved || m_wake;
    });
    m_wake = false;
    return true;
}

void ScriptedTransport::wakePump() {
    m_wake = true;  // no lock: the caller may be inside one of our calls
    m_wrote.notify_all();
}

void ScriptedTransport::redeliver(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (ScriptedPeer* p = opened(ch)) deliver(*p);
}

bool ScriptedTransport::sendClose(int ch) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ScriptedPeer* p = opened(ch);
        if (!p) return false;
        p->clientSentClose = true;
        p->m_close = p->m_close || p->m_closeOnClientClose;
    }
    m_wrote.notify_all();
    return true;
}

void ScriptedTransport::releaseChannel(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (ScriptedPeer* p = opened(ch)) p->m_inbox = nullptr;
}

}  // namespace scpkit::test
