// A transport that runs each channel's exec'd command locally through
// /bin/sh -c with pipes for stdin, stdout and stderr, so tests can talk to
// the real OpenSSH scp binary without a server. Environment requests become
// the child's environment. EOF arrives when the child's stdout closes; CLOSE
// once the child has exited and both output pipes are drained.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <scpkit/ssh/SshTransport.h>

namespace scpkit::test {

class ProcessTransport : public SshTransport {
  public:
    // Children start in workDir (the current directory when empty).
    explicit ProcessTransport(std::string workDir = "");
    ~ProcessTransport() override;  // kills and reaps children still running

    bool isConnected() override { return true; }
    void describeServer(LogBase& log) override;
    int openChannel(LogBase& log) override;
    bool setEnv(int ch, const char* name, const char* value, LogBase& log) override;
    bool exec(int ch, const char* command, LogBase& log) override;
    long write(int ch, const unsigned char* data, size_t numBytes, int timeoutMs,
               LogBase& log) override;
    long read(int ch, unsigned char* buf, size_t cap, DataBuffer& stderrOut, int timeoutMs,
              LogBase& log) override;
    bool sendEof(int ch, LogBase& log) override;    // closes the child's stdin
    bool sendClose(int ch, LogBase& log) override;  // closes stdin; the child is left to exit
    bool receivedEof(int ch) override;
    bool receivedClose(int ch) override;
    void releaseChannel(int ch) override;

  private:
    struct Child;
    Child* find(int ch);  // the lock is held
    std::string m_workDir;
    std::mutex m_mutex;
    std::map<int, std::unique_ptr<Child>> m_children;
    int m_next = 0;
};

}  // namespace scpkit::test
