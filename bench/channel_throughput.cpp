// Throughput of ClsSsh's bulk channel operations over a loopback sshd, next
// to OpenSSH's ssh client moving the same bytes with the same cipher.
//
//   channel_throughput [--mib N] [--rounds R] [--cipher NAME]
//
// Starts a throwaway sshd (needs root), writes an N MiB file, then for each
// round measures: channelSendNFromSource of the file to `cat > /dev/null`,
// channelReadNToOutput of `head -c N /dev/zero` into a discarding output,
// and `ssh -c CIPHER ... 'cat > /dev/null' < file` and
// `ssh -c CIPHER ... 'head -c N /dev/zero' > /dev/null`. Each is also given
// net of its fixed cost, measured in the same round: for ClsSsh a channel
// that runs `true` (open, exec, remote start, CLOSE), for ssh `ssh ... true`
// (also connection and login).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <scpkit/base/DataSource.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/SshdFixture.h"

using namespace scpkit;
using Clock = std::chrono::steady_clock;

namespace {

class DiscardOutput : public _vqOutput {
  public:
    void resetOutput(LogBase&) override { count = 0; }
    long long count = 0;

  protected:
    bool writeImpl(const unsigned char*, size_t numBytes, LogBase&) override {
        count += static_cast<long long>(numBytes);
        return true;
    }
};

double seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

bool makeFile(const std::string& path, long long bytes) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return false;
    std::vector<unsigned char> chunk(1 << 20);
    for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<unsigned char>(i * 131);
    for (long long left = bytes; left > 0;) {
        size_t n = static_cast<size_t>(std::min<long long>(left, chunk.size()));
        if (write(fd, chunk.data(), n) != static_cast<ssize_t>(n)) {
            close(fd);
            return false;
        }
        left -= static_cast<long long>(n);
    }
    return close(fd) == 0;
}

// Runs one channel: exec, then the bulk operation, then the wait for CLOSE.
// Seconds taken, or a negative number on failure.
double scpkitUpload(ClsSsh& ssh, const std::string& file, long long bytes, _vqLogger& log) {
    SocketParams sp(nullptr);
    _vqFileDataSource source;
    if (!source.openDataSourceFile(XString(file.c_str()), log)) return -1;
    Clock::time_point start = Clock::now();
    int ch = ssh.openSessionChannel(sp, log);
    XString cmd("cat > /dev/null");
    if (ch < 0 || !ssh.sendReqExec(ch, cmd, sp, log)) return -1;
    bool ok = ssh.channelSendNFromSource(ch, source, bytes, sp, log);
    SshReadParams rp;
    ok = ok && ssh.channelSendClose(ch, sp, log) &&
         ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log);
    return ok ? seconds(start) : -1;
}

double scpkitDownload(ClsSsh& ssh, long long bytes, _vqLogger& log) {
    SocketParams sp(nullptr);
    DiscardOutput sink;
    Clock::time_point start = Clock::now();
    int ch = ssh.openSessionChannel(sp, log);
    XString cmd(("head -c " + std::to_string(bytes) + " /dev/zero").c_str());
    if (ch < 0 || !ssh.sendReqExec(ch, cmd, sp, log)) return -1;
    bool ok = ssh.channelReadNToOutput(ch, bytes, sink, sp, log) && sink.count == bytes;
    SshReadParams rp;
    ok = ok && ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log);
    return ok ? seconds(start) : -1;
}

// A channel that runs a command which says nothing: the fixed cost of a run.
double scpkitRun(ClsSsh& ssh, const char* command, _vqLogger& log) {
    SocketParams sp(nullptr);
    Clock::time_point start = Clock::now();
    int ch = ssh.openSessionChannel(sp, log);
    XString cmd(command);
    SshReadParams rp;
    bool ok = ch >= 0 && ssh.sendReqExec(ch, cmd, sp, log) &&
              ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log);
    return ok ? seconds(start) : -1;
}

double timeShell(const std::string& command) {
    Clock::time_point start = Clock::now();
    int rc = std::system(command.c_str());
    return rc == 0 ? seconds(start) : -1;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    long long mib = 1024;
    int rounds = 3;
    std::string cipher = "aes128-gcm@openssh.com";
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string opt = argv[i];
        if (opt == "--mib")
            mib = std::atoll(argv[i + 1]);
        else if (opt == "--rounds")
            rounds = std::atoi(argv[i + 1]);
        else if (opt == "--cipher")
            cipher = argv[i + 1];
        else {
            std::fprintf(stderr, "usage: %s [--mib N] [--rounds R] [--cipher NAME]\n", argv[0]);
            return 2;
        }
    }
    if (mib <= 0 || rounds <= 0) return 2;
    const long long bytes = mib * 1024 * 1024;

    scpkit::test::SshdFixture sshd;
    if (!sshd.ok()) {
        std::fprintf(stderr, "cannot start the loopback sshd: %s\n", sshd.error().c_str());
        return 1;
    }
    std::string file = sshd.tempDir() + "/payload";
    if (!makeFile(file, bytes)) {
        std::fprintf(stderr, "cannot write %s\n", file.c_str());
        return 1;
    }

    ClsSsh ssh;
    XString ciphers(cipher.c_str());
    ssh.put_Ciphers(ciphers);
    if (!sshd.connectAndLogin(ssh)) {
        XString err;
        ssh.get_LastErrorText(err);
        std::fprintf(stderr, "connect failed:\n%s\n", err.getUtf8());
        return 1;
    }
    std::string ssh_ = "ssh -q -o BatchMode=yes -o UserKnownHostsFile=" + sshd.knownHostsPath() +
                       " -i " + sshd.clientKeyPath() + " -c " + cipher + " -p " +
                       std::to_string(sshd.port()) + " " + sshd.host();
    std::string sshUp = ssh_ + " 'cat > /dev/null' < " + file;
    std::string sshDown = ssh_ + " 'head -c " + std::to_string(bytes) + " /dev/zero' > /dev/null";
    std::string sshTrue = ssh_ + " true";

    std::printf("payload %lld MiB, cipher %s, %d rounds, sshd on 127.0.0.1:%d\n", mib,
                cipher.c_str(), rounds, sshd.port());
    std::printf("ssh up:   %s\nssh down: %s\n", sshUp.c_str(), sshDown.c_str());
    std::printf("load average before: %s\n", loadAverage().c_str());
    const char* columns[] = {"scpkit up",  "scpkit down",  "ssh up",  "ssh down",
                             "scpkit up*", "scpkit down*", "ssh up*", "ssh down*"};
    std::printf("MB/s; * = net of the fixed cost\n%-6s", "round");
    for (const char* c : columns) std::printf(" %12s", c);
    std::printf("\n");
    std::vector<double> rates[8];
    for (int r = 1; r <= rounds; ++r) {
        _vqLogger log;
        double t[4] = {scpkitUpload(ssh, file, bytes, log), scpkitDownload(ssh, bytes, log),
                       timeShell(sshUp), timeShell(sshDown)};
        double scpkitFixed = scpkitRun(ssh, "true", log);
        double sshFixed = timeShell(sshTrue);
        double fixed[4] = {scpkitFixed, scpkitFixed, sshFixed, sshFixed};
        std::printf("%-6d", r);
        for (int k = 0; k < 8; ++k) {
            double secs = k < 4 ? t[k] : t[k - 4] - fixed[k - 4];
            if (t[k % 4] <= 0 || (k >= 4 && fixed[k - 4] <= 0)) {
                std::printf(" %12s", "failed");
                continue;
            }
            if (secs <= 0) {  // the fixed cost varied more than the transfer took
                std::printf(" %12s", "n/a");
                continue;
            }
            double rate = static_cast<double>(bytes) / 1e6 / secs;
            rates[k].push_back(rate);
            std::printf(" %12.0f", rate);
        }
        std::printf("   (fixed: scpkit %.3f s, ssh %.3f s)\n", scpkitFixed, sshFixed);
        std::string text;
        log.renderText(text);
        if (t[0] <= 0 || t[1] <= 0 || scpkitFixed <= 0) std::fprintf(stderr, "%s\n", text.c_str());
    }
    std::printf("%-6s", "median");
    for (auto& r : rates) std::printf(" %12.0f", median(r));
    std::printf("\n");
    std::printf("load average after: %s\n", loadAverage().c_str());
    return 0;
}
