#include "cli/RemoteDirectory.h"

#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/ssh/ClsSsh.h>
#include <scpkit/ssh/SshReadParams.h>

namespace scpkit::cli {

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

bool ensureRemoteDirectory(ClsSsh& ssh, const std::string& path, std::string& error) {
    if (path.empty() || path == "." || path == "~" || path == "/") return true;
    LogContextExitor context(ssh, "ensureRemoteDirectory");
    LogBase& log = ssh.m_log;
    SocketParams sp(nullptr);
    int channel = ssh.openSessionChannel(sp, log);
    if (channel < 0) {
        error = "cannot open a channel to make the remote directory";
        return false;
    }
    XString command(("mkdir -p -- " + shellQuotePath(path)).c_str());
    log.LogData("command", command.getUtf8());
    SshReadParams rp;
    bool ran = ssh.sendReqExec(channel, command, sp, log) &&
               ssh.channelReceiveUntilCondition(channel, 1, rp, sp, log);
    XString stderrText;
    ssh.getReceivedStderrText(channel, "utf-8", stderrText, log);
    ssh.channelSendClose(channel, sp, log);
    if (!stderrText.isEmpty()) {
        log.LogData("stderr", stderrText.getUtf8());
        error = stderrText.getUtf8();
        return false;
    }
    if (!ran) {
        error = "cannot run mkdir on the server";
        return false;
    }
    return true;
}

}  // namespace scpkit::cli
