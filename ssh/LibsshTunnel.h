// A jump host's forwarding channel ("direct-tcpip") to the next hop, carried
// to the next connection over a socket pair: the next session speaks SSH on
// one end, and a thread of the tunnel's own copies bytes between the other
// end and the channel until either side ends.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

struct ssh_channel_struct;

namespace scpkit {

class LibsshTransport;
class LogBase;

class LibsshTunnel {
  public:
    // Asks `jump` (connected and logged in, and used by nothing else from
    // now on) to open a channel to host:port; null, with the reason logged,
    // when it refuses.
    static std::unique_ptr<LibsshTunnel> open(std::shared_ptr<LibsshTransport> jump,
                                              const std::string& host, int port, LogBase& log);
    ~LibsshTunnel();  // stops the thread and closes the channel
    LibsshTunnel(const LibsshTunnel&) = delete;
    LibsshTunnel& operator=(const LibsshTunnel&) = delete;

    // The socket for the next connection; the caller owns it. -1 after the
    // first call.
    int takeSocket();

  private:
    LibsshTunnel() = default;
    void pump();

    std::shared_ptr<LibsshTransport> m_jump;
    ssh_channel_struct* m_channel = nullptr;
    int m_fd = -1;      // the pump's end
    int m_peerFd = -1;  // the next connection's end, until taken
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace scpkit
