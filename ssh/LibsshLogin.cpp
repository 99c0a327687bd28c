// LibsshTransport: the server's key (fingerprint, known_hosts lookup and
// recording) and the authentication methods.
#include <libssh/libssh.h>
#include <sys/stat.h>

#include <cerrno>
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

AuthOutcome LibsshTransport::authPassword(const std::string& user, const std::string& password,
                                          LogBase& log) {
    Guard guard(m_lock);
    if (!connected() || !setUser(m_session, user, log)) return AuthOutcome::Error;
    int rc = ssh_userauth_password(m_session, nullptr, password.c_str());
    return authResult(rc, "The server refused the user name and password.", log);
}

AuthOutcome LibsshTransport::authKeyFile(const std::string& user, const std::string& path,
                                         const std::string& passphrase, LogBase& log) {
    Guard guard(m_lock);
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
        return AuthOutcome::Error;
    }
    if (log.m_verboseLogging) log.LogData("keyType", ssh_key_type_to_char(ssh_key_type(key)));
    rc = ssh_userauth_publickey(m_session, nullptr, key);
    ssh_key_free(key);
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
    int rc = ssh_userauth_agent(m_session, nullptr);
    return authResult(rc, "The server accepted none of the agent's keys.", log);
}

AuthOutcome LibsshTransport::authAuto(const std::string& user, LogBase& log) {
    Guard guard(m_lock);
    if (!connected() || !setUser(m_session, user, log)) return AuthOutcome::Error;
    int rc = ssh_userauth_publickey_auto(m_session, nullptr, nullptr);
    return authResult(
        rc, "The server accepted none of the agent's keys and none of the default keys.", log);
}

}  // namespace scpkit
