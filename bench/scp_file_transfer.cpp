// Throughput of ClsScp's UploadFile and DownloadFile over a loopback sshd,
// next to OpenSSH's scp in its SCP mode (scp -O) with the same cipher.
//
//   scp_file_transfer [--mib N] [--rounds R] [--cipher NAME]
//                     [--direction both|up|down] [--no-openssh]
//
// Starts a throwaway sshd (needs root), writes an N MiB file, then for each
// round times UploadFile and DownloadFile of that file (the connection is
// made once, before the rounds, as an application would) and
// `scp -O -c CIPHER` in both directions. OpenSSH's figures include its
// connection and login; they are also given net of a 1-byte `scp -O`
// measured in the same round. MB is 10^6 bytes. The program's own peak
// resident memory is printed last; run it under /usr/bin/time -v with
// --direction up or down and --no-openssh for a per-direction figure.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/SshdFixture.h"

using namespace scpkit;
using Clock = std::chrono::steady_clock;

namespace {

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
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    std::vector<unsigned char> chunk(1 << 20);
    unsigned x = 12345;
    for (auto& c : chunk) {
        x = x * 1103515245u + 12345u;
        c = static_cast<unsigned char>(x >> 16);
    }
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

long long fileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// CPU seconds (user + system) of this process, or of its reaped children.
double cpuSeconds(int who) {
    struct rusage u;
    getrusage(who, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

double timeShell(const std::string& command) {
    Clock::time_point start = Clock::now();
    int rc = std::system(command.c_str());
    return rc == 0 ? seconds(start) : -1;
}

// Peak resident memory of a command in MiB, as /usr/bin/time reports it
// (the largest of the command and the processes it waited for); -1 when
// unavailable.
double peakMiBOf(const std::string& command, const std::string& scratch) {
    if (access("/usr/bin/time", X_OK) != 0) return -1;
    std::string report = scratch + "/time-report";
    if (std::system(("/usr/bin/time -f %M -o " + report + " " + command).c_str()) != 0) return -1;
    std::ifstream in(report);
    long kib = -1;
    in >> kib;
    return kib < 0 ? -1 : kib / 1024.0;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

double mbPerSec(long long bytes, double secs) {
    return secs > 0 ? bytes / secs / 1e6 : 0;
}

void lastError(ClsBase& obj) {
    XString text;
    obj.get_LastErrorText(text);
    std::fprintf(stderr, "%s\n", text.getUtf8());
}

}  // namespace

int main(int argc, char** argv) {
    long long mib = 1024;
    int rounds = 3;
    std::string cipher = "aes128-gcm@openssh.com";
    std::string direction = "both";
    bool openssh = true;
    for (int i = 1; i < argc; ++i) {
        std::string opt = argv[i];
        bool hasValue = i + 1 < argc;
        if (opt == "--mib" && hasValue) {
            mib = std::atoll(argv[++i]);
        } else if (opt == "--rounds" && hasValue) {
            rounds = std::atoi(argv[++i]);
        } else if (opt == "--cipher" && hasValue) {
            cipher = argv[++i];
        } else if (opt == "--direction" && hasValue) {
            direction = argv[++i];
        } else if (opt == "--no-openssh") {
            openssh = false;
        } else {
            std::fprintf(stderr,
                         "usage: %s [--mib N] [--rounds R] [--cipher NAME] "
                         "[--direction both|up|down] [--no-openssh]\n",
                         argv[0]);
            return 2;
        }
    }
    bool up = direction == "both" || direction == "up";
    bool down = direction == "both" || direction == "down";
    if (mib <= 0 || rounds <= 0 || (!up && !down)) return 2;
    const long long bytes = mib * 1024 * 1024;

    test::SshdFixture sshd;
    if (!sshd.ok()) {
        std::fprintf(stderr, "cannot start the loopback sshd: %s\n", sshd.error().c_str());
        return 1;
    }
    const std::string dir = sshd.tempDir();
    const std::string source = dir + "/payload";
    const std::string remoteCopy = dir + "/uploaded";
    const std::string localCopy = dir + "/downloaded";
    const std::string tiny = dir + "/tiny";
    if (!makeFile(source, bytes) || !makeFile(tiny, 1)) {
        std::fprintf(stderr, "cannot write the payload under %s\n", dir.c_str());
        return 1;
    }

    ClsSsh* ssh = ClsSsh::createNewCls();
    ClsScp scp;
    XString ciphers(cipher.c_str());
    ssh->put_Ciphers(ciphers);
    if (!sshd.connectAndLogin(*ssh)) {
        lastError(*ssh);
        return 1;
    }
    scp.UseSsh(*ssh);

    const std::string scpBase =
        "scp -O -q -F /dev/null -c " + cipher + " -P " + std::to_string(sshd.port()) + " -i " +
        sshd.clientKeyPath() +
        " -o IdentitiesOnly=yes -o BatchMode=yes -o UserKnownHostsFile=" + sshd.knownHostsPath() +
        " -o StrictHostKeyChecking=yes ";
    const std::string remote = sshd.user() + "@" + sshd.host() + ":";

    std::printf("payload %lld MiB, %d rounds, cipher %s, load average %s\n", mib, rounds,
                cipher.c_str(), loadAverage().c_str());
    std::vector<double> kitUp, kitDown, sshUp, sshDown, sshFixed;
    std::vector<double> kitUpCpu, kitDownCpu, sshUpCpu, sshDownCpu;
    for (int r = 0; r < rounds; ++r) {
        if (up) {
            unlink(remoteCopy.c_str());
            XString l(source.c_str()), rp(remoteCopy.c_str());
            double cpu = cpuSeconds(RUSAGE_SELF);
            Clock::time_point start = Clock::now();
            bool ok = scp.UploadFile(l, rp);
            double t = seconds(start);
            kitUpCpu.push_back(cpuSeconds(RUSAGE_SELF) - cpu);
            if (!ok || fileSize(remoteCopy) != bytes) {
                lastError(scp);
                return 1;
            }
            kitUp.push_back(t);
        } else if (r == 0) {
            if (!makeFile(remoteCopy, bytes)) return 1;
        }
        if (down) {
            unlink(localCopy.c_str());
            XString rp(remoteCopy.c_str()), l(localCopy.c_str());
            double cpu = cpuSeconds(RUSAGE_SELF);
            Clock::time_point start = Clock::now();
            bool ok = scp.DownloadFile(rp, l);
            double t = seconds(start);
            kitDownCpu.push_back(cpuSeconds(RUSAGE_SELF) - cpu);
            if (!ok || fileSize(localCopy) != bytes) {
                lastError(scp);
                return 1;
            }
            kitDown.push_back(t);
            unlink(localCopy.c_str());
        }
        if (openssh) {
            double fixed = timeShell(scpBase + tiny + " " + remote + dir + "/tiny-copy");
            if (fixed < 0) {
                std::fprintf(stderr, "OpenSSH scp failed\n");
                return 1;
            }
            sshFixed.push_back(fixed);
            if (up) {
                std::string target = dir + "/scp-uploaded";
                unlink(target.c_str());
                double cpu = cpuSeconds(RUSAGE_CHILDREN);
                sshUp.push_back(timeShell(scpBase + source + " " + remote + target));
                sshUpCpu.push_back(cpuSeconds(RUSAGE_CHILDREN) - cpu);
                unlink(target.c_str());
            }
            if (down) {
                std::string target = dir + "/scp-downloaded";
                double cpu = cpuSeconds(RUSAGE_CHILDREN);
                sshDown.push_back(timeShell(scpBase + remote + remoteCopy + " " + target));
                sshDownCpu.push_back(cpuSeconds(RUSAGE_CHILDREN) - cpu);
                unlink(target.c_str());
            }
        }
        std::printf("round %d done (load average %s)\n", r + 1, loadAverage().c_str());
    }

    auto report = [&](const char* what, const std::vector<double>& kit,
                      const std::vector<double>& kitCpu, const std::vector<double>& ossh,
                      const std::vector<double>& osshCpu) {
        double k = median(kit);
        std::printf("%-9s scpkit %8.1f MB/s (%.2f s, client CPU %.2f s)", what, mbPerSec(bytes, k),
                    k, median(kitCpu));
        if (!ossh.empty()) {
            double o = median(ossh);
            double net = o - median(sshFixed);
            std::printf(" | scp -O %8.1f MB/s (%.2f s, client CPU %.2f s)", mbPerSec(bytes, o), o,
                        median(osshCpu));
            std::printf(" | net of login %.1f MB/s | ratio %.2f (net %.2f)", mbPerSec(bytes, net),
                        o / k, net / k);
        }
        std::printf("\n");
    };
    if (up) report("upload", kitUp, kitUpCpu, sshUp, sshUpCpu);
    if (down) report("download", kitDown, kitDownCpu, sshDown, sshDownCpu);
    if (openssh) {
        std::printf("scp -O of 1 byte (connection and login): %.3f s\n", median(sshFixed));
        // One more run of each direction, for its memory only.
        std::string target = dir + "/scp-memory";
        if (up) {
            std::printf("scp -O upload peak resident memory: %.1f MiB\n",
                        peakMiBOf(scpBase + source + " " + remote + target, dir));
        }
        if (down) {
            std::printf("scp -O download peak resident memory: %.1f MiB\n",
                        peakMiBOf(scpBase + remote + remoteCopy + " " + target, dir));
        }
        unlink(target.c_str());
    }

    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::printf("peak resident memory of this program: %.1f MiB\n", usage.ru_maxrss / 1024.0);

    ssh->decRefCount();
    return 0;
}
