// push makes the remote directory first, as rsync does: the remote scp,
// given a directory that does not exist, would make the first subdirectory
// sent into it and then fail on the files beside it.
#pragma once

#include <string>

namespace scpkit {
class ClsSsh;
}

namespace scpkit::cli {

// Runs "mkdir -p" for `path` on the server. False with `error` set to what
// the server said when the directory cannot be made.
bool ensureRemoteDirectory(ClsSsh& ssh, const std::string& path, std::string& error);

// `path` as one word for a POSIX shell; a leading "~" or "~/" stays
// unquoted so the shell still expands it to the home directory.
std::string shellQuotePath(const std::string& path);

}  // namespace scpkit::cli
