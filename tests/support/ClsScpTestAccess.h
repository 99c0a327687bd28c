// White-box access to ClsScp's private steps and members for tests: one
// static forwarding function per step, so tests drive the protocol pieces
// one at a time on a scripted transport (unit tests and fuzz targets).
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

    // ---- the exchange ----
    static bool setEnvironmentVars(ClsScp& scp, int channel, SocketParams& sp, LogBase& log) {
        return scp.setEnvironmentVars(channel, sp, log);
    }
    static bool readScpResponse(ClsScp& scp, unsigned channel, StringBuffer& line, SocketParams& sp,
                                LogBase& log) {
        return scp.readScpResponse(channel, line, sp, log);
    }
    static bool waitForGo(ClsScp& scp, DataBuffer& buf, OutputDataBuffer& out, unsigned channel,
                          SocketParams& sp, LogBase& log) {
        return scp.waitForGo(buf, out, channel, sp, log);
    }
    static bool receiveFileInfo(ClsScp& scp, unsigned channel, ScpFileInfo& info, SocketParams& sp,
                                LogBase& log) {
        return scp.receiveFileInfo(channel, info, sp, log);
    }
    static bool receiveFile(ClsScp& scp, unsigned channel, _vqOutput& out, bool resetProgress,
                            ScpFileInfo& info, SocketParams& sp, LogBase& log) {
        return scp.receiveFile(channel, out, resetProgress, info, sp, log);
    }
    static bool abortRemainder(ClsScp& scp, unsigned channel, SocketParams& sp, LogBase& log) {
        return scp.abortRemainder(channel, sp, log);
    }
    static bool sendScpData(ClsScp& scp, int channel, DataBuffer& data, SocketParams& sp,
                            LogBase& log) {
        return scp.sendScpData(channel, data, sp, log);
    }
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
    static bool skipFromMustMatch(ClsScp& scp, XString& name, ExtPtrArraySb& mustMatch,
                                  ExtPtrArraySb& mustNotMatch, LogBase& log) {
        return scp.skipFromMustMatch(name, mustMatch, mustNotMatch, log);
    }
};

}  // namespace scpkit
