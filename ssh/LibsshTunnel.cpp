#include <scpkit/ssh/LibsshTunnel.h>

#include <fcntl.h>
#include <libssh/libssh.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include <scpkit/base/LogBase.h>
#include <scpkit/ssh/LibsshTransport.h>

namespace scpkit {

namespace {

constexpr size_t kPiece = 64 * 1024;
// Bytes from the channel held for the socket at most; beyond that the
// channel is not read, so the jump host's window holds the sender back.
constexpr size_t kMaxHeld = 1024 * 1024;
// The longest a quiet pump sleeps before it looks at the stop flag again.
constexpr int kPollMs = 200;

// Bytes on their way in one direction.
struct Pending {
    std::vector<char> bytes;
    size_t done = 0;
    size_t size() const { return bytes.size() - done; }
    const char* data() const { return bytes.data() + done; }
    void consume(size_t n) {
        done += n;
        if (done == bytes.size()) bytes.clear(), done = 0;
    }
};

}  // namespace

std::unique_ptr<LibsshTunnel> LibsshTunnel::open(std::shared_ptr<LibsshTransport> jump,
                                                 const std::string& host, int port, LogBase& log) {
    std::unique_ptr<LibsshTunnel> t(new LibsshTunnel());
    t->m_jump = std::move(jump);
    {
        std::lock_guard<std::mutex> guard(t->m_jump->m_lock);
        ssh_session session = t->m_jump->m_session;
        t->m_channel = session ? ssh_channel_new(session) : nullptr;
        if (!t->m_channel ||
            ssh_channel_open_forward(t->m_channel, host.c_str(), port, "127.0.0.1", 0) != SSH_OK) {
            t->m_jump->logSessionError(
                "The jump host refused to open a connection to the next host.", log);
            log.LogData("forwardTo", (host + ":" + std::to_string(port)).c_str());
            return nullptr;
        }
    }
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        log.LogError("Cannot create a socket pair for the jump host's channel.");
        return nullptr;
    }
    t->m_fd = fds[0];
    t->m_peerFd = fds[1];
    fcntl(t->m_fd, F_SETFL, fcntl(t->m_fd, F_GETFL) | O_NONBLOCK);
    t->m_thread = std::thread([raw = t.get()] { raw->pump(); });
    return t;
}

LibsshTunnel::~LibsshTunnel() {
    m_stop = true;
    if (m_fd >= 0) shutdown(m_fd, SHUT_RDWR);  // wakes the pump's poll
    if (m_thread.joinable()) m_thread.join();
    if (m_peerFd >= 0) ::close(m_peerFd);
    if (m_fd >= 0) ::close(m_fd);
    if (m_channel) {
        std::lock_guard<std::mutex> guard(m_jump->m_lock);
        ssh_channel_free(m_channel);
    }
}

int LibsshTunnel::takeSocket() {
    int fd = m_peerFd;
    m_peerFd = -1;
    return fd;
}

void LibsshTunnel::pump() {
    Pending toSocket, toChannel;
    bool channelEof = false, socketEof = false, sentEof = false, shutWrite = false;
    char buf[kPiece];
    while (!m_stop) {
        bool moved = false;
        int sessionFd = -1;
        {
            std::lock_guard<std::mutex> guard(m_jump->m_lock);
            if (!ssh_channel_is_open(m_channel)) break;
            while (!channelEof && toSocket.size() < kMaxHeld) {
                int n = ssh_channel_read_nonblocking(m_channel, buf, sizeof buf, 0);
                if (n == SSH_EOF) channelEof = true;
                if (n == SSH_ERROR) m_stop = true;
                if (n <= 0) break;
                toSocket.bytes.insert(toSocket.bytes.end(), buf, buf + n);
                moved = true;
            }
            if (toChannel.size() > 0) {
                uint32_t window = ssh_channel_window_size(m_channel);
                if (window > 0) {
                    size_t n = std::min<size_t>(toChannel.size(), window);
                    int written =
                        ssh_channel_write(m_channel, toChannel.data(), static_cast<uint32_t>(n));
                    if (written < 0) break;
                    toChannel.consume(static_cast<size_t>(written));
                    moved = moved || written > 0;
                }
            } else if (socketEof && !sentEof) {
                ssh_channel_send_eof(m_channel);
                sentEof = true;
            }
            sessionFd = ssh_get_fd(m_jump->m_session);
        }
        if (toSocket.size() > 0) {
            ssize_t n = ::send(m_fd, toSocket.data(), toSocket.size(), MSG_NOSIGNAL);
            if (n > 0) toSocket.consume(static_cast<size_t>(n)), moved = true;
            if (n < 0 && errno != EAGAIN && errno != EINTR) break;
        }
        if (toSocket.size() == 0 && channelEof && !shutWrite) {
            shutdown(m_fd, SHUT_WR);
            shutWrite = true;
        }
        if (toChannel.size() == 0 && !socketEof) {
            ssize_t n = ::recv(m_fd, buf, sizeof buf, 0);
            if (n > 0) toChannel.bytes.assign(buf, buf + n), moved = true;
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) socketEof = true;
        }
        if (shutWrite && sentEof) break;
        if (moved) continue;
        // Wait for the socket, and for the jump host while there is room for
        // what it sends (its window adjustments come in with its data).
        struct pollfd fds[2] = {{m_fd, 0, 0}, {sessionFd, 0, 0}};
        if (toChannel.size() == 0 && !socketEof) fds[0].events |= POLLIN;
        if (toSocket.size() > 0) fds[0].events |= POLLOUT;
        if (toSocket.size() < kMaxHeld) fds[1].events |= POLLIN;
        ::poll(fds, sessionFd >= 0 ? 2 : 1, kPollMs);
    }
    shutdown(m_fd, SHUT_RDWR);
    std::lock_guard<std::mutex> guard(m_jump->m_lock);
    if (ssh_channel_is_open(m_channel)) ssh_channel_close(m_channel);
}

}  // namespace scpkit
