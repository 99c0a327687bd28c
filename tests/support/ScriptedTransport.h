// A programmable SSH peer for tests: plays exact bytes on each channel and
// records everything the client sent, for error paths a real server will
// not take on demand.
//
//   auto t = std::make_shared<ScriptedTransport>();
//   t->peer(0).send(std::string(1, '\0'))   // remote scp's ready byte
//             .awaitBytes(1)                // until the client wrote 1 more byte
//             .send("C0644 3 a\n").eof().close();
//   ssh.useTransport(t);
//   ... run a transfer ...
//   EXPECT_EQ(t->peer(0).written, expectedBytes);
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <scpkit/ssh/SshTransport.h>

namespace scpkit::test {

class ScriptedPeer {
  public:
    // ---- the script, played in order ----
    ScriptedPeer& send(const std::string& bytes) { return add(Data, bytes); }
    ScriptedPeer& sendStderr(const std::string& text) { return add(Stderr, text); }
    // Pause until the client wrote that many more bytes, or made that many more writes,
    // counted from when everything scripted before has been played.
    ScriptedPeer& awaitBytes(size_t numBytes) { return add(AwaitBytes, "", numBytes); }
    ScriptedPeer& awaitWrites(size_t numWrites) { return add(AwaitWrites, "", numWrites); }
    // Pause until the client has written that many bytes in all (a client
    // that answers ahead may have written some before the step is reached).
    ScriptedPeer& awaitTotalBytes(size_t numBytes) {
        m_steps.push_back({AwaitBytes, "", numBytes, true});
        return *this;
    }
    ScriptedPeer& eof() { return add(Eof); }
    ScriptedPeer& close() { return add(Close); }
    // ---- standing behaviour ----
    ScriptedPeer& closeOnClientClose() {
        m_closeOnClientClose = true;
        return *this;
    }
    ScriptedPeer& refuseEnv(const std::string& name) {
        m_refusedEnv.insert(name);
        return *this;
    }

    // ---- what the client did ----
    std::string written;              // every data byte, in order
    std::vector<std::string> writes;  // one entry per write call
    std::string execCommand;
    std::vector<std::pair<std::string, std::string>> envRequests;  // accepted and refused
    bool clientSentClose = false;

  private:
    friend class ScriptedTransport;
    enum Kind { Data, Stderr, AwaitBytes, AwaitWrites, Eof, Close };
    struct Step {
        Kind kind;
        std::string bytes;
        size_t count;
        bool armed = false;  // an await's count has been made absolute
    };
    ScriptedPeer& add(Kind kind, const std::string& bytes = "", size_t count = 0) {
        m_steps.push_back({kind, bytes, count});
        return *this;
    }
    void advance();  // plays the steps whose wait is over

    std::deque<Step> m_steps;
    ChannelInbox* m_inbox = nullptr;  // while the channel is open
    std::string m_readable;           // played, not yet taken
    std::string m_stderr;
    bool m_eof = false, m_close = false;
    bool m_eofDelivered = false, m_closeDelivered = false;
    bool m_closeOnClientClose = false;
    std::set<std::string> m_refusedEnv;
};

class ScriptedTransport : public SshTransport {
  public:
    // Script of the index-th channel the client opens (0, 1, ...).
    ScriptedPeer& peer(int index);
    int channelsOpened() const { return m_opened; }
    size_t maxWriteSize = 0;  // > 0: each write accepts at most this many bytes

    bool isConnected() override { return true; }
    void describeServer(LogBase& log) override;
    int openChannel(ChannelInbox& inbox) override;
    bool setEnv(int ch, const char* name, const char* value) override;
    bool exec(int ch, const char* command) override;
    long write(int ch, const unsigned char* data, size_t numBytes) override;
    // Delivers what the scripts have played; with nothing to deliver it waits
    // out the timeout (keep stall timeouts short in tests).
    bool pump(int timeoutMs) override;
    void wakePump() override;
    void redeliver(int ch) override;
    bool sendClose(int ch) override;
    void releaseChannel(int ch) override;  // the recording stays for the test
    std::string lastError() override { return ""; }

  private:
    ScriptedPeer* opened(int ch);   // null for a channel never opened; the lock is held
    bool deliver(ScriptedPeer& p);  // true when something moved; the lock is held
    std::mutex m_mutex;
    std::condition_variable m_wrote;   // the client wrote or closed
    std::deque<ScriptedPeer> m_peers;  // stable addresses
    int m_opened = 0;
    std::atomic<bool> m_wake{false};
};

}  // namespace scpkit::test
