// The library end of the benchmarks: one transfer per process, so that the
// harness measures it exactly as it measures scp, ssh and rsync.
//
//   scpkit_bench [options] COMMAND ARGS...
//     put LOCAL REMOTE             UploadFile
//     get REMOTE LOCAL             DownloadFile
//     put-memory LOCAL REMOTE      UploadBinary of LOCAL's bytes (read before connecting)
//     get-memory REMOTE            DownloadBinary; the bytes are counted and dropped
//     get-bd REMOTE                DownloadBd into a ClsBinData, likewise
//     get-string REMOTE CHARSET    DownloadString, likewise
//     tree-up MODE LOCAL REMOTE    SyncTreeUpload, recursive
//     tree-down MODE REMOTE LOCAL  SyncTreeDownload, recursive
//     round-trips N                N one-byte exchanges with a remote `cat` on one
//                                  channel: the cost of one acknowledged step
//   options: --host H (127.0.0.1) --port N --user U --key FILE --known-hosts FILE
//            --cipher LIST --elapsed-file FILE (writes the seconds from connecting
//            to the end of the transfer, without loading or dropping local data)
//            --verify (the in-memory downloads: after the clock stops, compare the
//            bytes with REMOTE read as a local file; the server is this machine)
#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include <scpkit/ssh/SshReadParams.h>

namespace scpkit {
namespace {

struct Options {
    std::string host = "127.0.0.1";
    int port = 22;
    std::string user;
    std::string key;
    std::string knownHosts;
    std::string cipher;
    std::string elapsedFile;
    bool verify = false;
    std::vector<std::string> args;  // the command and its arguments
};

int usage() {
    std::fprintf(stderr,
                 "usage: scpkit_bench [--host H] [--port N] [--user U] --key FILE\n"
                 "         --known-hosts FILE [--cipher LIST] [--elapsed-file FILE] [--verify]\n"
                 "         put LOCAL REMOTE | get REMOTE LOCAL | put-memory LOCAL REMOTE |\n"
                 "         get-memory REMOTE | get-bd REMOTE | get-string REMOTE CHARSET |\n"
                 "         tree-up MODE LOCAL REMOTE |\n"
                 "         tree-down MODE REMOTE LOCAL | round-trips N\n");
    return 2;
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string& into) {
            if (i + 1 >= argc) return false;
            into = argv[++i];
            return true;
        };
        std::string port;
        if (a == "--host") {
            if (!value(o.host)) return false;
        } else if (a == "--port") {
            if (!value(port)) return false;
            o.port = std::atoi(port.c_str());
        } else if (a == "--user") {
            if (!value(o.user)) return false;
        } else if (a == "--key") {
            if (!value(o.key)) return false;
        } else if (a == "--known-hosts") {
            if (!value(o.knownHosts)) return false;
        } else if (a == "--cipher") {
            if (!value(o.cipher)) return false;
        } else if (a == "--elapsed-file") {
            if (!value(o.elapsedFile)) return false;
        } else if (a == "--verify") {
            o.verify = true;
        } else {
            o.args.assign(argv + i, argv + argc);
            break;
        }
    }
    if (o.user.empty()) {
        const passwd* pw = getpwuid(geteuid());
        o.user = pw ? pw->pw_name : "";
    }
    return !o.args.empty() && !o.key.empty();
}

// Prints an object's last log to stderr and fails.
int failWith(ClsBase& obj, const char* what) {
    XString text;
    obj.get_LastErrorText(text);
    std::fprintf(stderr, "scpkit_bench: %s failed\n%s\n", what, text.getUtf8());
    return 1;
}

bool connect(ClsSsh& ssh, const Options& o) {
    XString knownHosts(o.knownHosts.c_str());
    ssh.put_KnownHostsPath(knownHosts);
    if (!o.cipher.empty()) {
        XString ciphers(o.cipher.c_str());
        ssh.put_Ciphers(ciphers);
    }
    XString host(o.host.c_str());
    XString user(o.user.c_str());
    XString key(o.key.c_str());
    XString noPassphrase;
    return ssh.Connect(host, o.port) && ssh.LoginWithKeyFile(user, key, noPassphrase);
}

bool readWholeFile(const std::string& path, DataBuffer& out) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) return false;
    std::streamoff size = in.tellg();
    if (size < 0) return false;
    in.seekg(0);
    out.clear();
    out.reserve(static_cast<size_t>(size));
    std::vector<char> chunk(1 << 20);
    while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0) {
        if (!out.append(chunk.data(), static_cast<size_t>(in.gcount()))) return false;
    }
    return out.getSize() == static_cast<size_t>(size);
}

// N exchanges of one byte through a remote `cat`: each waits for its echo.
bool roundTrips(ClsSsh& ssh, long n) {
    LogNull log;
    SocketParams sp(nullptr);
    int channel = ssh.openSessionChannel(sp, log);
    XString command("cat");
    if (channel < 0 || !ssh.sendReqExec(channel, command, sp, log)) return false;
    DataBuffer one;
    one.appendChar('x');
    DataBuffer received;
    for (long i = 0; i < n; ++i) {
        if (!ssh.channelSendData(static_cast<unsigned>(channel), one, sp, log)) return false;
        while (!ssh.receivedDataContainsChar(channel, 'x')) {
            if (ssh.channelRead(channel, sp, log) < 0) return false;
        }
        received.clear();
        ssh.getReceivedData(channel, received, log);
    }
    ssh.channelSendClose(channel, sp, log);
    SshReadParams rp;
    ssh.channelReceiveUntilCondition(channel, 1, rp, sp, log);
    return true;
}

// What the in-memory downloads received; they are checked after the clock stops.
struct Received {
    DataBuffer bytes;  // get-memory, and put-memory's source
    ClsBinData bd;     // get-bd
    XString text;      // get-string

    const char* data(const std::string& cmd) {
        if (cmd == "get-bd") return reinterpret_cast<const char*>(bd.getDataBuffer().getData2());
        if (cmd == "get-string") return text.getUtf8();
        return reinterpret_cast<const char*>(bytes.getData2());
    }
    size_t size(const std::string& cmd) {
        if (cmd == "get-bd") return bd.getDataBuffer().getSize();
        if (cmd == "get-string") return text.getSizeUtf8();
        return bytes.getSize();
    }
};

// One library call; returns the process's exit status.
int transfer(ClsScp& scp, ClsSsh& ssh, const Options& o, Received& got) {
    const std::string& cmd = o.args[0];
    const size_t argc = o.args.size();
    auto arg = [&](size_t i) { return XString(o.args[i].c_str()); };
    auto mode = [&](size_t i) { return std::atoi(o.args[i].c_str()); };
    const bool recurse = true;
    if (cmd == "put" && argc == 3) {
        XString local = arg(1), remote = arg(2);
        return scp.UploadFile(local, remote) ? 0 : failWith(scp, "UploadFile");
    } else if (cmd == "get" && argc == 3) {
        XString remote = arg(1), local = arg(2);
        return scp.DownloadFile(remote, local) ? 0 : failWith(scp, "DownloadFile");
    } else if (cmd == "put-memory" && argc == 3) {
        XString remote = arg(2);
        return scp.UploadBinary(remote, got.bytes) ? 0 : failWith(scp, "UploadBinary");
    } else if (cmd == "get-memory" && argc == 2) {
        XString remote = arg(1);
        return scp.DownloadBinary(remote, got.bytes) ? 0 : failWith(scp, "DownloadBinary");
    } else if (cmd == "get-bd" && argc == 2) {
        XString remote = arg(1);
        return scp.DownloadBd(remote, got.bd) ? 0 : failWith(scp, "DownloadBd");
    } else if (cmd == "get-string" && argc == 3) {
        XString remote = arg(1), charset = arg(2);
        return scp.DownloadString(remote, charset, got.text) ? 0 : failWith(scp, "DownloadString");
    } else if (cmd == "tree-up" && argc == 4) {
        XString local = arg(2), remote = arg(3);
        return scp.SyncTreeUpload(local, remote, mode(1), recurse)
                   ? 0
                   : failWith(scp, "SyncTreeUpload");
    } else if (cmd == "tree-down" && argc == 4) {
        XString remote = arg(2), local = arg(3);
        return scp.SyncTreeDownload(remote, local, mode(1), recurse)
                   ? 0
                   : failWith(scp, "SyncTreeDownload");
    } else if (cmd == "round-trips" && argc == 2) {
        return roundTrips(ssh, std::atol(o.args[1].c_str())) ? 0 : failWith(ssh, "round trips");
    }
    return usage();
}

// Compares what an in-memory download received with the file it came from.
bool sameAsFile(const char* data, size_t size, const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> chunk(1 << 20);
    size_t offset = 0;
    while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0) {
        size_t n = static_cast<size_t>(in.gcount());
        if (offset + n > size || std::memcmp(data + offset, chunk.data(), n) != 0) return false;
        offset += n;
    }
    return in.eof() && offset == size;
}

int run(const Options& o) {
    const std::string& cmd = o.args[0];
    Received got;
    // Local data for the in-memory upload is loaded before the clock starts.
    if (cmd == "put-memory" && o.args.size() == 3 && !readWholeFile(o.args[1], got.bytes)) {
        std::fprintf(stderr, "scpkit_bench: cannot read %s\n", o.args[1].c_str());
        return 1;
    }

    auto started = std::chrono::steady_clock::now();
    ClsSsh* ssh = ClsSsh::createNewCls();
    if (!ssh) return 1;
    struct Release {
        ClsSsh* p;
        ~Release() { p->decRefCount(); }
    } release{ssh};
    if (!connect(*ssh, o)) return failWith(*ssh, "connect");

    ClsScp scp;
    if (!scp.UseSsh(*ssh)) return failWith(scp, "UseSsh");
    int status = transfer(scp, *ssh, o, got);
    ssh->Disconnect();
    double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (status != 0) return status;

    if (!o.elapsedFile.empty()) {
        if (FILE* f = std::fopen(o.elapsedFile.c_str(), "w")) {
            std::fprintf(f, "%.6f\n", elapsed);
            std::fclose(f);
        }
    }
    if (cmd.rfind("get-", 0) == 0) {
        if (o.verify && !sameAsFile(got.data(cmd), got.size(cmd), o.args[1])) {
            std::fprintf(stderr, "scpkit_bench: %s received bytes that differ from %s\n",
                         cmd.c_str(), o.args[1].c_str());
            return 1;
        }
        std::printf("%zu bytes\n", got.size(cmd));
    }
    return 0;
}

}  // namespace
}  // namespace scpkit

int main(int argc, char** argv) {
    scpkit::Options o;
    if (!scpkit::parse(argc, argv, o)) return scpkit::usage();
    return scpkit::run(o);
}
