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
    int openChannel(ChannelInbox& inbox) override;
    bool setEnv(int ch, const char* name, const char* value) override;
    bool exec(int ch, const char* command) override;
    long write(int ch, const unsigned char* data, size_t numBytes) override;
    bool pump(int timeoutMs) override;
    void wakePump() override;
    void redeliver(int ch) override;
    bool sendClose(int ch) override;  // closes the child's stdin; the child is left to exit
    void releaseChannel(int ch) override;
    std::string lastError() override { return ""; }

  private:
    struct Child;
    Child* find(int ch);  // the lock is held
    std::string m_workDir;
    std::mutex m_mutex;
    std::map<int, std::unique_ptr<Child>> m_children;
    int m_next = 0;
    int m_wakeFd = -1;
};

}  // namespace scpkit::test
