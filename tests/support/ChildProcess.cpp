#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <cerrno>
#include <chrono>
#include <csignal>

extern char** environ;

namespace scpkit::test {

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
    for (int& fd : m_fd) closeFd(fd);
}

bool ChildProcess::start(const std::string& program, const std::vector<std::string>& args,
                         const std::vector<std::string>& env, const std::string& input,
                         int terminalColumns) {
    // env(1) applies the changes to the environment; everything the child
    // needs is built before fork.
    std::vector<std::string> argStrings = {"/usr/bin/env"};
    for (const std::string& e : env)  // removals first: env(1) takes its options before the rest
        if (e.find('=') == std::string::npos) argStrings.insert(argStrings.begin() + 1, {"-u", e});
    for (const std::string& e : env)
        if (e.find('=') != std::string::npos) argStrings.push_back(e);
    argStrings.push_back(program);
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argStrings) argv.push_back(a.data());
    argv.push_back(nullptr);
    m_input = input;
    auto exec = [&argv] {
        signal(SIGINT, SIG_DFL);  // this process may ignore them; the child must not
        signal(SIGPIPE, SIG_DFL);
        execve(argv[0], argv.data(), environ);
        _exit(127);
    };
    if (terminalColumns > 0) {
        winsize ws{24, static_cast<unsigned short>(terminalColumns), 0, 0};
        m_pid = forkpty(&m_fd[1], nullptr, nullptr, &ws);
        m_fd[0] = dup(m_fd[1]);  // input and output share the terminal
    } else {
        int p[3][2];
        if (pipe2(p[0], O_CLOEXEC) || pipe2(p[1], O_CLOEXEC) || pipe2(p[2], O_CLOEXEC))
            return false;
        m_pid = fork();
        for (int i = 0; i < 3; ++i) {
            int childEnd = p[i][i == 0 ? 0 : 1];
            m_pid == 0 ? dup2(childEnd, i) : close(childEnd);
            m_fd[i] = p[i][i == 0 ? 1 : 0];
        }
    }
    if (m_pid == 0) exec();
    return m_pid > 0;
}

ChildResult ChildProcess::finish(int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    ChildResult r;
    signal(SIGPIPE, SIG_IGN);  // a child that exits early must not end the test
    if (m_fd[0] >= 0) fcntl(m_fd[0], F_SETFL, O_NONBLOCK);
    while (m_pid > 0 && (m_fd[1] >= 0 || m_fd[2] >= 0)) {
        long left = (deadline - std::chrono::steady_clock::now()) / std::chrono::milliseconds(1);
        if ((r.timedOut = left <= 0)) break;
        // A pipe's end of input is its closing; a terminal stays open.
        if (m_inputSent == m_input.size() && !isatty(m_fd[0])) closeFd(m_fd[0]);
        pollfd fds[3] = {{m_inputSent < m_input.size() ? m_fd[0] : -1, POLLOUT, 0},
                         {m_fd[1], POLLIN, 0},
                         {m_fd[2], POLLIN, 0}};
        if (poll(fds, 3, left > 200 ? 200 : static_cast<int>(left)) <= 0) continue;
        if (fds[0].revents) {
            ssize_t n = write(m_fd[0], m_input.data() + m_inputSent, m_input.size() - m_inputSent);
            if (n > 0) m_inputSent += static_cast<size_t>(n);
            if (n < 0 && errno != EAGAIN) m_inputSent = m_input.size();  // the reader has gone
        }
        for (int i = 1; i < 3; ++i) {
            char buf[65536];
            ssize_t n = fds[i].revents ? read(m_fd[i], buf, sizeof buf) : -2;
            std::string& sink = i == 1 ? r.out : r.err;
            if (n > 0) sink.append(buf, static_cast<size_t>(n));
            if (n > 0 && !reply.empty() && sink.find(trigger) != std::string::npos)
                m_input += std::exchange(reply, std::string());
            // End of file; EIO on a terminal once its child has gone.
            if (n == 0 || (n == -1 && errno != EINTR && errno != EAGAIN)) closeFd(m_fd[i]);
        }
    }
    for (int& fd : m_fd) closeFd(fd);
    // Both outputs closed: the child is ending; after a timeout it is made to.
    int status = -1;
    if (r.timedOut) kill(m_pid, SIGKILL);  // only a running child can time out
    if (m_pid > 0) waitpid(m_pid, &status, 0);
    m_pid = -1;
    if (WIFEXITED(status)) r.exitStatus = WEXITSTATUS(status);
    return r;
}

bool ChildProcess::exited() {
    if (m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = -1;
    return m_pid < 0;
}

ChildResult runChild(const std::string& program, const std::vector<std::string>& args,
                     const std::vector<std::string>& env, const std::string& input, int timeoutMs) {
    ChildProcess child;
    child.start(program, args, env, input);
    return child.finish(timeoutMs);
}

}  // namespace scpkit::test
