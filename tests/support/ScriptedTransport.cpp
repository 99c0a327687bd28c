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

int ScriptedTransport::openChannel(LogBase&) {
    std::lock_guard<std::mutex> lock(m_mutex);
    while (static_cast<int>(m_peers.size()) <= m_opened) m_peers.emplace_back();
    return m_opened++;
}

bool ScriptedTransport::setEnv(int ch, const char* name, const char* value, LogBase&) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ScriptedPeer* p = opened(ch);
    if (p) p->envRequests.emplace_back(name, value);
    return p && p->m_refusedEnv.count(name) == 0;
}

bool ScriptedTransport::exec(int ch, const char* command, LogBase&) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ScriptedPeer* p = opened(ch);
    if (p) p->execCommand = command;
    return p != nullptr;
}

long ScriptedTransport::write(int ch, const unsigned char* data, size_t numBytes, int, LogBase&) {
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

long ScriptedTransport::read(int ch, unsigned char* buf, size_t cap, DataBuffer& stderrOut,
                             int timeoutMs, LogBase&) {
    std::unique_lock<std::mutex> lock(m_mutex);
    ScriptedPeer* p = opened(ch);
    if (!p) return -1;
    // Nothing to play yet: sleep until the client's writes release more, or the timeout passes.
    m_wrote.wait_for(lock, std::chrono::milliseconds(std::max(timeoutMs, 0)), [p] {
        p->advance();
        return !p->m_readable.empty() || !p->m_stderr.empty() || p->m_eof || p->m_close;
    });
    stderrOut.append(p->m_stderr.data(), p->m_stderr.size());
    p->m_stderr.clear();
    size_t n = std::min(cap, p->m_readable.size());
    std::memcpy(buf, p->m_readable.data(), n);
    p->m_readable.erase(0, n);
    return static_cast<long>(n);
}

bool ScriptedTransport::sendEof(int ch, LogBase&) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return opened(ch) != nullptr;
}

bool ScriptedTransport::sendClose(int ch, LogBase&) {
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

bool ScriptedTransport::receivedEof(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ScriptedPeer* p = opened(ch);
    return p && p->m_eof;
}

bool ScriptedTransport::receivedClose(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ScriptedPeer* p = opened(ch);
    return p && p->m_close;
}

// The recording stays for the test to inspect.
void ScriptedTransport::releaseChannel(int) {}

}  // namespace scpkit::test
