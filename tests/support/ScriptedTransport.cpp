#include "tests/support/ScriptedTransport.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "base/DataBuffer.h"
#include "base/LogBase.h"

namespace scpkit::test {

ScriptedPeer& ScriptedPeer::send(const std::string& bytes) {
    m_steps.push_back({Step::Data, bytes, 0});
    return *this;
}

ScriptedPeer& ScriptedPeer::sendStderr(const std::string& text) {
    m_steps.push_back({Step::Stderr, text, 0});
    return *this;
}

ScriptedPeer& ScriptedPeer::awaitBytes(size_t numBytes) {
    m_steps.push_back({Step::AwaitBytes, "", numBytes});
    return *this;
}

ScriptedPeer& ScriptedPeer::awaitWrites(size_t numWrites) {
    m_steps.push_back({Step::AwaitWrites, "", numWrites});
    return *this;
}

ScriptedPeer& ScriptedPeer::eof() {
    m_steps.push_back({Step::Eof, "", 0});
    return *this;
}

ScriptedPeer& ScriptedPeer::close() {
    m_steps.push_back({Step::Close, "", 0});
    return *this;
}

ScriptedPeer& ScriptedPeer::closeOnClientClose() {
    m_closeOnClientClose = true;
    return *this;
}

ScriptedPeer& ScriptedPeer::refuseEnv(const std::string& name) {
    m_refusedEnv.insert(name);
    return *this;
}

ScriptedPeer& ScriptedPeer::refuseExec() {
    m_execRefused = true;
    return *this;
}

// An await step counts from the moment it becomes the current step, that
// is, from when everything scripted before it has been released.
void ScriptedPeer::advance() {
    while (!m_steps.empty()) {
        Step& step = m_steps.front();
        switch (step.kind) {
            case Step::Data:
                m_readable += step.bytes;
                break;
            case Step::Stderr:
                m_stderr += step.bytes;
                break;
            case Step::AwaitBytes:
                if (!m_awaitingBytes) {
                    m_awaitingBytes = true;
                    m_awaitTarget = written.size() + step.count;
                }
                if (written.size() < m_awaitTarget) return;
                m_awaitingBytes = false;
                break;
            case Step::AwaitWrites:
                if (!m_awaitingWrites) {
                    m_awaitingWrites = true;
                    m_awaitTarget = writes.size() + step.count;
                }
                if (writes.size() < m_awaitTarget) return;
                m_awaitingWrites = false;
                break;
            case Step::Eof:
                m_eof = true;
                break;
            case Step::Close:
                m_close = true;
                break;
        }
        m_steps.pop_front();
    }
}

ScriptedPeer& ScriptedTransport::peer(int index) {
    std::lock_guard<std::mutex> lock(m_mutex);
    while (static_cast<int>(m_peers.size()) <= index) m_peers.emplace_back();
    return m_peers[static_cast<size_t>(index)];
}

void ScriptedTransport::describeServer(LogBase& log) {
    log.LogData("serverVersion", "scripted test peer");
}

int ScriptedTransport::openChannel(LogBase& log) {
    (void)log;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (failOpen || !connected) return -1;
    int ch = m_opened++;
    while (static_cast<int>(m_peers.size()) <= ch) m_peers.emplace_back();
    m_peers[static_cast<size_t>(ch)].advance();
    return ch;
}

bool ScriptedTransport::setEnv(int ch, const char* name, const char* value, LogBase& log) {
    (void)log;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (ch < 0 || ch >= m_opened) return false;
    ScriptedPeer& p = m_peers[static_cast<size_t>(ch)];
    p.envRequests.emplace_back(name, value);
    return p.m_refusedEnv.count(name) == 0;
}

bool ScriptedTransport::exec(int ch, const char* command, LogBase& log) {
    (void)log;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (ch < 0 || ch >= m_opened) return false;
    ScriptedPeer& p = m_peers[static_cast<size_t>(ch)];
    p.execCommand = command;
    return !p.m_execRefused;
}

long ScriptedTransport::write(int ch, const unsigned char* data, size_t numBytes, int timeoutMs,
                              LogBase& log) {
    (void)timeoutMs, (void)log;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (ch < 0 || ch >= m_opened) return -1;
        ScriptedPeer& p = m_peers[static_cast<size_t>(ch)];
        if (p.clientSentClose || p.clientSentEof) return -1;
        size_t n = maxWriteSize > 0 ? std::min(numBytes, maxWriteSize) : numBytes;
        std::string bytes(reinterpret_cast<const char*>(data), n);
        p.written += bytes;
        p.writes.push_back(std::move(bytes));
        p.advance();
        numBytes = n;
    }
    m_released.notify_all();
    return static_cast<long>(numBytes);
}

long ScriptedTransport::read(int ch, unsigned char* buf, size_t cap, DataBuffer& stderrOut,
                             int timeoutMs, LogBase& log) {
    (void)log;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (ch < 0 || ch >= m_opened) return -1;
    ScriptedPeer& p = m_peers[static_cast<size_t>(ch)];
    auto ready = [&p] {
        p.advance();
        return !p.m_readable.empty() || !p.m_stderr.empty() || p.m_eof || p.m_close;
    };
    // Nothing to play yet: sleep until the client's writes release more, or
    // the timeout passes.
    m_released.wait_for(lock, std::chrono::milliseconds(std::max(timeoutMs, 0)), ready);
    if (!p.m_stderr.empty()) {
        stderrOut.append(p.m_stderr.data(), p.m_stderr.size());
        p.m_stderr.clear();
    }
    size_t n = std::min(cap, p.m_readable.size());
    if (n > 0) {
        std::memcpy(buf, p.m_readable.data(), n);
        p.m_readable.erase(0, n);
    }
    return static_cast<long>(n);
}

bool ScriptedTransport::sendEof(int ch, LogBase& log) {
    (void)log;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (ch < 0 || ch >= m_opened) return false;
    m_peers[static_cast<size_t>(ch)].clientSentEof = true;
    return true;
}

bool ScriptedTransport::sendClose(int ch, LogBase& log) {
    (void)log;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (ch < 0 || ch >= m_opened) return false;
        ScriptedPeer& p = m_peers[static_cast<size_t>(ch)];
        p.clientSentClose = true;
        if (p.m_closeOnClientClose) p.m_close = true;
    }
    m_released.notify_all();
    return true;
}

bool ScriptedTransport::receivedEof(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (ch < 0 || ch >= m_opened) return false;
    ScriptedPeer& p = m_peers[static_cast<size_t>(ch)];
    p.advance();
    return p.m_eof;
}

bool ScriptedTransport::receivedClose(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (ch < 0 || ch >= m_opened) return false;
    ScriptedPeer& p = m_peers[static_cast<size_t>(ch)];
    p.advance();
    return p.m_close;
}

void ScriptedTransport::releaseChannel(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (ch < 0 || ch >= m_opened) return;
    // The recording stays for the test to inspect.
    m_peers[static_cast<size_t>(ch)].released = true;
}

}  // namespace scpkit::test
