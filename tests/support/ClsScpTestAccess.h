// White-box access to ClsScp's private members and steps for tests: the
// property state, the selection rules against real files, and the remote
// walk for the fuzz target.
#pragma once

#include <cstdint>

#include <scpkit/scp/ClsScp.h>

namespace scpkit {

class ClsScpTestAccess {
  public:
    // ---- members ----
    static bool useOverride(const ClsScp& scp) { return scp.useOverride; }
    static uint32_t overridePerms(const ClsScp& scp) { return scp.overridePerms; }
    static const StringBuffer& syncedFilesRaw(const ClsScp& scp) { return scp.syncedFiles; }

    // ---- the walk of a remote tree ----
    static bool consumeRecursiveResponse(ClsScp& scp, bool computeMode, unsigned channel, int mode,
                                         bool recurse, XString& localDir, int64_t& totalByteCount,
                                         unsigned& totalNumDirs, StringHashMap* remoteFiles,
                                         SocketParams& sp, LogBase& log) {
        return scp.consumeRecursiveResponse(computeMode, channel, mode, recurse, localDir,
                                            totalByteCount, totalNumDirs, remoteFiles, sp, log);
    }

    // ---- selection rules ----
    static bool needToDownload(ClsScp& scp, int mode, XString& localRoot, ScpFileInfo& remote,
                               XString& localPath, LogBase& log) {
        return scp.needToDownload(mode, localRoot, remote, localPath, log);
    }
    static bool needToUpload(ClsScp& scp, int mode, XString& localFilePath, XString& localRoot,
                             StringHashMap* remoteFiles, LogBase& log) {
        return scp.needToUpload(mode, localFilePath, localRoot, remoteFiles, log);
    }
};

}  // namespace scpkit
