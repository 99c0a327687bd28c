#include "cli/RemoteShell.h"

#include <chrono>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/ssh/ClsSsh.h>
#include <scpkit/ssh/SshReadParams.h>

namespace scpkit::cli {

namespace {

bool isHome(const std::string& path) {
    return path.empty() || path == "." || path == "~" || path == "/";
}

}  // namespace

RemoteRun runRemote(ClsSsh& ssh, const char* context, const std::string& commandText) {
    RemoteRun run;
    LogContextExitor ctx(ssh, context);
    LogBase& log = ssh.m_log;
    SocketParams sp(nullptr);
    auto start = std::chrono::steady_clock::now();
    auto since = [&start] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    int channel = ssh.openSessionChannel(sp, log);
    if (channel < 0) return run;
    double opened = since();
    XString command(commandText.c_str());
    log.LogData("command", command.getUtf8());
    SshReadParams rp;
    run.ran = ssh.sendReqExec(channel, command, sp, log);
    run.execSeconds = since() - opened;
    run.ran = run.ran && ssh.channelReceiveUntilCondition(channel, 1, rp, sp, log);
    DataBuffer out;
    ssh.getReceivedData(channel, out, log);
    run.out.assign(reinterpret_cast<const char*>(out.getData2()), out.getSize());
    XString err;
    ssh.getReceivedStderrText(channel, "utf-8", err, log);
    run.err = err.getUtf8();
    if (!run.err.empty()) log.LogData("stderr", run.err.c_str());
    ssh.channelSendClose(channel, sp, log);
    ssh.channelFinished(channel);
    run.seconds = since();
    return run;
}

std::string shellQuotePath(const std::string& path) {
    std::string prefix, rest = path;
    if (rest == "~") return rest;
    if (rest.compare(0, 2, "~/") == 0) prefix = "~/", rest = rest.substr(2);
    std::string quoted = "'";
    for (char c : rest) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return prefix + quoted + "'";
}

std::string shellWord(const std::string& word) {
    std::string quoted = "'";
    for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string remoteParent(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    size_t slash = p.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : p.substr(0, slash);
}

bool ensureRemoteDirectory(ClsSsh& ssh, const std::string& path, std::string& error) {
    if (isHome(path)) return true;
    RemoteRun run = runRemote(ssh, "ensureRemoteDirectory", "mkdir -p -- " + shellQuotePath(path));
    error = !run.err.empty() ? run.err : run.ran ? "" : "cannot run mkdir on the server";
    return error.empty();
}

bool removeRemoteFile(ClsSsh& ssh, const std::string& path, std::string& error) {
    RemoteRun run = runRemote(ssh, "removeRemoteFile", "rm -f -- " + shellQuotePath(path));
    error = !run.err.empty() ? run.err : run.ran ? "" : "cannot run rm on the server";
    return error.empty();
}

RemotePathKind probeRemotePath(ClsSsh& ssh, const std::string& path) {
    std::string target = path.empty() ? "." : path;
    std::string command = "p=" + shellQuotePath(target) +
                          "; d=" + shellQuotePath(remoteParent(target)) +
                          "; if [ -d \"$p\" ]; then echo directory; elif [ -f \"$p\" ]; then echo "
                          "file; elif [ -e \"$p\" ]; then echo other; elif [ -d \"$d\" ]; then "
                          "echo missing; else echo noparent; fi";
    // Through sh: the login shell may not be a POSIX one.
    RemoteRun run = runRemote(ssh, "probeRemotePath", "sh -c " + shellQuotePath(command));
    const std::pair<const char*, RemotePathKind> words[] = {
        {"directory\n", RemotePathKind::Directory},
        {"file\n", RemotePathKind::File},
        {"other\n", RemotePathKind::Other},
        {"missing\n", RemotePathKind::Missing},
        {"noparent\n", RemotePathKind::MissingParent}};
    for (const auto& [word, kind] : words) {
        if (run.ran && run.out == word) return kind;
    }
    return RemotePathKind::Unknown;
}

}  // namespace scpkit::cli
