// ClsSsh: reaching the server through jump hosts, as ssh's -J does. Each
// jump host is connected, checked and logged in to here, and its channel
// to the next host carries the next connection (LibsshTunnel). A jump host
// that takes none of the keys at hand is left to the system's ssh program
// ("ssh -W"), which can ask for a password or use what libssh cannot.
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <scpkit/base/LogBase.h>
#include <scpkit/base/Logger.h>
#include <scpkit/ssh/ClsSsh.h>
#include <scpkit/ssh/HostKeyCheck.h>
#include <scpkit/ssh/JumpHosts.h>
#include <scpkit/ssh/LibsshTransport.h>
#include <scpkit/ssh/LibsshTunnel.h>

extern char** environ;

namespace scpkit {

namespace {

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

// "ssh -W host:port" through the same hops, with the settings that matter
// for them.
std::vector<std::string> systemSshArgs(const std::string& ssh, const std::vector<JumpHost>& hops,
                                       const LibsshConnectSettings& s, const std::string& policy,
                                       const std::string& host, int port) {
    std::vector<std::string> args = {ssh};
    if (!s.useSshConfig || !s.configFile.empty())
        args.insert(args.end(), {"-F", s.useSshConfig ? s.configFile : "none"});
    if (!s.knownHostsPath.empty())
        args.insert(args.end(), {"-o", "UserKnownHostsFile=" + s.knownHostsPath});
    args.insert(args.end(), {"-o", "StrictHostKeyChecking=" + policy, "-o",
                             "ConnectTimeout=" + std::to_string((s.timeoutMs + 999) / 1000)});
    std::string rest;
    for (size_t i = 1; i < hops.size(); ++i)
        rest += (rest.empty() ? "" : ",") + formatJumpHost(hops[i]);
    if (!rest.empty()) args.insert(args.end(), {"-J", rest});
    if (!hops[0].user.empty()) args.insert(args.end(), {"-l", hops[0].user});
    if (hops[0].port > 0) args.insert(args.end(), {"-p", std::to_string(hops[0].port)});
    args.insert(args.end(), {"-W", "[" + host + "]:" + std::to_string(port), hops[0].host});
    return args;
}

// The ssh program, its input and output one end of a socket pair (the
// other is returned), its error output and terminal the caller's: what it
// says and asks reaches the user. Stopped and reaped when released.
std::shared_ptr<void> startSsh(const std::vector<std::string>& args, int& socketFd, LogBase& log) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        log.LogError("Cannot create a socket pair for the ssh program.");
        return nullptr;
    }
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, sv[1], 0);
    posix_spawn_file_actions_adddup2(&actions, sv[1], 1);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(sv[1]);
    if (rc != 0) {
        ::close(sv[0]);
        log.LogError("Cannot start the ssh program.");
        log.LogData("osError", std::strerror(rc));
        return nullptr;
    }
    socketFd = sv[0];
    struct Process {
        pid_t pid = -1;
        ~Process() {
            if (pid <= 0) return;
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    };
    auto process = std::make_shared<Process>();
    process->pid = pid;
    return process;
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
        JumpHostOutcome outcome = connectJumpHost(hops[i], sessions[i], fd);
        if (outcome != JumpHostOutcome::LoggedIn) {
            std::string ssh = findInPath("ssh");
            if (ssh.empty() || outcome != JumpHostOutcome::LoginRefused) return false;
            // Connected and trusted, but not logged in: ssh may do better.
            m_jumpLinks.clear();
            XString policy;
            get_StrictHostKeyChecking(policy);
            std::vector<std::string> args =
                systemSshArgs(ssh, hops, settings[0], policy.getUtf8(), host, port);
            std::string line;
            for (const std::string& a : args) line += (line.empty() ? "" : " ") + a;
            m_log.LogInfo("The ssh program makes the jumps instead.");
            m_log.LogData("sshCommand", line.c_str());
            std::shared_ptr<void> process = startSsh(args, route.socketFd, m_log);
            if (process) m_jumpLinks.push_back(process);
            return process != nullptr;
        }
        bool last = i + 1 == hops.size();
        const std::string& nextHost = last ? host : sessions[i + 1]->connectedHost();
        int nextPort = last ? port : sessions[i + 1]->connectedPort();
        std::unique_ptr<LibsshTunnel> tunnel =
            LibsshTunnel::open(sessions[i], nextHost, nextPort, m_log);
        if (!tunnel) return false;
        fd = tunnel->takeSocket();
        m_jumpLinks.push_back(std::shared_ptr<LibsshTunnel>(std::move(tunnel)));
    }
    route.socketFd = fd;
    return true;
}

JumpHostOutcome ClsSsh::connectJumpHost(const JumpHost& hop,
                                        const std::shared_ptr<LibsshTransport>& hopSession,
                                        int socketFd) {
    LibsshTransport& session = *hopSession;
    LibsshRoute route;
    route.socketFd = socketFd;
    if (!session.connect(route, m_log)) return JumpHostOutcome::Failed;
    XString policy;
    get_StrictHostKeyChecking(policy);
    HostKeyVerdict verdict = checkHostKey(session, policy.getUtf8(), "the jump host's", m_log);
    if (verdict == HostKeyVerdict::Unknown) awaitTrust(hopSession, true);
    if (verdict != HostKeyVerdict::Trusted) return JumpHostOutcome::Failed;
    std::string user = hop.user.empty() ? session.configUser() : hop.user;
    // The login's own lines stay apart: its failure is told as the jump
    // host's, with the details as one item.
    _vqLogger login;
    login.m_verboseLogging = m_log.m_verboseLogging;
    session.authMethods(user, login);
    bool in = session.isAuthenticated() || session.authAuto(user, login) == AuthOutcome::Success;
    std::string rendered;
    login.renderText(rendered);
    if (in) {
        if (m_log.m_verboseLogging) m_log.LogData("jumpHostLogin", rendered.c_str());
        return JumpHostOutcome::LoggedIn;
    }
    LogFirstError why;
    login.firstError(why);
    // The first error of the call even when the ssh program takes over:
    // if that fails too, this is the reason to tell.
    std::string text = "Cannot log in to the jump host " + session.connectedHost() + " as " + user +
                       ": " + why.text;
    if (findInPath("ssh").empty()) text += " There is no ssh program to try otherwise.";
    m_log.LogError(text.c_str());
    m_log.LogData("jumpHostLogin", rendered.c_str());
    return JumpHostOutcome::LoginRefused;
}

}  // namespace scpkit
