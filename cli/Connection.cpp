#include "cli/Connection.h"

#include <pwd.h>
#include <unistd.h>
#include <cstdlib>

#include <scpkit/base/XString.h>
#include <scpkit/ssh/ClsSsh.h>
#include "cli/CallLog.h"
#include "cli/ExitStatus.h"
#include "cli/LogSummary.h"
#include "cli/PasswordPrompt.h"
#include "cli/SafeText.h"

namespace scpkit::cli {

namespace {

constexpr int kPasswordAttempts = 3;

std::string reasonOf(ClsSsh& ssh) {
    XString text;
    ssh.get_LastErrorText(text);
    std::string reason = failureReason(text.getUtf8());
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

}  // namespace

std::string localUserName() {
    if (const struct passwd* pw = getpwuid(geteuid())) return pw->pw_name;
    const char* user = std::getenv("USER");
    return user ? user : "";
}

int connectAndLogin(ClsSsh& ssh, const Options& o, CallLog& callLog, std::string& message) {
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

    ssh.put_UseSshConfig(o.useSshConfig);
    if (!o.knownHosts.empty()) {
        XString path(o.knownHosts.c_str());
        ssh.put_KnownHostsPath(path);
    }
    XString policy(o.hostKeyCheck.c_str());
    ssh.put_StrictHostKeyChecking(policy);
    if (o.connectTimeoutMs >= 0) ssh.put_ConnectTimeoutMs(o.connectTimeoutMs);
    if (o.stallTimeoutMs >= 0) ssh.put_StallTimeoutMs(o.stallTimeoutMs);
    if (o.verboseLog) ssh.put_VerboseLogging(true);
    if (!o.debugLogFile.empty()) {
        XString path(o.debugLogFile.c_str());
        ssh.put_DebugLogFilePath(path);
    }

    const std::string where = stripControlChars(o.remote.host) +
                              (o.port > 0 ? " port " + std::to_string(o.port) : std::string());
    XString host(o.remote.host.c_str());
    // Port 0 lets ~/.ssh/config name the port (22 without one).
    bool connected = ssh.Connect(host, o.port);
    callLog.record(ssh);
    if (!connected) {
        message = "cannot connect to " + where + reasonOf(ssh);
        return kExitConnection;
    }

    std::string userName = o.remote.user;
    if (userName.empty()) {
        XString configUser;
        ssh.get_ConfigUser(configUser);
        userName = configUser.isEmpty() ? localUserName() : configUser.getUtf8();
    }
    XString user(userName.c_str());

    bool loggedIn = false;
    if (!o.identity.empty()) {
        XString key(o.identity.c_str()), phrase(passphrase.c_str());
        loggedIn = ssh.LoginWithKeyFile(user, key, phrase);
        callLog.record(ssh);
    } else if (!o.passwordEnv.empty()) {
        XString pw(password.c_str());
        loggedIn = ssh.LoginWithPassword(user, pw);
        callLog.record(ssh);
    } else {
        loggedIn = ssh.LoginAuto(user);
        callLog.record(ssh);
        // Standard input carries the data of "put -": never prompt on it.
        bool canPrompt = isatty(0) && !o.readsStdin();
        std::string prompt =
            stripControlChars(userName) + "@" + stripControlChars(o.remote.host) + "'s password: ";
        for (int attempt = 0; !loggedIn && canPrompt && attempt < kPasswordAttempts; ++attempt) {
            std::string typed;
            if (!readPassword(0, prompt, typed)) break;
            XString pw(typed.c_str());
            loggedIn = ssh.LoginWithPassword(user, pw);
            callLog.record(ssh);
        }
    }
    if (!loggedIn) {
        message = "authentication failed for " + stripControlChars(userName) + " at " + where +
                  reasonOf(ssh);
        return kExitConnection;
    }
    return kExitOk;
}

}  // namespace scpkit::cli
