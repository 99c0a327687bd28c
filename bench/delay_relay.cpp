// A TCP relay on 127.0.0.1 that gives a loopback server a round-trip time.
//
//   delay_relay LISTEN_PORT TARGET_PORT DELAY_MS
//
// Every client of LISTEN_PORT is connected to 127.0.0.1:TARGET_PORT, and every
// chunk read from one side is written to the other DELAY_MS milliseconds (a
// decimal, each way) after it arrived. Chunks are not serialised behind each
// other: a reader keeps reading while earlier chunks wait, so the relay adds
// latency and no bandwidth limit (up to kMaxQueuedBytes in flight per
// direction, after which TCP's own flow control holds the sender).
//
// Prints "listening on PORT" once it accepts connections, and ends with its
// parent process.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kChunkBytes = 64 * 1024;
constexpr size_t kMaxQueuedBytes = 64 * 1024 * 1024;

struct Chunk {
    Clock::time_point due;
    std::vector<char> bytes;  // empty: the sender closed its side
};

// One direction of a connection: a reader that timestamps chunks as they
// arrive and a writer that sends each one when it is due.
class DelayedPipe {
  public:
    DelayedPipe(int from, int to, Clock::duration delay) : from_(from), to_(to), delay_(delay) {}

    void readLoop() {
        std::vector<char> buffer(kChunkBytes);
        for (;;) {
            ssize_t n = ::read(from_, buffer.data(), buffer.size());
            if (n < 0 && errno == EINTR) continue;
            Chunk chunk{Clock::now() + delay_, {}};
            if (n > 0) chunk.bytes.assign(buffer.data(), buffer.data() + n);
            std::unique_lock<std::mutex> lock(mutex_);
            roomFreed_.wait(lock, [&] { return queuedBytes_ < kMaxQueuedBytes || failed_; });
            if (failed_) return;
            queuedBytes_ += chunk.bytes.size();
            queue_.push_back(std::move(chunk));
            chunkQueued_.notify_one();
            if (n <= 0) return;  // end of stream or a reset: passed on as an end
        }
    }

    void writeLoop() {
        for (;;) {
            Chunk chunk;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                chunkQueued_.wait(lock, [&] { return !queue_.empty(); });
                Clock::time_point due = queue_.front().due;
                // Only this thread takes from the queue, so the front stays.
                while (Clock::now() < due) chunkQueued_.wait_until(lock, due);
                chunk = std::move(queue_.front());
                queue_.pop_front();
                queuedBytes_ -= chunk.bytes.size();
                roomFreed_.notify_one();
            }
            if (chunk.bytes.empty()) {
                ::shutdown(to_, SHUT_WR);
                return;
            }
            if (!writeAll(chunk.bytes)) {
                fail();
                return;
            }
        }
    }

  private:
    bool writeAll(const std::vector<char>& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::write(to_, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

    // The receiver is gone: stop the reader, which may be waiting for room.
    void fail() {
        std::lock_guard<std::mutex> lock(mutex_);
        failed_ = true;
        roomFreed_.notify_all();
        ::shutdown(from_, SHUT_RD);
    }

    const int from_;
    const int to_;
    const Clock::duration delay_;
    std::mutex mutex_;
    std::condition_variable chunkQueued_;
    std::condition_variable roomFreed_;
    std::deque<Chunk> queue_;
    size_t queuedBytes_ = 0;
    bool failed_ = false;
};

// A client and its connection to the target; the sockets close when the
// last of its four threads lets go of it.
struct Link {
    Link(int client, int server, Clock::duration delay)
        : client(client), server(server), up(client, server, delay), down(server, client, delay) {}
    ~Link() {
        ::close(client);
        ::close(server);
    }
    const int client;
    const int server;
    DelayedPipe up;
    DelayedPipe down;
};

void startLink(int client, int server, Clock::duration delay) {
    auto link = std::make_shared<Link>(client, server, delay);
    std::thread([link] { link->up.readLoop(); }).detach();
    std::thread([link] { link->up.writeLoop(); }).detach();
    std::thread([link] { link->down.readLoop(); }).detach();
    std::thread([link] { link->down.writeLoop(); }).detach();
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// The relay must not hold small writes back on top of the delay it adds.
void noDelay(int fd) {
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int connectTo(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in address = loopback(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    noDelay(fd);
    return fd;
}

int listenOn(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = loopback(port);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 64) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool parsePort(const char* text, int& port) {
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || value < 1 || value > 65535) return false;
    port = static_cast<int>(value);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int listenPort = 0;
    int targetPort = 0;
    char* end = nullptr;
    double delayMs = argc == 4 ? std::strtod(argv[3], &end) : -1;
    if (argc != 4 || !parsePort(argv[1], listenPort) || !parsePort(argv[2], targetPort) ||
        *end != '\0' || !(delayMs >= 0 && delayMs <= 10000)) {
        std::fprintf(stderr, "usage: delay_relay LISTEN_PORT TARGET_PORT DELAY_MS\n");
        return 2;
    }
    // End with the parent, also when it dies before it could stop us.
    pid_t parent = getppid();
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) return 1;
    ::signal(SIGPIPE, SIG_IGN);

    int listener = listenOn(listenPort);
    if (listener < 0) {
        std::fprintf(stderr, "delay_relay: cannot listen on 127.0.0.1:%d: %s\n", listenPort,
                     std::strerror(errno));
        return 1;
    }
    auto delay = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double, std::milli>(delayMs));
    std::printf("listening on %d\n", listenPort);
    std::fflush(stdout);

    for (;;) {
        int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            std::fprintf(stderr, "delay_relay: accept: %s\n", std::strerror(errno));
            return 1;
        }
        noDelay(client);
        int server = connectTo(targetPort);
        if (server < 0) {
            std::fprintf(stderr, "delay_relay: cannot reach 127.0.0.1:%d: %s\n", targetPort,
                         std::strerror(errno));
            ::close(client);
            continue;
        }
        startLink(client, server, delay);
    }
}
