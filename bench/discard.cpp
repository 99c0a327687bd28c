// Reads its standard input to the end and drops it: the sink of the
// transport ceiling's `ssh HOST cat`, where a shell would write to a device.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

int main() {
    std::vector<char> buffer(256 * 1024);
    for (;;) {
        ssize_t n = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (n > 0) continue;
        if (n == 0) return 0;
        if (errno == EINTR) continue;
        std::fprintf(stderr, "discard: %s\n", std::strerror(errno));
        return 1;
    }
}
