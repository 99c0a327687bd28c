#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <map>

extern char** environ;

namespace scpkit::test {

namespace {

std::vector<std::string> childEnvironment(const std::vector<std::string>& changes) {
    std::map<std::string, std::string> vars;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e;
        size_t eq = entry.find('=');
        if (eq != std::string::npos) vars[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const std::string& change : changes) {
        size_t eq = change.find('=');
        if (eq == std::string::npos) {
            vars.erase(change);
        } else {
            vars[change.substr(0, eq)] = change.substr(eq + 1);
        }
    }
    std::vector<std::string> out;
    for (const auto& [name, value] : vars) out.push_back(name + "=" + value);
    return out;
}

void closeFd(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

}  // namespace

ChildProcess::~ChildProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    closeFd(m_in);
    closeFd(m_out);
    closeFd(m_err);
}

bool ChildProcess::start(const std::string& program, const std::vector<std::string>& args,
                         const std::vector<std::string>& env, const std::string& input,
                         int terminalColumns) {
    std::vector<std::string> envStrings = childEnvironment(env);
    std::vector<std::string> argStrings = {program};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    // Everything the child needs is built before fork.
    std::vector<char*> argv, envp;
    for (std::string& a : argStrings) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (std::string& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);
    m_input = input;
    m_inputSent = 0;

    if (terminalColumns > 0) {
        struct winsize ws {};
        ws.ws_col = static_cast<unsigned short>(terminalColumns);
        ws.ws_row = 24;
        int master = -1;
        m_pid = forkpty(&master, nullptr, nullptr, &ws);
        if (m_pid < 0) return false;
        if (m_pid == 0) {
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        m_out = master;
        m_in = dup(master);
        return true;
    }

    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0) return false;
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return false;
    m_pid = fork();
    if (m_pid < 0) return false;
    if (m_pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        signal(SIGINT, SIG_DFL);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    m_in = in[1];
    m_out = out[0];
    m_err = err[0];
    return true;
}

ChildResult ChildProcess::finish(int timeoutMs) {
    ChildResult result;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    bool terminal = m_err < 0;
    if (!terminal && m_input.empty()) closeFd(m_in);
    if (m_in >= 0) fcntl(m_in, F_SETFL, fcntl(m_in, F_GETFL) | O_NONBLOCK);
    signal(SIGPIPE, SIG_IGN);

    while (m_out >= 0 || m_err >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) {
            result.timedOut = true;
            kill(m_pid, SIGKILL);
            break;
        }
        std::vector<pollfd> fds;
        if (m_out >= 0) fds.push_back({m_out, POLLIN, 0});
        if (m_err >= 0) fds.push_back({m_err, POLLIN, 0});
        bool feeding = m_in >= 0 && m_inputSent < m_input.size();
        if (feeding) fds.push_back({m_in, POLLOUT, 0});
        int n = poll(fds.data(), fds.size(), static_cast<int>(std::min<long long>(left, 200)));
        if (n < 0 && errno != EINTR) break;
        for (const pollfd& p : fds) {
            if (!p.revents) continue;
            if (p.fd == m_in) {
                ssize_t w = write(m_in, m_input.data() + m_inputSent, m_input.size() - m_inputSent);
                if (w > 0) m_inputSent += static_cast<size_t>(w);
                if (w < 0 && errno != EAGAIN) m_inputSent = m_input.size();
                if (!terminal && m_inputSent == m_input.size()) closeFd(m_in);
                continue;
            }
            char buf[65536];
            ssize_t r = read(p.fd, buf, sizeof buf);
            std::string& sink = p.fd == m_out ? result.out : result.err;
            if (r > 0) {
                sink.append(buf, static_cast<size_t>(r));
                if (!m_trigger.empty() && sink.find(m_trigger) != std::string::npos) {
                    m_input += m_reply;
                    m_trigger.clear();
                }
            } else if (r == 0 || (errno != EINTR && errno != EAGAIN)) {
                // EOF; on a terminal, EIO once the child has gone.
                closeFd(p.fd == m_out ? m_out : m_err);
            }
        }
    }
    closeFd(m_in);
    closeFd(m_out);
    closeFd(m_err);

    int status = 0;
    for (;;) {
        pid_t r = waitpid(m_pid, &status, result.timedOut ? 0 : WNOHANG);
        if (r == m_pid) break;
        if (r < 0) return result;
        if (std::chrono::steady_clock::now() > deadline) {
            result.timedOut = true;
            kill(m_pid, SIGKILL);
            continue;
        }
        usleep(5000);
    }
    m_pid = -1;
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.termSignal = WTERMSIG(status);
    return result;
}

ChildResult runChild(const std::string& program, const std::vector<std::string>& args,
                     const std::vector<std::string>& env, const std::string& input, int timeoutMs) {
    ChildProcess child;
    ChildResult result;
    if (!child.start(program, args, env, input)) {
        result.err = std::string("cannot start ") + program + ": " + std::strerror(errno);
        return result;
    }
    return child.finish(timeoutMs);
}

}  // namespace scpkit::test
