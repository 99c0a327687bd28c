#include "cli/Connection.h"

#include <pwd.h>
#include <unistd.h>
#include <cstdlib>

#include <scpkit/base/XString.h>
#include <scpkit/ssh/ClsSsh.h>
#include "cli/CallLog.h"
#include "cli/ErrorLine.h"
#include "cli/ExitStatus.h"
#include "cli/PasswordPrompt.h"
#include "cli/SafeText.h"

namespace scpkit::cli {

namespace {

constexpr int kPasswordAttempts = 3;

std::string reasonOf(ClsSsh& ssh) {
    std::string reason = failureReason(ssh);
    return reason.empty() ? std::string() : ": " + reason;
}

// The value of an environment variable named on the command line.
bool fromEnvironment(const std::string& name, const char* option, std::string& value,
                     std::string& message) {
    const char* v = std::getenv(name.c_str());
    if (!v) {
        message = std::string(option) + " names " + name + ", which is not set";
        return false;
    }
    value = v;
    return true;
}

// Everything the SSH object is told before it connects.
void applySettings(ClsSsh& ssh, const ConnectionOptions& c, const OutputOptions& out) {
    ssh.put_UseSshConfig(c.useSshConfig);
    if (!c.knownHosts.empty()) {
        XString path(c.knownHosts.c_str());
        ssh.put_KnownHostsPath(path);
    }
    XString policy(c.hostKeyCheck.c_str());
    ssh.put_StrictHostKeyChecking(policy);
    if (!c.ciphers.empty()) {
        XString ciphers(c.ciphers.c_str());
        ssh.put_Ciphers(ciphers);
    }
    if (c.connectTimeoutMs >= 0) ssh.put_ConnectTimeoutMs(c.connectTimeoutMs);
    if (c.stallTimeoutMs >= 0) ssh.put_StallTimeoutMs(c.stallTimeoutMs);
    if (out.verboseLog) ssh.put_VerboseLogging(true);
    if (!out.debugLogFile.empty()) {
        XString path(out.debugLogFile.c_str());
        ssh.put_DebugLogFilePath(path);
    }
}

// Who logs in and with which secrets.
struct Login {
    std::string user, host, passphrase, password;
    bool canPrompt;
};

bool logIn(ClsSsh& ssh, const ConnectionOptions& o, const Login& login, CallLog& callLog) {
    XString user(login.user.c_str());
    bool loggedIn = false;
    if (!o.identity.empty()) {
        XString key(o.identity.c_str()), phrase(login.passphrase.c_str());
        loggedIn = ssh.LoginWithKeyFile(user, key, phrase);
        callLog.record(ssh);
        return loggedIn;
    }
    if (!o.passwordEnv.empty()) {
        XString pw(login.password.c_str());
        loggedIn = ssh.LoginWithPassword(user, pw);
        callLog.record(ssh);
        return loggedIn;
    }
    loggedIn = ssh.LoginAuto(user);
    callLog.record(ssh);
    std::string prompt =
        stripControlChars(login.user) + "@" + stripControlChars(login.host) + "'s password: ";
    for (int attempt = 0; !loggedIn && login.canPrompt && attempt < kPasswordAttempts; ++attempt) {
        std::string typed;
        if (!readPassword(0, prompt, typed)) break;
        XString pw(typed.c_str());
        loggedIn = ssh.LoginWithPassword(user, pw);
        callLog.record(ssh);
    }
    return loggedIn;
}

}  // namespace

std::string localUserName() {
    if (const struct passwd* pw = getpwuid(geteuid())) return pw->pw_name;
    const char* user = std::getenv("USER");
    return user ? user : "";
}

int connectAndLogin(ClsSsh& ssh, const Options& options, CallLog& callLog, std::string& message) {
    const ConnectionOptions& o = options.connection;
    const RemoteTarget& server = options.server();
    // Secrets named on the command line must exist before anything is sent.
    std::string passphrase, password;
    if (!o.passphraseEnv.empty() &&
        !fromEnvironment(o.passphraseEnv, "--passphrase-env", passphrase, message)) {
        return kExitUsage;
    }
    if (!o.passwordEnv.empty() &&
        !fromEnvironment(o.passwordEnv, "--password-env", password, message)) {
        return kExitUsage;
    }
    applySettings(ssh, o, options.output);

    const std::string where = stripControlChars(server.host) +
                              (o.port > 0 ? " port " + std::to_string(o.port) : std::string());
    XString host(server.host.c_str());
    // Port 0 lets ~/.ssh/config name the port (22 without one).
    bool connected = ssh.Connect(host, o.port);
    callLog.record(ssh);
    if (!connected) {
        message = "cannot connect to " + where + reasonOf(ssh);
        return kExitConnection;
    }

    std::string userName = server.user;
    if (userName.empty()) {
        XString configUser;
        ssh.get_ConfigUser(configUser);
        userName = configUser.isEmpty() ? localUserName() : configUser.getUtf8();
    }
    // Standard input carries the data of "put -": never prompt on it.
    bool canPrompt = isatty(0) && !options.readsStdin();
    bool loggedIn =
        logIn(ssh, o, {userName, server.host, passphrase, password, canPrompt}, callLog);
    if (!loggedIn) {
        message = "authentication failed for " + stripControlChars(userName) + " at " + where +
                  reasonOf(ssh);
        return kExitConnection;
    }
    return kExitOk;
}

}  // namespace scpkit::cli
