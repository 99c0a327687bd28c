// LibsshTransport: session channels and the pump. Channel data goes from
// libssh's callbacks straight into each channel's inbox (no
// ssh_channel_read on the way); the pump waits for the socket without the
// session lock and takes it only to let libssh read and decrypt.
#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include <scpkit/ssh/LibsshTransport.h>

namespace scpkit {

namespace {

// libssh reads the socket this many bytes at a time: a read that fills it
// means more is probably waiting.
constexpr uint64_t kLibsshReadSize = 4096;
// One pump() lets libssh read at most this many times before returning, so
// its caller looks at what arrived at least every 256 KiB.
constexpr int kMaxReadsPerPump = 64;
constexpr size_t kRedeliverPiece = 64 * 1024;
// A request waiting for the server's answer looks again at least this often
// (the answer itself ends the wait at once).
constexpr int kAnswerSliceMs = 20;

// Channel ids are never reused within the process, so a stale id held by a
// caller after a reconnect cannot reach a new channel.
std::atomic<int> g_nextChannelId{0};

int allocateChannelId() {
    int id = g_nextChannelId.fetch_add(1);
    if (id < 0 || id == INT_MAX) {
        g_nextChannelId.store(1);
        id = 0;
    }
    return id;
}

}  // namespace

struct LibsshTransport::Channel {
    ssh_channel handle = nullptr;
    ssh_channel_callbacks_struct callbacks;
    ChannelInbox* inbox = nullptr;
    size_t held = 0;          // data-stream bytes libssh keeps that the inbox declined
    bool wantWindow = false;  // a write found the peer's window closed

    static int onData(ssh_session, ssh_channel, void* data, uint32_t len, int isStderr,
                      void* self) {
        auto* c = static_cast<Channel*>(self);
        size_t taken =
            c->inbox->onData(static_cast<const unsigned char*>(data), len, isStderr != 0, 0);
        // libssh offers everything it holds for the stream each time.
        if (!isStderr) c->held = len - taken;
        return static_cast<int>(taken);
    }
    static void onEof(ssh_session, ssh_channel, void* self) {
        static_cast<Channel*>(self)->inbox->onEof();
    }
    static void onClose(ssh_session, ssh_channel, void* self) {
        static_cast<Channel*>(self)->inbox->onClose();
    }
};

LibsshTransport::LibsshTransport()
    : m_socketCounter(std::make_unique<ssh_counter_struct>()),
      m_wakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

LibsshTransport::~LibsshTransport() {
    disconnect();
    if (m_wakeFd >= 0) ::close(m_wakeFd);
}

void LibsshTransport::disconnect() {
    for (auto& entry : m_channels) freeHandle(*entry.second);
    m_channels.clear();
    m_windowWaiters = 0;
    if (m_event) {
        ssh_event_remove_session(m_event, m_session);
        ssh_event_free(m_event);
        m_event = nullptr;
    }
    if (m_session) {
        if (m_connected) ssh_disconnect(m_session);
        ssh_free(m_session);
        m_session = nullptr;
    }
    m_connected = false;
    m_authenticated = false;
}

LibsshTransport::Channel* LibsshTransport::find(int ch) {
    auto it = m_channels.find(ch);
    if (it != m_channels.end()) return it->second.get();
    m_error = "No such channel on this connection.";
    return nullptr;
}

std::string LibsshTransport::lastError() {
    Guard guard(m_lock);
    if (!m_error.empty()) return m_error;
    const char* detail = m_session ? ssh_get_error(m_session) : nullptr;
    return detail ? detail : "";
}

int LibsshTransport::openChannel(ChannelInbox& inbox) {
    int id;
    {
        Guard guard(m_lock);
        m_error.clear();
        if (!connected()) {
            m_error = "Not connected.";
            return -1;
        }
        std::unique_ptr<Channel> c;
        try {
            c = std::make_unique<Channel>();
        } catch (...) {
            m_error = "Out of memory.";
            return -1;
        }
        c->inbox = &inbox;
        c->handle = ssh_channel_new(m_session);
        if (!c->handle) return -1;
        std::memset(&c->callbacks, 0, sizeof c->callbacks);
        c->callbacks.userdata = c.get();
        c->callbacks.channel_data_function = Channel::onData;
        c->callbacks.channel_eof_function = Channel::onEof;
        c->callbacks.channel_close_function = Channel::onClose;
        ssh_callbacks_init(&c->callbacks);
        if (ssh_set_channel_callbacks(c->handle, &c->callbacks) != SSH_OK) {
            freeHandle(*c);
            return -1;
        }
        // In the table while the server answers, so that a disconnect
        // meanwhile frees it with the others.
        id = allocateChannelId();
        m_channels[id] = std::move(c);
    }
    if (untilAnswered(id, [](ssh_channel h) { return ssh_channel_open_session(h); })) return id;
    releaseChannel(id);
    return -1;
}

bool LibsshTransport::setEnv(int ch, const char* name, const char* value) {
    return untilAnswered(
        ch, [name, value](ssh_channel h) { return ssh_channel_request_env(h, name, value); });
}

bool LibsshTransport::exec(int ch, const char* command) {
    return untilAnswered(ch,
                         [command](ssh_channel h) { return ssh_channel_request_exec(h, command); });
}

template <class Request>
bool LibsshTransport::untilAnswered(int ch, Request request) {
    const auto start = std::chrono::steady_clock::now();
    {
        Guard guard(m_lock);
        m_error.clear();
    }
    for (;;) {
        int socket;
        {
            Guard guard(m_lock);
            Channel* c = find(ch);
            if (!c || !connected()) return false;
            ssh_set_blocking(m_session, 0);
            int rc = request(c->handle);
            ssh_set_blocking(m_session, 1);
            reportWindows();  // the packets read meanwhile may have opened windows
            if (rc != SSH_AGAIN) return rc == SSH_OK;
            if (!connected()) return false;
            auto waited = std::chrono::steady_clock::now() - start;
            if (waited > std::chrono::milliseconds(m_timeoutMs)) {
                m_error = "The server did not answer the channel request in time.";
                return false;
            }
            socket = ssh_get_fd(m_session);
        }
        // Whatever arrives is read by the next try, or by the pumping thread.
        pollfd fd = {socket, POLLIN, 0};
        ::poll(&fd, 1, kAnswerSliceMs);
    }
}

long LibsshTransport::write(int ch, const unsigned char* data, size_t numBytes) {
    Guard guard(m_lock);
    m_error.clear();
    Channel* c = find(ch);
    if (!c) return -1;
    if (numBytes == 0) return 0;
    // ssh_channel_write waits without a time limit while the peer's window
    // is closed, so it is never handed more than the window.
    uint32_t window = ssh_channel_window_size(c->handle);
    if (window == 0 && ssh_channel_is_open(c->handle)) {
        if (!c->wantWindow) ++m_windowWaiters;
        c->wantWindow = true;
        return 0;
    }
    uint32_t chunk =
        static_cast<uint32_t>(std::min<size_t>(numBytes, std::max<uint32_t>(window, 1)));
    int n = ssh_channel_write(c->handle, data, chunk);
    reportWindows();  // the write's flush may have read window adjustments
    return n < 0 ? -1 : n;
}

void LibsshTransport::reportWindows() {
    if (m_windowWaiters == 0) return;
    for (auto& entry : m_channels) {
        Channel& c = *entry.second;
        if (c.wantWindow &&
            (ssh_channel_window_size(c.handle) > 0 || !ssh_channel_is_open(c.handle))) {
            c.wantWindow = false;
            --m_windowWaiters;
            c.inbox->onWritable();
        }
    }
}

bool LibsshTransport::pump(int timeoutMs) {
    int socket;
    {
        Guard guard(m_lock);
        if (!connected()) return false;
        if (!m_event) {
            m_event = ssh_event_new();
            if (!m_event || ssh_event_add_session(m_event, m_session) != SSH_OK) return false;
        }
        socket = ssh_get_fd(m_session);
    }
    // The wait itself holds no lock: other threads write meanwhile.
    pollfd fds[2] = {{socket, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    int ready = ::poll(fds, 2, std::max(timeoutMs, 0));
    if (ready < 0 && errno != EINTR) return false;
    if (fds[1].revents & POLLIN) {
        uint64_t count;
        ssize_t n = ::read(m_wakeFd, &count, sizeof count);
        (void)n;
    }
    if (ready <= 0 || fds[0].revents == 0) return true;
    for (int i = 0; i < kMaxReadsPerPump; ++i) {
        Guard guard(m_lock);
        uint64_t before = m_socketCounter->in_bytes;
        ssh_event_dopoll(m_event, 0);
        reportWindows();
        if (!connected()) return false;
        // A short read emptied the socket: back to waiting.
        if (m_socketCounter->in_bytes - before < kLibsshReadSize) break;
    }
    return true;
}

void LibsshTransport::wakePump() {
    uint64_t one = 1;
    ssize_t n = ::write(m_wakeFd, &one, sizeof one);
    (void)n;
}

void LibsshTransport::redeliver(int ch) {
    Guard guard(m_lock);
    Channel* c = find(ch);
    if (!c) return;
    if (m_scratch.size() < kRedeliverPiece) m_scratch.resize(kRedeliverPiece);
    while (c->held > 0) {
        size_t room = std::min({c->inbox->freeSpace(), c->held, kRedeliverPiece});
        if (room == 0) return;
        // Reads what libssh buffered, without touching the socket, and lets
        // libssh reopen the window.
        int n = ssh_channel_read_nonblocking(c->handle, m_scratch.data(),
                                             static_cast<uint32_t>(room), 0);
        if (n <= 0) {
            c->held = 0;
            return;
        }
        c->held -= std::min(c->held, static_cast<size_t>(n));
        c->inbox->onData(m_scratch.data(), static_cast<size_t>(n), false, c->held);
    }
}

bool LibsshTransport::sendClose(int ch) {
    Guard guard(m_lock);
    m_error.clear();
    Channel* c = find(ch);
    return c && ssh_channel_close(c->handle) == SSH_OK;
}

void LibsshTransport::freeHandle(Channel& c) {
    if (!c.handle) return;
    // libssh keeps a freed channel until the server's CLOSE comes and still
    // calls its callbacks then: they must not point into the entry.
    ssh_remove_channel_callbacks(c.handle, &c.callbacks);
    ssh_channel_free(c.handle);
    c.handle = nullptr;
}

void LibsshTransport::releaseChannel(int ch) {
    Guard guard(m_lock);
    auto it = m_channels.find(ch);
    if (it == m_channels.end()) return;
    if (it->second->wantWindow) --m_windowWaiters;
    freeHandle(*it->second);
    m_channels.erase(it);
}

}  // namespace scpkit
