// LibsshTransport: the server's key (fingerprint, known_hosts lookup and
// recording) and the authentication methods.
#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <scpkit/base/LogBase.h>
#include <scpkit/ssh/LibsshTransport.h>

namespace scpkit {

namespace {

// Called by libssh when a key needs a passphrase and none was given: notes
// it and declines, so the import fails and the caller can say why.
int passphraseWanted(const char*, char*, size_t, int, int, void* userdata) {
    *static_cast<bool*>(userdata) = true;
    return -1;
}

// Creates the directory that will hold the known_hosts file when missing.
bool ensureParentDir(const std::string& path, LogBase& log) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos || slash == 0) return true;
    std::string dir = path.substr(0, slash);
    struct stat st;
    if (stat(dir.c_str(), &st) == 0) return true;
    if (mkdir(dir.c_str(), 0700) == 0) return true;
    log.LogError("Cannot create the directory of the known_hosts file.");
    log.LogData("directory", dir.c_str());
    log.LogData("reason", std::strerror(errno));
    return false;
}

// The keys an automatic login tries and what became of each, from libssh's
// own log lines. libssh keeps its log level and callback per thread, so
// only the lines of this thread's login are caught, and only while it runs.
class KeyTrail {
  public:
    struct Key {
        std::string name;  // a file, or an agent key's comment
        bool fromAgent;
        std::string outcome;     // empty: tried, nothing more said
        std::string unreadable;  // why the file could not be opened
        bool locked = false;     // encrypted, and no passphrase to open it
    };

    KeyTrail() : m_previous(ssh_get_log_callback()), m_previousLevel(ssh_get_log_level()) {
        if (m_previous != &KeyTrail::onLog) t_previous = m_previous;
        t_current = this;
        ssh_set_log_callback(&KeyTrail::onLog);
        ssh_set_log_level(SSH_LOG_DEBUG);
    }
    ~KeyTrail() {
        t_current = nullptr;
        ssh_set_log_level(m_previousLevel);
        if (m_previous) ssh_set_log_callback(m_previous);
    }
    KeyTrail(const KeyTrail&) = delete;
    KeyTrail& operator=(const KeyTrail&) = delete;

    // libssh asks for the passphrase of the key it is trying.
    static int onPassphrase(const char*, char*, size_t, int, int, void* userdata) {
        auto* trail = static_cast<KeyTrail*>(userdata);
        if (trail && !trail->keys.empty()) trail->keys.back().locked = true;
        return -1;
    }

    std::vector<Key> keys;

  private:
    static void onLog(int priority, const char* function, const char* line, void* userdata) {
        KeyTrail* trail = t_current;
        if (trail) {
            // "function: message"
            std::string text = line ? line : "";
            size_t start = function ? std::strlen(function) + 2 : 0;
            trail->note(start <= text.size() ? text.substr(start) : text);
        } else if (ssh_logging_callback previous = t_previous) {
            previous(priority, function, line, userdata);
        } else {
            std::fprintf(stderr, "%s\n", line ? line : "");  // as libssh would
        }
    }

    static bool after(const std::string& text, const std::string& prefix, std::string& rest) {
        if (text.compare(0, prefix.size(), prefix) != 0) return false;
        rest = text.substr(prefix.size());
        return true;
    }

    void note(const std::string& text) {
        std::string rest;
        if (after(text, "Trying to authenticate with ", rest)) {
            keys.push_back({rest, false, "", "", false});
        } else if (after(text, "Trying identity ", rest)) {
            keys.push_back({rest, true, "", "", false});
        } else if (keys.empty()) {
            return;
        } else if (after(text, "Error opening " + keys.back().name + ": ", rest) ||
                   after(text, "Error getting stat of " + keys.back().name + ": ", rest)) {
            keys.back().unreadable = rest;
        } else if (text.find(" refused by server") != std::string::npos ||
                   text.find("refused the signature") != std::string::npos) {
            keys.back().outcome = "refused by the server";
        } else if (after(text, "Successfully authenticated using ", rest) ||
                   text.find(" accepted by server") != std::string::npos) {
            keys.back().outcome = "accepted";
        }
    }

    static thread_local KeyTrail* t_current;
    static thread_local ssh_logging_callback t_previous;
    ssh_logging_callback m_previous;
    int m_previousLevel;
};

thread_local KeyTrail* KeyTrail::t_current = nullptr;
thread_local ssh_logging_callback KeyTrail::t_previous = nullptr;

bool isDefaultKey(const std::string& path) {
    size_t slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    return name == "id_rsa" || name == "id_ecdsa" || name == "id_ed25519" || name == "id_dsa";
}

// What the keys of an automatic login say about its failure, logged as the
// call's error; the keys that want a passphrase go to `locked`.
void explainKeys(const std::vector<KeyTrail::Key>& keys, const std::string& methods,
                 std::vector<std::string>& locked, LogBase& log) {
    const KeyTrail::Key* unreadable = nullptr;
    for (const KeyTrail::Key& k : keys) {
        if (k.locked) locked.push_back(k.name);
        if (!k.unreadable.empty() && !unreadable &&
            !(isDefaultKey(k.name) && k.unreadable == std::strerror(ENOENT)))
            unreadable = &k;
    }
    if (!locked.empty()) {
        log.LogError(("The private key " + locked.front() +
                      " is encrypted and no passphrase was given for it.")
                         .c_str());
    } else if (unreadable) {
        log.LogError(("The private key file " + unreadable->name + " cannot be read.").c_str());
        log.LogData("osError", unreadable->unreadable.c_str());
    } else if (!methods.empty() && methods.find("publickey") == std::string::npos) {
        log.LogError("The server does not accept keys for this user.");
        log.LogData("authMethods", methods.c_str());
    } else {
        log.LogError("The server accepted none of the agent's keys and none of the default keys.");
    }
}

void logKeysTried(const std::vector<KeyTrail::Key>& keys, LogBase& log) {
    for (const KeyTrail::Key& k : keys) {
        // A default key that does not exist was never really tried.
        if (!k.fromAgent && isDefaultKey(k.name) && k.unreadable == std::strerror(ENOENT)) continue;
        std::string what = k.locked                ? "encrypted, no passphrase given"
                           : !k.unreadable.empty() ? "cannot be read: " + k.unreadable
                           : !k.outcome.empty()    ? k.outcome
                                                   : "not used";
        log.LogData(k.fromAgent ? "agentKeyTried" : "keyTried", (k.name + ": " + what).c_str());
    }
}

}  // namespace

bool LibsshTransport::serverKeyFingerprint(std::string& sha256, std::string& keyType) {
    Guard guard(m_lock);
    return fingerprintOf(sha256, keyType);
}

bool LibsshTransport::fingerprintOf(std::string& sha256, std::string& keyType) {
    sha256.clear();
    keyType.clear();
    if (!m_session) return false;
    ssh_key key = nullptr;
    if (ssh_get_server_publickey(m_session, &key) != SSH_OK || !key) return false;
    unsigned char* hash = nullptr;
    size_t hashLen = 0;
    bool ok = false;
    if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &hashLen) == SSH_OK) {
        // "SHA256:" and unpadded base64, the form ssh-keygen -l prints.
        char* text = ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, hashLen);
        if (text) {
            sha256 = text;
            ssh_string_free_char(text);
            ok = true;
        }
        ssh_clean_pubkey_hash(&hash);
    }
    const char* type = ssh_key_type_to_char(ssh_key_type(key));
    keyType = type ? type : "";
    ssh_key_free(key);
    return ok;
}

KnownHostState LibsshTransport::checkKnownHosts(LogBase& log) {
    Guard guard(m_lock);
    if (!m_session) return KnownHostState::Error;
    switch (ssh_session_is_known_server(m_session)) {
        case SSH_KNOWN_HOSTS_OK:
            return KnownHostState::Known;
        case SSH_KNOWN_HOSTS_CHANGED:
            return KnownHostState::Changed;
        case SSH_KNOWN_HOSTS_OTHER:
            return KnownHostState::OtherKeyType;
        case SSH_KNOWN_HOSTS_UNKNOWN:
        case SSH_KNOWN_HOSTS_NOT_FOUND:
            return KnownHostState::Unknown;
        case SSH_KNOWN_HOSTS_ERROR:
        default:
            logSessionError("Failed to check the known_hosts file.", log);
            return KnownHostState::Error;
    }
}

bool LibsshTransport::recordServerKey(LogBase& log) {
    Guard guard(m_lock);
    if (!m_session) return false;
    char* path = nullptr;
    std::string file;
    if (ssh_options_get(m_session, SSH_OPTIONS_KNOWNHOSTS, &path) == SSH_OK && path) {
        file = path;
        ssh_string_free_char(path);
    }
    if (!file.empty() && !ensureParentDir(file, log)) return false;
    if (ssh_session_update_known_hosts(m_session) != SSH_OK) {
        logSessionError("Failed to add the server's key to the known_hosts file.", log);
        return false;
    }
    return true;
}

AuthOutcome LibsshTransport::authResult(int rc, const char* refusal, LogBase& log) {
    switch (rc) {
        case SSH_AUTH_SUCCESS:
            m_authenticated = true;
            return AuthOutcome::Success;
        case SSH_AUTH_DENIED:
            log.LogError(refusal);
            return AuthOutcome::Denied;
        case SSH_AUTH_PARTIAL:
            log.LogError(
                "The server accepted these credentials but requires a further authentication "
                "method.");
            return AuthOutcome::Partial;
        default:
            logSessionError("Authentication failed with an error.", log);
            return AuthOutcome::Error;
    }
}

static bool setUser(ssh_session session, const std::string& user, LogBase& log) {
    if (ssh_options_set(session, SSH_OPTIONS_USER, user.c_str()) == SSH_OK) return true;
    log.LogError("Invalid user name.");
    return false;
}

void LibsshTransport::noteAuthMethods(LogBase& log) {
    static const std::pair<int, const char*> kNames[] = {
        {SSH_AUTH_METHOD_PUBLICKEY, "publickey"},
        {SSH_AUTH_METHOD_PASSWORD, "password"},
        {SSH_AUTH_METHOD_INTERACTIVE, "keyboard-interactive"},
        {SSH_AUTH_METHOD_HOSTBASED, "hostbased"},
        {SSH_AUTH_METHOD_GSSAPI_MIC, "gssapi-with-mic"}};
    int methods = ssh_userauth_list(m_session, nullptr);
    std::string names;
    for (const auto& [bit, name] : kNames) {
        if (!(methods & bit)) continue;
        if (!names.empty()) names += ",";
        names += name;
    }
    if (names == m_authMethods) return;
    m_authMethods = names;
    log.LogData("authMethods", names.c_str());
}

std::string LibsshTransport::authMethods(const std::string& user, LogBase& log) {
    Guard guard(m_lock);
    if (!connected() || m_authenticated || !m_authMethods.empty()) return m_authMethods;
    if (!setUser(m_session, user, log)) return "";
    // The "none" method: the server answers with the methods it offers (and,
    // rarely, lets the user in).
    int rc = ssh_userauth_none(m_session, nullptr);
    if (rc == SSH_AUTH_SUCCESS) {
        m_authenticated = true;
        log.LogInfo("The server let the user in without credentials.");
        return m_authMethods;
    }
    if (rc == SSH_AUTH_ERROR) {
        logSessionError("Failed to ask the server for its authentication methods.", log);
        return "";
    }
    noteAuthMethods(log);
    return m_authMethods;
}

AuthOutcome LibsshTransport::authPassword(const std::string& user, const std::string& password,
                                          LogBase& log) {
    Guard guard(m_lock);
    if (!connected() || !setUser(m_session, user, log)) return AuthOutcome::Error;
    const char* refusal = "The server refused the user name and password.";
    bool interactive = m_authMethods.find("password") == std::string::npos &&
                       m_authMethods.find("keyboard-interactive") != std::string::npos;
    if (!interactive) {
        int rc = ssh_userauth_password(m_session, nullptr, password.c_str());
        if (rc != SSH_AUTH_SUCCESS) noteAuthMethods(log);
        return authResult(rc, refusal, log);
    }
    // Each hidden prompt gets the password, a visible one nothing; a server
    // that keeps asking is refused after a few rounds.
    int rc = ssh_userauth_kbdint(m_session, nullptr, nullptr);
    for (int round = 0; rc == SSH_AUTH_INFO && round < 4; ++round) {
        int prompts = ssh_userauth_kbdint_getnprompts(m_session);
        for (int i = 0; i < prompts; ++i) {
            char echo = 1;
            ssh_userauth_kbdint_getprompt(m_session, static_cast<unsigned>(i), &echo);
            ssh_userauth_kbdint_setanswer(m_session, static_cast<unsigned>(i),
                                          echo ? "" : password.c_str());
        }
        rc = ssh_userauth_kbdint(m_session, nullptr, nullptr);
    }
    if (rc == SSH_AUTH_INFO) rc = SSH_AUTH_DENIED;
    if (rc != SSH_AUTH_SUCCESS) noteAuthMethods(log);
    return authResult(rc, refusal, log);
}

AuthOutcome LibsshTransport::authKeyFile(const std::string& user, const std::string& path,
                                         const std::string& passphrase, LogBase& log) {
    Guard guard(m_lock);
    m_lockedKeys.clear();
    if (!connected() || !setUser(m_session, user, log)) return AuthOutcome::Error;
    ssh_key key = nullptr;
    bool wanted = false;
    int rc =
        passphrase.empty()
            ? ssh_pki_import_privkey_file(path.c_str(), nullptr, passphraseWanted, &wanted, &key)
            : ssh_pki_import_privkey_file(path.c_str(), passphrase.c_str(), nullptr, nullptr, &key);
    if (rc != SSH_OK || !key) {
        if (rc == SSH_EOF)
            log.LogError("The private key file cannot be read.");
        else if (wanted)
            log.LogError("The private key is encrypted: a passphrase is required.");
        else if (!passphrase.empty())
            log.LogError("Failed to load the private key: wrong passphrase or not a private key.");
        else
            log.LogError("Failed to load the private key: not an OpenSSH or PEM private key.");
        log.LogData("privateKeyPath", path.c_str());
        if (key) ssh_key_free(key);
        if (wanted || (rc != SSH_EOF && !passphrase.empty())) m_lockedKeys.push_back(path);
        return AuthOutcome::Error;
    }
    if (log.m_verboseLogging) log.LogData("keyType", ssh_key_type_to_char(ssh_key_type(key)));
    rc = ssh_userauth_publickey(m_session, nullptr, key);
    ssh_key_free(key);
    if (rc != SSH_AUTH_SUCCESS) noteAuthMethods(log);
    return authResult(rc, "The server refused the key.", log);
}

AuthOutcome LibsshTransport::authAgent(const std::string& user, LogBase& log) {
    Guard guard(m_lock);
    if (!connected() || !setUser(m_session, user, log)) return AuthOutcome::Error;
    const char* sock = getenv("SSH_AUTH_SOCK");
    if (!sock || !*sock) {
        log.LogError("No SSH agent is available: SSH_AUTH_SOCK is not set.");
        return AuthOutcome::Error;
    }
    if (log.m_verboseLogging) log.LogData("agentSocket", sock);
    int rc;
    {
        KeyTrail trail;
        rc = ssh_userauth_agent(m_session, nullptr);
        logKeysTried(trail.keys, log);
    }
    if (rc != SSH_AUTH_SUCCESS) noteAuthMethods(log);
    return authResult(rc, "The server accepted none of the agent's keys.", log);
}

AuthOutcome LibsshTransport::authAuto(const std::string& user, LogBase& log) {
    Guard guard(m_lock);
    m_lockedKeys.clear();
    if (!connected() || !setUser(m_session, user, log)) return AuthOutcome::Error;
    if (!m_authCallbacks) {
        m_authCallbacks = std::make_unique<ssh_callbacks_struct>();
        std::memset(m_authCallbacks.get(), 0, sizeof(ssh_callbacks_struct));
        ssh_callbacks_init(m_authCallbacks.get());
        m_authCallbacks->auth_function = &KeyTrail::onPassphrase;
    }
    int rc;
    std::vector<KeyTrail::Key> keys;
    {
        // An encrypted key is noted and passed over, never asked for here.
        KeyTrail trail;
        m_authCallbacks->userdata = &trail;
        ssh_set_callbacks(m_session, m_authCallbacks.get());
        rc = ssh_userauth_publickey_auto(m_session, nullptr, nullptr);
        m_authCallbacks->userdata = nullptr;
        keys = std::move(trail.keys);
    }
    logKeysTried(keys, log);
    if (rc == SSH_AUTH_SUCCESS) return authResult(rc, "", log);
    noteAuthMethods(log);
    if (rc != SSH_AUTH_DENIED) return authResult(rc, "", log);
    explainKeys(keys, m_authMethods, m_lockedKeys, log);
    return AuthOutcome::Denied;
}

}  // namespace scpkit
