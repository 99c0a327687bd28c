// Checking a freshly connected server's key against the known_hosts file
// under a StrictHostKeyChecking policy ("yes", "accept-new" or "no"), for
// the server and each jump host alike.
#pragma once

#include <string>

namespace scpkit {

class LibsshTransport;
class LogBase;

enum class HostKeyVerdict {
    Trusted,  // known, accepted by the policy, or recorded just now
    Unknown,  // not in the file, and the policy wants it there (logged as an error)
    Refused   // changed, of another type, or the file unreadable (logged)
};

// `whose` names the host in the messages: "the server's", "the jump host's".
HostKeyVerdict checkHostKey(LibsshTransport& t, const std::string& policy, const char* whose,
                            LogBase& log);

}  // namespace scpkit
