// Wall time of the tree synchronisations over a loopback sshd, next to
// OpenSSH scp -O -r -p and rsync -a moving the same tree over the same sshd.
//
//   tree_sync [--files N] [--dirs D] [--size BYTES] [--rounds R] [--cipher NAME]
//
// Starts a throwaway sshd (needs root), writes N files of BYTES bytes spread
// over D directories, then for each round times: SyncTreeUpload mode 0 into
// an empty remote directory, SyncTreeDownload mode 0 into an empty local
// one, a re-run of each in mode 2 that copies nothing, the same two with a
// progress callback (which adds the sizing walks), and scp and rsync in
// both directions plus an rsync re-run. The OpenSSH figures include the
// client's connection and login (`ssh ... true` is timed for reference);
// the scpkit figures run on an already connected ClsSsh.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
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

bool buildTree(const std::string& root, int files, int dirs, size_t size) {
    if (mkdir(root.c_str(), 0755) != 0) return false;
    for (int d = 0; d < dirs; ++d) {
        if (mkdir((root + "/dir" + std::to_string(d)).c_str(), 0755) != 0) return false;
    }
    std::string content(size, 'x');
    for (int i = 0; i < files; ++i) {
        for (size_t k = 0; k < content.size(); k += 64)
            content[k] = static_cast<char>('a' + i % 26);
        std::ofstream out(root + "/dir" + std::to_string(i % dirs) + "/file" + std::to_string(i),
                          std::ios::binary);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        if (!out) return false;
    }
    return true;
}

// CPU seconds (user + system) used so far by this process or by its waited-for children.
double cpuSeconds(int who) {
    struct rusage ru;
    getrusage(who, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double lastCpu = 0;  // client CPU of the last timed operation

double timeShell(const std::string& command) {
    double cpu0 = cpuSeconds(RUSAGE_CHILDREN);
    Clock::time_point start = Clock::now();
    int rc = std::system(command.c_str());
    double wall = seconds(start);
    lastCpu = cpuSeconds(RUSAGE_CHILDREN) - cpu0;
    return rc == 0 ? wall : -1;
}

int countLines(ClsScp& scp) {
    XString synced;
    scp.get_SyncedFiles(synced);
    std::string text = synced.getUtf8();
    return text.empty() ? 0 : static_cast<int>(std::count(text.begin(), text.end(), '\n')) + 1;
}

class Watcher : public ProgressEvent {};

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    if (v.empty()) return 0;
    size_t mid = v.size() / 2;
    return v.size() % 2 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    int files = 10000, dirs = 100, rounds = 1;
    size_t size = 1024;
    std::string cipher = "aes128-gcm@openssh.com";
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string opt = argv[i];
        if (opt == "--files")
            files = std::atoi(argv[i + 1]);
        else if (opt == "--dirs")
            dirs = std::atoi(argv[i + 1]);
        else if (opt == "--size")
            size = static_cast<size_t>(std::atoll(argv[i + 1]));
        else if (opt == "--rounds")
            rounds = std::atoi(argv[i + 1]);
        else if (opt == "--cipher")
            cipher = argv[i + 1];
        else {
            std::fprintf(stderr,
                         "usage: %s [--files N] [--dirs D] [--size BYTES] [--rounds R] "
                         "[--cipher NAME]\n",
                         argv[0]);
            return 2;
        }
    }
    if (files <= 0 || dirs <= 0 || rounds <= 0) return 2;

    scpkit::test::SshdFixture sshd;
    if (!sshd.ok()) {
        std::fprintf(stderr, "cannot start the loopback sshd: %s\n", sshd.error().c_str());
        return 1;
    }
    const std::string base = sshd.tempDir();
    const std::string src = base + "/src";
    if (!buildTree(src, files, dirs, size)) {
        std::fprintf(stderr, "cannot build the tree under %s\n", src.c_str());
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
    ClsScp scp;
    scp.UseSsh(ssh);

    const std::string sshOpts =
        "-q -o BatchMode=yes -o UserKnownHostsFile=" + sshd.knownHostsPath() + " -i " +
        sshd.clientKeyPath() + " -c " + cipher;
    const std::string host = sshd.host();
    const std::string port = std::to_string(sshd.port());
    const std::string rsyncSsh = "rsync -a -e 'ssh " + sshOpts + " -p " + port + "' ";

    std::printf("tree: %d files of %zu bytes in %d directories; cipher %s; sshd on %s:%s\n", files,
                size, dirs, cipher.c_str(), host.c_str(), port.c_str());
    std::printf("load average before: %s\n", loadAverage().c_str());

    std::map<std::string, std::vector<double>> results;
    std::vector<std::string> order;
    auto record = [&](const std::string& name, double t, const char* note = "") {
        if (std::find(order.begin(), order.end(), name) == order.end()) order.push_back(name);
        if (t > 0) results[name].push_back(t);
        std::printf("  %-44s %9.3f s   client CPU %7.3f s %s\n", name.c_str(), t, lastCpu, note);
        std::fflush(stdout);
    };

    for (int r = 1; r <= rounds; ++r) {
        std::printf("round %d\n", r);
        const std::string tag = "/r" + std::to_string(r);
        XString local(src.c_str());
        std::string remoteDir = base + tag + "-remote", dstDir = base + tag + "-dst";
        mkdir(remoteDir.c_str(), 0755);
        mkdir(dstDir.c_str(), 0755);
        XString remote(remoteDir.c_str()), dst(dstDir.c_str());

        // Times one call on the connected component (wall and own CPU).
        auto timeScpkit = [&](const char* name, const std::function<bool()>& call) {
            double cpu0 = cpuSeconds(RUSAGE_SELF);
            Clock::time_point t0 = Clock::now();
            bool ok = call();
            double wall = seconds(t0);
            lastCpu = cpuSeconds(RUSAGE_SELF) - cpu0;
            record(name, ok ? wall : -1, ok ? "" : "FAILED");
        };
        timeScpkit("scpkit SyncTreeUpload mode 0",
                   [&] { return scp.SyncTreeUpload(local, remote, 0, true, nullptr); });
        timeScpkit("scpkit SyncTreeDownload mode 0",
                   [&] { return scp.SyncTreeDownload(remote, dst, 0, true, nullptr); });
        timeScpkit("scpkit SyncTreeUpload mode 2 (nothing to do)", [&] {
            return scp.SyncTreeUpload(local, remote, 2, true, nullptr) && countLines(scp) == 0;
        });
        timeScpkit("scpkit SyncTreeDownload mode 2 (nothing to do)", [&] {
            return scp.SyncTreeDownload(remote, dst, 2, true, nullptr) && countLines(scp) == 0;
        });

        // With a callback: the sizing walks come on top.
        Watcher watcher;
        std::string remote2Dir = remoteDir + "-p", dst2Dir = dstDir + "-p";
        mkdir(remote2Dir.c_str(), 0755);
        mkdir(dst2Dir.c_str(), 0755);
        XString remote2(remote2Dir.c_str()), dst2(dst2Dir.c_str());
        timeScpkit("scpkit SyncTreeUpload mode 0, progress",
                   [&] { return scp.SyncTreeUpload(local, remote2, 0, true, &watcher); });
        timeScpkit("scpkit SyncTreeDownload mode 0, progress",
                   [&] { return scp.SyncTreeDownload(remote2, dst2, 0, true, &watcher); });

        const std::string scpRemote = remoteDir + "-scp", scpDst = dstDir + "-scp";
        mkdir(scpRemote.c_str(), 0755);
        mkdir(scpDst.c_str(), 0755);
        record("scp -O -r -p upload", timeShell("scp -O -r -p " + sshOpts + " -P " + port + " " +
                                                src + " " + host + ":" + scpRemote + "/"));
        record("scp -O -r -p download", timeShell("scp -O -r -p " + sshOpts + " -P " + port + " " +
                                                  host + ":" + scpRemote + "/src " + scpDst + "/"));

        const std::string rsRemote = remoteDir + "-rsync", rsDst = dstDir + "-rsync";
        record("rsync -a upload", timeShell(rsyncSsh + src + "/ " + host + ":" + rsRemote + "/"));
        record("rsync -a download",
               timeShell(rsyncSsh + host + ":" + rsRemote + "/ " + rsDst + "/"));
        record("rsync -a upload (nothing to do)",
               timeShell(rsyncSsh + src + "/ " + host + ":" + rsRemote + "/"));
        record("ssh true (connection and login)",
               timeShell("ssh " + sshOpts + " -p " + port + " " + host + " true"));
    }

    if (rounds > 1) {
        std::printf("median of %d rounds\n", rounds);
        for (const std::string& name : order) {
            std::printf("  %-44s %9.3f s\n", name.c_str(), median(results[name]));
        }
    }
    std::printf("load average after: %s\n", loadAverage().c_str());
    return 0;
}
