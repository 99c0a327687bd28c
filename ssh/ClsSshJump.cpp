// ClsSsh: reaching the server through jump hosts, as ssh's -J does. Each
// jump host is connected, checked and logged in to here, and its channel
// to the next host carries the next connection (LibsshTunnel). A jump host
// that takes none of the keys at hand is left to the system's ssh program,
// which can ask for a password or use what libssh cannot.
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <scpkit/base/LogBase.h>
#include <scpkit/base/Logger.h>
#include <scpkit/ssh/ClsSsh.h>
#include <scpkit/ssh/HostKeyCheck.h>
#include <scpkit/ssh/JumpHosts.h>
#include <scpkit/ssh/LibsshTransport.h>
#include <scpkit/ssh/LibsshTunnel.h>

namespace scpkit {

namespace {

// Quoted for /bin/sh, with libssh's own '%' escapes doubled.
std::string commandWord(const std::string& word) {
    std::string out = "'";
    for (char c : word) {
        if (c == '\'')
            out += "'\\''";
        else if (c == '%')
            out += "%%";
        else
            out += c;
    }
    return out + "'";
}

std::string findInPath(const char* program) {
    const char* path = std::getenv("PATH");
    std::string dirs = path && *path ? path : "/usr/bin:/bin";
    for (size_t start = 0; start <= dirs.size();) {
        size_t colon = dirs.find(':', start);
        if (colon == std::string::npos) colon = dirs.size();
        std::string dir = dirs.substr(start, colon - start);
        std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        start = colon + 1;
    }
    return "";
}

// "ssh -W" through the same hops, with the settings that matter for them.
std::string systemSshCommand(const std::string& ssh, const std::vector<JumpHost>& hops,
                             const LibsshConnectSettings& s, const std::string& policy) {
    std::string command = commandWord(ssh);
    if (!s.useSshConfig)
        command += " -F none";
    else if (!s.configFile.empty())
        command += " -F " + commandWord(s.configFile);
    if (!s.knownHostsPath.empty())
        command += " -o " + commandWord("UserKnownHostsFile=" + s.knownHostsPath);
    command += " -o " + commandWord("StrictHostKeyChecking=" + policy);
    command += " -o ConnectTimeout=" + std::to_string((s.timeoutMs + 999) / 1000);
    std::string rest;
    for (size_t i = 1; i < hops.size(); ++i)
        rest += (rest.empty() ? "" : ",") + formatJumpHost(hops[i]);
    if (!rest.empty()) command += " -J " + commandWord(rest);
    if (!hops[0].user.empty()) command += " -l " + commandWord(hops[0].user);
    if (hops[0].port > 0) command += " -p " + std::to_string(hops[0].port);
    return command + " -W '[%h]:%p' " + commandWord(hops[0].host);
}

}  // namespace

bool ClsSsh::connectThroughJumps(const std::vector<JumpHost>& hops, const std::string& host,
                                 int port, LibsshRoute& route) {
    LogContextExitor ctx(m_log, "jumpHosts");
    // Every hop is resolved first: each tunnel leads to where the next
    // hop's config sends it.
    std::vector<LibsshConnectSettings> settings;
    std::vector<std::shared_ptr<LibsshTransport>> sessions;
    for (const JumpHost& hop : hops) {
        settings.push_back(connectSettings(hop.host, hop.port));
        sessions.push_back(std::make_shared<LibsshTransport>());
        if (!sessions.back()->prepare(settings.back(), m_log)) return false;
    }
    int fd = -1;
    for (size_t i = 0; i < hops.size(); ++i) {
        LibsshTransport& s = *sessions[i];
        m_log.LogData("jumpHost",
                      formatJumpHost({hops[i].user, s.connectedHost(), s.connectedPort()}).c_str());
        if (!connectJumpHost(hops[i], s, fd)) {
            std::string ssh = findInPath("ssh");
            if (ssh.empty() || !s.isConnected()) return false;
            // Connected and trusted, but not logged in: ssh may do better.
            m_tunnels.clear();
            XString policy;
            get_StrictHostKeyChecking(policy);
            route.proxyCommand = systemSshCommand(ssh, hops, settings[0], policy.getUtf8());
            m_log.LogInfo("The ssh program makes the jumps instead.");
            return true;
        }
        bool last = i + 1 == hops.size();
        const std::string& nextHost = last ? host : sessions[i + 1]->connectedHost();
        int nextPort = last ? port : sessions[i + 1]->connectedPort();
        std::unique_ptr<LibsshTunnel> tunnel =
            LibsshTunnel::open(sessions[i], nextHost, nextPort, m_log);
        if (!tunnel) return false;
        fd = tunnel->takeSocket();
        m_tunnels.push_back(std::move(tunnel));
    }
    route.socketFd = fd;
    return true;
}

bool ClsSsh::connectJumpHost(const JumpHost& hop, LibsshTransport& session, int socketFd) {
    LibsshRoute route;
    route.socketFd = socketFd;
    if (!session.connect(route, m_log)) return false;
    XString policy;
    get_StrictHostKeyChecking(policy);
    if (checkHostKey(session, policy.getUtf8(), "the jump host's", m_log) !=
        HostKeyVerdict::Trusted)
        return false;
    std::string user = hop.user.empty() ? session.configUser() : hop.user;
    // The login's own lines stay apart: its failure is told as the jump
    // host's, with the details as one item.
    _vqLogger login;
    login.m_verboseLogging = m_log.m_verboseLogging;
    session.authMethods(user, login);
    if (session.isAuthenticated() || session.authAuto(user, login) == AuthOutcome::Success)
        return true;
    LogFirstError why;
    login.firstError(why);
    std::string rendered;
    login.renderText(rendered);
    // The first error of the call even when the ssh program takes over:
    // if that fails too, this is the reason to tell.
    std::string text = "Cannot log in to the jump host " + session.connectedHost() + " as " + user +
                       ": " + why.text;
    if (findInPath("ssh").empty()) text += " There is no ssh program to try otherwise.";
    m_log.LogError(text.c_str());
    m_log.LogData("jumpHostLogin", rendered.c_str());
    return false;
}

}  // namespace scpkit
