#include "cli/Connection.h"

#include <pwd.h>
#include <unistd.h>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <scpkit/base/XString.h>
#include <scpkit/ssh/ClsSsh.h>
#include "cli/CallLog.h"
#include "cli/ErrorLine.h"
#include "cli/ExitStatus.h"
#include "cli/PasswordPrompt.h"
#include "cli/SafeText.h"

namespace scpkit::cli {

namespace {

constexpr int kPromptAttempts = 3;

std::string reasonOf(ClsSsh& ssh) {
    std::string reason = failureReason(ssh);
    return reason.empty() ? std::string() : ": " + reason;
}

std::string textOf(void (ClsSsh::*get)(XString&), ClsSsh& ssh) {
    XString x;
    (ssh.*get)(x);
    return x.getUtf8();
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

void putText(ClsSsh& ssh, void (ClsSsh::*put)(XString&), const std::string& value) {
    if (value.empty()) return;
    XString x(value.c_str());
    (ssh.*put)(x);
}

// Everything the SSH object is told before it connects.
void applySettings(ClsSsh& ssh, const ConnectionOptions& c, const OutputOptions& out) {
    ssh.put_UseSshConfig(c.useSshConfig);
    putText(ssh, &ClsSsh::put_SshConfigPath, c.configFile);
    putText(ssh, &ClsSsh::put_KnownHostsPath, c.knownHosts);
    // "ask" is "yes" to the library: the program asks when it refuses.
    putText(ssh, &ClsSsh::put_StrictHostKeyChecking,
            c.hostKeyCheck == "ask" ? "yes" : c.hostKeyCheck);
    putText(ssh, &ClsSsh::put_Ciphers, c.ciphers);
    putText(ssh, &ClsSsh::put_ProxyJump, c.jumpHosts);
    putText(ssh, &ClsSsh::put_Compression, c.compression);
    if (c.connectTimeoutMs >= 0) ssh.put_ConnectTimeoutMs(c.connectTimeoutMs);
    if (c.stallTimeoutMs >= 0) ssh.put_StallTimeoutMs(c.stallTimeoutMs);
    if (out.verboseLog || c.verbose) ssh.put_VerboseLogging(true);
    putText(ssh, &ClsSsh::put_DebugLogFilePath, out.debugLogFile);
    if (c.verbose) {
        ssh.setExecObserver([](const std::string& command) {
            std::fprintf(stderr, "debug: running: %s\n", stripControlChars(command).c_str());
        });
    }
}

// Who logs in, with which secrets, and whether the terminal may be asked.
struct Login {
    std::string user, where, passphrase, password;
    bool canPrompt;
    bool verbose;
};

// Records the object's last call; with -v, shows its log too.
bool recorded(ClsSsh& ssh, CallLog& callLog, const Login& login, bool ok) {
    callLog.record(ssh);
    if (login.verbose) {
        XString log;
        ssh.get_LastErrorText(log);
        std::istringstream lines(log.getUtf8());
        for (std::string line; std::getline(lines, line);) {
            std::string indent = line.substr(0, line.find_first_not_of(' '));
            std::fprintf(stderr, "debug: %s%s\n", indent.c_str(), stripControlChars(line).c_str());
        }
    }
    return ok;
}

// "ssh-ed25519" as ssh names it in its question: "ED25519".
std::string keyTypeName(const std::string& type) {
    std::string name = type.rfind("ecdsa", 0) == 0  ? "ECDSA"
                       : type.rfind("ssh-", 0) == 0 ? type.substr(4)
                                                    : type;
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return name;
}

// As ssh asks about a host it has never seen (the server or a jump host):
// yes, no, or the fingerprint.
bool userTrustsKey(ClsSsh& ssh) {
    const std::string fingerprint = textOf(&ClsSsh::get_ServerKeySha256, ssh);
    const std::string host = stripControlChars(textOf(&ClsSsh::get_ServerKeyHost, ssh));
    std::string question = "The authenticity of host '" + host + "' can't be established.\n" +
                           keyTypeName(textOf(&ClsSsh::get_ServerKeyType, ssh)) +
                           " key fingerprint is " + fingerprint +
                           ".\nAre you sure you want to continue connecting "
                           "(yes/no/[fingerprint])? ";
    for (int attempt = 0; attempt < kPromptAttempts; ++attempt) {
        std::string answer;
        if (!readAnswer(0, question, answer)) return false;
        if (answer == "yes" || answer == fingerprint) return true;
        if (answer == "no") return false;
        question = "Please type 'yes', 'no' or the fingerprint: ";
    }
    return false;
}

// Asks for the passphrase of each key the last login could not open.
bool unlockKeys(ClsSsh& ssh, const Login& login, CallLog& callLog) {
    std::istringstream keys(textOf(&ClsSsh::get_KeysNeedingPassphrase, ssh));
    XString user(login.user.c_str());
    for (std::string path; std::getline(keys, path);) {
        const std::string prompt = "Enter passphrase for key '" + stripControlChars(path) + "': ";
        for (int attempt = 0; attempt < kPromptAttempts; ++attempt) {
            std::string typed;
            if (!readPassword(0, prompt, typed) || typed.empty()) break;
            XString key(path.c_str()), phrase(typed.c_str());
            if (recorded(ssh, callLog, login, ssh.LoginWithKeyFile(user, key, phrase))) return true;
            if (textOf(&ClsSsh::get_KeysNeedingPassphrase, ssh).empty()) break;
        }
    }
    return false;
}

// A password typed at the terminal, when the server takes one at all.
bool askPassword(ClsSsh& ssh, const Login& login, CallLog& callLog) {
    std::string methods = textOf(&ClsSsh::get_AuthMethods, ssh);
    if (methods.find("password") == std::string::npos &&
        methods.find("keyboard-interactive") == std::string::npos)
        return false;
    XString user(login.user.c_str());
    std::string prompt = stripControlChars(login.user) + "@" + login.where + "'s password: ";
    for (int attempt = 0; attempt < kPromptAttempts; ++attempt) {
        std::string typed;
        if (!readPassword(0, prompt, typed)) break;
        XString pw(typed.c_str());
        if (recorded(ssh, callLog, login, ssh.LoginWithPassword(user, pw))) return true;
    }
    return false;
}

bool logIn(ClsSsh& ssh, const ConnectionOptions& o, const Login& login, CallLog& callLog) {
    XString user(login.user.c_str());
    if (!o.passwordEnv.empty()) {
        XString pw(login.password.c_str());
        return recorded(ssh, callLog, login, ssh.LoginWithPassword(user, pw));
    }
    bool loggedIn;
    if (!o.identity.empty()) {
        XString key(o.identity.c_str()), phrase(login.passphrase.c_str());
        loggedIn = recorded(ssh, callLog, login, ssh.LoginWithKeyFile(user, key, phrase));
        // A passphrase given and wrong is not asked for again.
        if (!loggedIn && login.canPrompt && o.passphraseEnv.empty())
            loggedIn = unlockKeys(ssh, login, callLog);
        return loggedIn;
    }
    loggedIn = recorded(ssh, callLog, login, ssh.LoginAuto(user));
    if (!loggedIn && login.canPrompt) loggedIn = unlockKeys(ssh, login, callLog);
    if (!loggedIn && login.canPrompt) loggedIn = askPassword(ssh, login, callLog);
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
    // Standard input carries the data of "put -": never prompt on it.
    bool canPrompt = !o.batchMode && isatty(0) && !options.readsStdin();

    const std::string host = stripControlChars(server.host);
    const std::string where =
        host + (o.port > 0 ? " port " + std::to_string(o.port) : std::string());
    XString hostX(server.host.c_str());
    Login login{"", host, passphrase, password, canPrompt, o.verbose};
    // Port 0 lets ~/.ssh/config name the port (22 without one).
    bool connected = recorded(ssh, callLog, login, ssh.Connect(hostX, o.port));
    // Each key added lets the connection go one host further (a jump host's,
    // then the server's); a few rounds at most.
    for (int round = 0; round < 8 && !connected && ssh.get_HostKeyUnknown() &&
                        o.hostKeyCheck == "ask" && canPrompt;
         ++round) {
        if (!userTrustsKey(ssh) || !recorded(ssh, callLog, login, ssh.TrustServerKey())) break;
        connected =
            ssh.get_IsConnected() || recorded(ssh, callLog, login, ssh.Connect(hostX, o.port));
    }
    if (!connected) {
        message = "cannot connect to " + where + reasonOf(ssh);
        return kExitConnection;
    }

    login.user = !server.user.empty() ? server.user : o.user;
    if (login.user.empty()) {
        XString configUser;
        ssh.get_ConfigUser(configUser);
        login.user = configUser.isEmpty() ? localUserName() : configUser.getUtf8();
    }
    if (!logIn(ssh, o, login, callLog)) {
        message = "authentication failed for " + stripControlChars(login.user) + " at " + where +
                  reasonOf(ssh);
        return kExitConnection;
    }
    return kExitOk;
}

}  // namespace scpkit::cli
