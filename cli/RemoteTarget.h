// The [user@]host:path argument, as ssh and scp users write it. An IPv6
// address goes in brackets: [::1]:path.
#pragma once

#include <string>

namespace scpkit::cli {

struct RemoteTarget {
    std::string user;  // empty: from ~/.ssh/config or the local account
    std::string host;  // without the brackets of an IPv6 address
    std::string path;  // empty: the remote home directory
};

// True when `text` names a remote location. On false, `error` says why.
bool parseRemoteTarget(const std::string& text, RemoteTarget& out, std::string& error);

// The argument written back, the host in brackets when it contains a colon.
std::string formatRemoteTarget(const RemoteTarget& target);

}  // namespace scpkit::cli
