#include "tests/support/ProcessTransport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "base/DataBuffer.h"
#include "base/LogBase.h"

extern char** environ;

namespace scpkit::test {

namespace {

void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace

struct ProcessTransport::Child {
    std::vector<std::pair<std::string, std::string>> env;
    pid_t pid = -1;
    int in = -1;   // the child's stdin (we write)
    int out = -1;  // the child's stdout (we read)
    int err = -1;  // the child's stderr (we read)
    bool exited = false;
    bool eof = false;

    // Reaps the child without blocking; true once it has exited.
    bool reap() {
        if (pid < 0 || exited) return exited;
        int status = 0;
        pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno == ECHILD)) exited = true;
        return exited;
    }
    bool closed() { return out < 0 && err < 0 && (pid < 0 || reap()); }

    ~Child() {
        closeFd(in);
        closeFd(out);
        closeFd(err);
        if (pid > 0 && !exited) {
            ::kill(pid, SIGKILL);
            int status = 0;
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
        }
    }
};

ProcessTransport::ProcessTransport(std::string workDir) : m_workDir(std::move(workDir)) {
    // A child that exits while we write to its stdin must give EPIPE, not
    // end the test process.
    ::signal(SIGPIPE, SIG_IGN);
}

ProcessTransport::~ProcessTransport() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_children.clear();
}

void ProcessTransport::describeServer(LogBase& log) {
    log.LogData("serverVersion", "local process transport");
}

int ProcessTransport::openChannel(LogBase& log) {
    (void)log;
    std::lock_guard<std::mutex> lock(m_mutex);
    int ch = m_next++;
    m_children[ch] = std::make_unique<Child>();
    return ch;
}

bool ProcessTransport::setEnv(int ch, const char* name, const char* value, LogBase& log) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_children.find(ch);
    if (it == m_children.end() || it->second->pid >= 0) return false;
    if (!*name || std::strchr(name, '=')) {
        log.LogError("Invalid environment variable name.");
        return false;
    }
    it->second->env.emplace_back(name, value);
    return true;
}

bool ProcessTransport::exec(int ch, const char* command, LogBase& log) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_children.find(ch);
    if (it == m_children.end() || it->second->pid >= 0) return false;
    Child& c = *it->second;
    m_lastCommand = command;

    // Everything the child needs is built before fork: between fork and
    // exec only async-signal-safe calls are allowed.
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
        bool replaced = false;
        for (auto& kv : c.env) {
            size_t len = kv.first.size();
            if (std::strncmp(*e, kv.first.c_str(), len) == 0 && (*e)[len] == '=') replaced = true;
        }
        if (!replaced) envStrings.emplace_back(*e);
    }
    for (auto& kv : c.env) envStrings.push_back(kv.first + "=" + kv.second);
    std::vector<char*> envp;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::string cmd(command);
    char shell[] = "/bin/sh";
    char dashC[] = "-c";
    char* argv[] = {shell, dashC, cmd.data(), nullptr};
    const char* dir = m_workDir.empty() ? nullptr : m_workDir.c_str();

    int inPipe[2], outPipe[2], errPipe[2];
    if (::pipe2(inPipe, O_CLOEXEC) != 0) return false;
    if (::pipe2(outPipe, O_CLOEXEC) != 0) {
        ::close(inPipe[0]), ::close(inPipe[1]);
        return false;
    }
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
        ::close(inPipe[0]), ::close(inPipe[1]), ::close(outPipe[0]), ::close(outPipe[1]);
        return false;
    }
    pid_t pid = ::fork();
    if (pid == 0) {
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        ::sigaction(SIGPIPE, &dfl, nullptr);
        ::dup2(inPipe[0], 0);
        ::dup2(outPipe[1], 1);
        ::dup2(errPipe[1], 2);
        if (dir && ::chdir(dir) != 0) ::_exit(126);
        ::execve(shell, argv, envp.data());
        ::_exit(127);
    }
    ::close(inPipe[0]);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (pid < 0) {
        ::close(inPipe[1]), ::close(outPipe[0]), ::close(errPipe[0]);
        log.LogError("fork failed.");
        return false;
    }
    c.pid = pid;
    c.in = inPipe[1];
    c.out = outPipe[0];
    c.err = errPipe[0];
    for (int fd : {c.in, c.out, c.err}) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    return true;
}

long ProcessTransport::write(int ch, const unsigned char* data, size_t numBytes, int timeoutMs,
                             LogBase& log) {
    int fd;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_children.find(ch);
        if (it == m_children.end() || it->second->in < 0) return -1;
        fd = it->second->in;
    }
    struct pollfd p = {fd, POLLOUT, 0};
    int r = ::poll(&p, 1, timeoutMs < 0 ? 0 : timeoutMs);
    if (r == 0 || (r < 0 && errno == EINTR)) return 0;
    ssize_t n = ::write(fd, data, numBytes);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EAGAIN || errno == EINTR) return 0;
    log.LogError("Writing to the child process failed.");
    log.LogData("errno", std::strerror(errno));
    return -1;
}

long ProcessTransport::read(int ch, unsigned char* buf, size_t cap, DataBuffer& stderrOut,
                            int timeoutMs, LogBase& log) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_children.find(ch);
    if (it == m_children.end() || it->second->pid < 0) return -1;
    Child& c = *it->second;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        struct pollfd fds[2];
        nfds_t count = 0;
        if (c.out >= 0) fds[count++] = {c.out, POLLIN, 0};
        if (c.err >= 0) fds[count++] = {c.err, POLLIN, 0};
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left < 0) left = 0;
        if (count == 0) {
            // Both pipes drained: CLOSE comes with the child's exit.
            while (!c.reap() && left > 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(left < 5 ? left : 5));
                left -= 5;
            }
            return 0;
        }
        int r = ::poll(fds, count, static_cast<int>(left));
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            log.LogError("poll failed.");
            return -1;
        }
        if (r == 0) return 0;  // timed out
        bool gotStderr = false;
        if (c.err >= 0) {
            unsigned char tmp[16384];
            ssize_t n = ::read(c.err, tmp, sizeof tmp);
            if (n > 0) {
                stderrOut.append(tmp, static_cast<size_t>(n));
                gotStderr = true;
            } else if (n == 0) {
                closeFd(c.err);
            }
        }
        if (c.out >= 0) {
            ssize_t n = ::read(c.out, buf, cap);
            if (n > 0) return static_cast<long>(n);
            if (n == 0) {
                closeFd(c.out);
                c.eof = true;
                return 0;
            }
            if (errno != EAGAIN && errno != EINTR) {
                log.LogError("Reading from the child process failed.");
                return -1;
            }
        }
        if (gotStderr) return 0;
        // Only a pipe closed: wait on what is left.
    }
}

bool ProcessTransport::sendEof(int ch, LogBase& log) {
    (void)log;
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_children.find(ch);
    if (it == m_children.end()) return false;
    closeFd(it->second->in);
    return true;
}

bool ProcessTransport::sendClose(int ch, LogBase& log) {
    return sendEof(ch, log);
}

bool ProcessTransport::receivedEof(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_children.find(ch);
    return it != m_children.end() && it->second->eof;
}

bool ProcessTransport::receivedClose(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_children.find(ch);
    return it != m_children.end() && it->second->pid >= 0 && it->second->closed();
}

void ProcessTransport::releaseChannel(int ch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_children.erase(ch);
}

std::string ProcessTransport::lastCommand() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastCommand;
}

}  // namespace scpkit::test
