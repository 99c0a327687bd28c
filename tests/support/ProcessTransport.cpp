#include "tests/support/ProcessTransport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/LogBase.h>

namespace scpkit::test {

namespace {
void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}
}  // namespace

struct ProcessTransport::Child {
    std::vector<std::string> env;  // "NAME=value"
    pid_t pid = -1;
    int in = -1, out = -1, err = -1;  // the child's stdin, stdout, stderr
    bool exited = false, eof = false;

    // Reaps the child without blocking; true once it has exited.
    bool reap() {
        int status = 0;
        if (!exited && pid > 0) exited = ::waitpid(pid, &status, WNOHANG) != 0;
        return exited;
    }
    ~Child() {
        closeFd(in), closeFd(out), closeFd(err);
        if (pid > 0 && !exited && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
    }
};

ProcessTransport::ProcessTransport(std::string workDir) : m_workDir(std::move(workDir)) {
    // A child that exits while we write to its stdin must give EPIPE, not end the test.
    ::signal(SIGPIPE, SIG_IGN);
}

ProcessTransport::~ProcessTransport() = default;

ProcessTransport::Child* ProcessTransport::find(int ch) {
    auto it = m_children.find(ch);
    return it == m_children.end() ? nullptr : it->second.get();
}

void ProcessTransport::describeServer(LogBase& log) {
    log.LogData("serverVersion", "local process transport");
}

int ProcessTransport::openChannel(LogBase&) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_children[m_next] = std::make_unique<Child>();
    return m_next++;
}

bool ProcessTransport::setEnv(int ch, const char* name, const char* value, LogBase&) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    if (!c || c->pid >= 0 || !*name || std::strchr(name, '=') || *name == '-') return false;
    c->env.push_back(std::string(name) + "=" + value);
    return true;
}

bool ProcessTransport::exec(int ch, const char* command, LogBase& log) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    if (!c || c->pid >= 0) return false;
    // env(1) puts the requested variables in front of the shell. Everything
    // is built before fork: between fork and exec only async-signal-safe calls.
    std::vector<std::string> args = {"/usr/bin/env"};
    args.insert(args.end(), c->env.begin(), c->env.end());
    args.insert(args.end(), {"/bin/sh", "-c", command});
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const char* dir = m_workDir.empty() ? nullptr : m_workDir.c_str();

    int fds[3][2];  // stdin, stdout, stderr
    for (auto& p : fds)
        if (::pipe2(p, O_CLOEXEC) != 0) return false;
    pid_t pid = ::fork();
    if (pid == 0) {
        ::signal(SIGPIPE, SIG_DFL);
        ::dup2(fds[0][0], 0), ::dup2(fds[1][1], 1), ::dup2(fds[2][1], 2);
        if (dir && ::chdir(dir) != 0) ::_exit(126);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(fds[0][0]), ::close(fds[1][1]), ::close(fds[2][1]);
    c->in = fds[0][1], c->out = fds[1][0], c->err = fds[2][0];
    if (pid < 0) {
        log.LogError("fork failed.");
        return false;
    }
    c->pid = pid;
    for (int fd : {c->in, c->out, c->err}) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    return true;
}

long ProcessTransport::write(int ch, const unsigned char* data, size_t numBytes, int timeoutMs,
                             LogBase& log) {
    int fd;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Child* c = find(ch);
        if (!c || c->in < 0) return -1;
        fd = c->in;
    }
    struct pollfd p = {fd, POLLOUT, 0};
    if (::poll(&p, 1, std::max(timeoutMs, 0)) <= 0) return 0;
    ssize_t n = ::write(fd, data, numBytes);
    if (n >= 0 || errno == EAGAIN || errno == EINTR) return std::max<long>(n, 0);
    log.LogData("writeError", std::strerror(errno));
    return -1;
}

long ProcessTransport::read(int ch, unsigned char* buf, size_t cap, DataBuffer& stderrOut,
                            int timeoutMs, LogBase&) {
    using namespace std::chrono;
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    if (!c || c->pid < 0) return -1;
    const auto deadline = steady_clock::now() + milliseconds(timeoutMs);
    for (;;) {
        int left = static_cast<int>(std::max<long long>(
            0, duration_cast<milliseconds>(deadline - steady_clock::now()).count()));
        struct pollfd fds[2];
        nfds_t count = 0;
        for (int fd : {c->out, c->err})
            if (fd >= 0) fds[count++] = {fd, POLLIN, 0};
        if (count == 0) {  // both pipes drained: CLOSE comes with the child's exit
            while (!c->reap() && left-- > 0) ::usleep(1000);
            return 0;
        }
        int r = ::poll(fds, count, left);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return r;  // timed out, or failed
        unsigned char tmp[16384];
        ssize_t e = c->err >= 0 ? ::read(c->err, tmp, sizeof tmp) : -1;
        if (e > 0) stderrOut.append(tmp, static_cast<size_t>(e));
        if (e == 0) closeFd(c->err);
        ssize_t n = c->out >= 0 ? ::read(c->out, buf, cap) : -1;
        if (n > 0) return static_cast<long>(n);
        if (n == 0) closeFd(c->out), c->eof = true;
        if (n == 0 || e > 0) return 0;
        if (n < 0 && c->out >= 0 && errno != EAGAIN && errno != EINTR) return -1;
        // Only a pipe closed: wait on what is left.
    }
}

bool ProcessTransport::sendEof(int ch, LogBase&) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    if (c) closeFd(c->in);
    return c != nullptr;
}

bool ProcessTransport::sendClose(int ch, LogBase& log) {
    return sendEof(ch, log);
}

bool ProcessTransport::receivedEof(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    return c && c->eof;
}

bool ProcessTransport::receivedClose(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Child* c = find(ch);
    return c && c->pid >= 0 && c->out < 0 && c->err < 0 && c->reap();
}

void ProcessTransport::releaseChannel(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_children.erase(ch);
}

}  // namespace scpkit::test
