// Short shell commands the program runs on the server beside the copies:
// push makes its remote directory first (as rsync does: the remote scp,
// given a directory that does not exist, would make the first subdirectory
// sent into it and then fail on the files beside it); an interrupted upload
// removes the one file it had begun to write; a failed transfer asks what
// the remote path is, to say what went wrong.
#pragma once

#include <string>

namespace scpkit {
class ClsSsh;
}

namespace scpkit::cli {

struct RemoteRun {
    bool ran = false;  // the command ran to its end
    std::string out, err;
    // Seconds the server took to accept the command once the channel was
    // open (about a round trip), and the whole run's.
    double execSeconds = 0, seconds = 0;
};
// One command on a channel of its own, waited for until the server closes
// it; in the SSH object's log under `context`.
RemoteRun runRemote(ClsSsh& ssh, const char* context, const std::string& commandText);

// Runs "mkdir -p" for `path`. False with `error` set to what the server
// said when the directory cannot be made.
bool ensureRemoteDirectory(ClsSsh& ssh, const std::string& path, std::string& error);

// Runs "rm -f" for `path`. False with `error` set when it could not.
bool removeRemoteFile(ClsSsh& ssh, const std::string& path, std::string& error);

enum class RemotePathKind { Unknown, Directory, File, Other, Missing, MissingParent };
// What `path` is on the server; Unknown when the server could not be asked.
RemotePathKind probeRemotePath(ClsSsh& ssh, const std::string& path);

// `path` as one word for a POSIX shell; a leading "~" or "~/" stays
// unquoted so the shell still expands it to the home directory.
std::string shellQuotePath(const std::string& path);

// `word` as one word for a POSIX shell, whatever it holds ("~" included).
std::string shellWord(const std::string& word);

// The directory part of a remote path ("." for a bare name).
std::string remoteParent(const std::string& path);

}  // namespace scpkit::cli
