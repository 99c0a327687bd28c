// The directories a tree cut into pieces needs before the pieces run: made
// on the server for push (a short shell script for many at once), here for
// pull. Each call tells which of them were missing, so that a piece that
// starts in a new directory need not compare against what cannot be there.
#pragma once

#include <string>
#include <vector>

namespace scpkit {
class ClsSsh;
}

namespace scpkit::cli {

struct SetupDirectory {
    std::string path;  // below the root; "" is the root itself
    unsigned mode = 0;
};

// What the server said, and how long its first script took: the server
// accepting it (about a round trip) and its whole run.
struct RemoteSetup {
    std::vector<bool> missing;  // a directory was not there before
    bool rootMissing = false;
    double execSeconds = 0, seconds = 0;
    std::string error;
};

// push: makes the root and the directories with their modes, as the remote
// scp sets them from a "D" line (one that would shut its owner out keeps
// owner write and search until finishRemoteModes). False with the error.
bool makeRemoteDirectories(ClsSsh& ssh, const std::string& root,
                           const std::vector<SetupDirectory>& dirs, RemoteSetup& result);
// push --dry-run: which of them are missing, making nothing.
bool findRemoteDirectories(ClsSsh& ssh, const std::string& root,
                           const std::vector<SetupDirectory>& dirs, RemoteSetup& result);
// push, once every piece is done: the modes held back.
bool finishRemoteModes(ClsSsh& ssh, const std::string& root,
                       const std::vector<SetupDirectory>& dirs, std::string& error);

// pull: makes them here with their modes; with `setExisting` (mode all)
// gives existing ones their modes too, as a copy of everything does.
enum class ExistingModes { Keep, Set };
bool makeLocalDirectories(const std::string& root, const std::vector<SetupDirectory>& dirs,
                          ExistingModes existing, std::vector<bool>& missing, std::string& error);

}  // namespace scpkit::cli
