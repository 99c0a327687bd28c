// Runs a program as a child process for tests: standard input fed from a
// string, standard output and error collected (or one pseudo-terminal for
// all three), a deadline after which the child is killed by its PID.
#pragma once

#include <unistd.h>
#include <string>
#include <utility>
#include <vector>

namespace scpkit::test {

struct ChildResult {
    int exitStatus = -1;  // -1 when the child did not exit normally
    bool timedOut = false;
    std::string out;  // standard output, or everything the terminal showed
    std::string err;  // standard error (empty on a terminal)
};

class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess();  // kills and reaps a child still running
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // env: NAME=VALUE entries set on top of this process's environment;
    // NAME alone removes the variable. With terminalColumns > 0 the child
    // runs on a pseudo-terminal that wide (its output lands in `out`).
    bool start(const std::string& program, const std::vector<std::string>& args,
               const std::vector<std::string>& env, const std::string& input = "",
               int terminalColumns = 0);
    pid_t pid() const { return m_pid; }

    // Once `trigger` has appeared in the output, `reply` is written to the
    // child's input, once (as a person answers a prompt).
    std::string trigger, reply;

    // Feeds the input, collects the output and waits for the exit; after
    // timeoutMs the child is killed.
    ChildResult finish(int timeoutMs);

    // For callers that do their own I/O: the parent's end of the child's
    // input (0), output (1) or error (2), -1 once closed; and whether the
    // child has exited (reaped without waiting).
    int& fd(int i) { return m_fd[i]; }
    bool exited();

  private:
    static void closeFd(int& fd) { ::close(std::exchange(fd, -1)); }  // -1: nothing to close

    pid_t m_pid = -1;
    int m_fd[3] = {-1, -1, -1};  // the child's input, output, error
    std::string m_input;
    size_t m_inputSent = 0;
};

// start + finish in one call.
ChildResult runChild(const std::string& program, const std::vector<std::string>& args,
                     const std::vector<std::string>& env, const std::string& input = "",
                     int timeoutMs = 60000);

}  // namespace scpkit::test
