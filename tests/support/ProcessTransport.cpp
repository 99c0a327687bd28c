#include "tests/support/ProcessTransport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include <scpkit/base/LogBase.h>
#include "tests/support/ChildProcess.h"

namespace scpkit::test {

struct ProcessTransport::Child {
    ChannelInbox* inbox = nullptr;
    std::vector<std::string> env;  // "NAME=value"
    ChildProcess process;
    bool started = false, eofSent = false, closeSent = false, wantWrite = false;
    std::string pending;  // stdout bytes the inbox declined

    void closeFd(int i) {
        if (process.fd(i) >= 0) ::close(process.fd(i));
        process.fd(i) = -1;
    }
    void offer() {
        auto* bytes = reinterpret_cast<const unsigned char*>(pending.data());
        if (!pending.empty()) pending.erase(0, inbox->onData(bytes, pending.size(), false, 0));
    }
    // Delivers what the pipes hold; stdout only while the inbox keeps up.
    void deliver() {
        unsigned char buf[65536];
        for (int i : {2, 1}) {
            for (int n = 0; n < 16 && process.fd(i) >= 0 && (i == 2 || pending.empty()); ++n) {
                ssize_t got = ::read(process.fd(i), buf, sizeof buf);
                if (got < 0 && (errno == EAGAIN || errno == EINTR)) break;
                if (got <= 0) closeFd(i);
                if (got > 0 && i == 2) inbox->onData(buf, static_cast<size_t>(got), true, 0);
                if (got > 0 && i == 1) pending.append(reinterpret_cast<char*>(buf), got), offer();
            }
        }
        offer();
        bool drained = process.fd(1) < 0 && pending.empty();
        if (drained && !eofSent) eofSent = true, inbox->onEof();
        if (drained && process.fd(2) < 0 && !closeSent && process.exited())
            closeSent = true, inbox->onClose();
    }
};

ProcessTransport::ProcessTransport(std::string workDir)
    : m_workDir(std::move(workDir)), m_wakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    // A child that exits while we write to its stdin must give EPIPE, not end the test.
    ::signal(SIGPIPE, SIG_IGN);
}

ProcessTransport::~ProcessTransport() {
    m_children.clear();
    ::close(m_wakeFd);
}

ProcessTransport::Child* ProcessTransport::find(int ch) {
    auto it = m_children.find(ch);
    return it == m_children.end() ? nullptr : it->second.get();
}

void ProcessTransport::describeServer(LogBase& log) {
    log.LogData("serverVersion", "local process transport");
}

int ProcessTransport::openChannel(ChannelInbox& inbox) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_children[m_next] = std::make_unique<Child>();
    m_children[m_next]->inbox = &inbox;
    return m_next++;
}

bool ProcessTransport::setEnv(int ch, const char* name, const char* value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    if (!c || c->started || !*name || std::string(name).find('=') != std::string::npos)
        return false;
    c->env.push_back(std::string(name) + "=" + value);
    return true;
}

bool ProcessTransport::exec(int ch, const char* command) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    if (!c || c->started) return false;
    std::string line = command;
    if (!m_workDir.empty()) line = "cd '" + m_workDir + "' && " + line;
    c->started = c->process.start("/bin/sh", {"-c", line}, c->env);
    for (int i = 0; i < 3 && c->started; ++i)
        ::fcntl(c->process.fd(i), F_SETFL, ::fcntl(c->process.fd(i), F_GETFL) | O_NONBLOCK);
    return c->started;
}

long ProcessTransport::write(int ch, const unsigned char* data, size_t numBytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    if (!c || c->process.fd(0) < 0) return -1;
    ssize_t n = ::write(c->process.fd(0), data, numBytes);
    if (n >= 0) return n;
    if (errno != EAGAIN && errno != EINTR) return -1;
    c->wantWrite = true;  // the pump reports when the pipe has room
    wakePump();
    return 0;
}

bool ProcessTransport::pump(int timeoutMs) {
    std::vector<pollfd> fds = {{m_wakeFd, POLLIN, 0}};
    std::vector<int> writers;  // the channel of each POLLOUT entry, at the end of fds
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& [id, c] : m_children) {
            const int in = c->process.fd(0), out = c->process.fd(1), err = c->process.fd(2);
            if (err >= 0) fds.push_back({err, POLLIN, 0});
            if (out >= 0 && c->pending.empty()) fds.push_back({out, POLLIN, 0});
            // A child whose pipes are closed is looked at again soon, for its exit.
            if (c->started && out < 0 && err < 0 && !c->closeSent)
                timeoutMs = std::min(timeoutMs, 5);
            if (c->wantWrite && in >= 0) writers.push_back(id);
        }
        for (int id : writers) fds.push_back({m_children[id]->process.fd(0), POLLOUT, 0});
    }
    ::poll(fds.data(), fds.size(), std::max(timeoutMs, 0));
    uint64_t count;
    if (fds[0].revents && ::read(m_wakeFd, &count, sizeof count) < 0) count = 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (size_t i = 0; i < writers.size(); ++i) {
        Child* c = find(writers[i]);
        if (c && c->wantWrite && fds[fds.size() - writers.size() + i].revents)
            c->wantWrite = false, c->inbox->onWritable();
    }
    for (auto& entry : m_children)
        if (entry.second->started) entry.second->deliver();
    return true;
}

void ProcessTransport::wakePump() {
    uint64_t one = 1;
    if (::write(m_wakeFd, &one, sizeof one) < 0) return;
}

void ProcessTransport::redeliver(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (Child* c = find(ch); c && c->started) c->deliver();
}

bool ProcessTransport::sendClose(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    if (c) c->closeFd(0);
    return c != nullptr;
}

void ProcessTransport::releaseChannel(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_children.erase(ch);
}

}  // namespace scpkit::test
