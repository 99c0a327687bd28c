// White-box access to ClsScp's private steps and members for tests: one
// static forwarding function per step, so tests drive the protocol pieces
// one at a time on a scripted or process transport.
#pragma once

#include <cstdint>

#include "scp/ClsScp.h"

namespace scpkit {

class ClsScpTestAccess {
  public:
    // ---- members ----
    static bool useOverride(const ClsScp& scp) { return scp.useOverride; }
    static uint32_t overridePerms(const ClsScp& scp) { return scp.overridePerms; }
    static ClsSsh* boundSsh(const ClsScp& scp) { return scp.ssh; }
    static const StringBuffer& syncedFilesRaw(const ClsScp& scp) { return scp.syncedFiles; }
    static const StringBuffer& unixPermOverrideRaw(const ClsScp& scp) {
        return scp.unixPermOverride;
    }
    static int objectType(const ClsScp& scp) { return scp.get_ObjectType(); }

    // ---- command channel ----
    static bool setEnvironmentVars(ClsScp& scp, int channel, SocketParams& sp, LogBase& log) {
        return scp.setEnvironmentVars(channel, sp, log);
    }

    // ---- records and acknowledgements ----
    static bool readScpResponse(ClsScp& scp, unsigned channel, StringBuffer& line, SocketParams& sp,
                                LogBase& log) {
        return scp.readScpResponse(channel, line, sp, log);
    }
    static bool waitForGo(ClsScp& scp, DataBuffer& buf, OutputDataBuffer& out, unsigned channel,
                          SocketParams& sp, LogBase& log) {
        return scp.waitForGo(buf, out, channel, sp, log);
    }

    // ---- sending side ----
    static bool openLocalFile(ClsScp& scp, XString& localPath, const char* name,
                              _vqFileDataSource& source, ScpFileInfo& info, LogBase& log) {
        return scp.openLocalFile(localPath, name, source, info, log);
    }
    static bool sendFile(ClsScp& scp, int channel, _vqDataSource& source, ScpFileInfo& info,
                         SocketParams& sp, LogBase& log) {
        return scp.sendFile(channel, source, false, info, sp, log);
    }
    static bool sendFileTimes(ClsScp& scp, int channel, ScpFileInfo& info, SocketParams& sp,
                              LogBase& log) {
        return scp.sendFileTimes(channel, info, sp, log);
    }
    static bool sendFileInfo(ClsScp& scp, int channel, ScpFileInfo& info, SocketParams& sp,
                             LogBase& log) {
        return scp.sendFileInfo(channel, info, sp, log);
    }
    static bool sendDirInfo(ClsScp& scp, int channel, int permissions, XString& dirName,
                            SocketParams& sp, LogBase& log) {
        return scp.sendDirInfo(channel, permissions, dirName, sp, log);
    }
    static bool sendScpData(ClsScp& scp, int channel, DataBuffer& data, SocketParams& sp,
                            LogBase& log) {
        return scp.sendScpData(channel, data, sp, log);
    }

    // ---- receiving side ----
    static bool receiveFileInfo(ClsScp& scp, unsigned channel, ScpFileInfo& info, SocketParams& sp,
                                LogBase& log) {
        return scp.receiveFileInfo(channel, info, sp, log);
    }
    static bool receiveFile(ClsScp& scp, unsigned channel, _vqOutput& out, bool resetProgress,
                            ScpFileInfo& info, SocketParams& sp, LogBase& log) {
        return scp.receiveFile(channel, out, resetProgress, info, sp, log);
    }
    static bool receiveFileData(ClsScp& scp, unsigned channel, _vqOutput& out, ScpFileInfo& info,
                                SocketParams& sp, LogBase& log) {
        return scp.receiveFileData(channel, out, info, sp, log);
    }
    static bool streamScpDataToFile(ClsScp& scp, unsigned channel, XString& localPath,
                                    ScpFileInfo& info, SocketParams& sp, LogBase& log) {
        return scp.streamScpDataToFile(channel, localPath, info, sp, log);
    }
    static bool abortRemainder(ClsScp& scp, unsigned channel, SocketParams& sp, LogBase& log) {
        return scp.abortRemainder(channel, sp, log);
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

    // ---- tree traversals ----
    static bool doRemoteTraverse(ClsScp& scp, bool computeMode, XString& remoteDir,
                                 XString& localDir, int mode, bool recurse,
                                 StringHashMap* remoteFiles, SocketParams& sp, LogBase& log) {
        return scp.doRemoteTraverse(computeMode, remoteDir, localDir, mode, recurse, remoteFiles,
                                    sp, log);
    }
    static bool consumeRecursiveResponse(ClsScp& scp, bool computeMode, unsigned channel, int mode,
                                         bool recurse, XString& localDir, int64_t& totalByteCount,
                                         unsigned& totalNumDirs, StringHashMap* remoteFiles,
                                         SocketParams& sp, LogBase& log) {
        return scp.consumeRecursiveResponse(computeMode, channel, mode, recurse, localDir,
                                            totalByteCount, totalNumDirs, remoteFiles, sp, log);
    }
    static bool doLocalTraverse(ClsScp& scp, bool computeOnly, unsigned channel, XString& localRoot,
                                XString& remoteRoot, int mode, bool recurse,
                                StringHashMap* remoteFiles, SocketParams& sp, LogBase& log) {
        return scp.doLocalTraverse(computeOnly, channel, localRoot, remoteRoot, mode, recurse,
                                   remoteFiles, sp, log);
    }
    static bool recursiveUpload(ClsScp& scp, XString& localRoot, XString& remoteRoot, int mode,
                                bool recurse, StringHashMap* remoteFiles, SocketParams& sp,
                                LogBase& log) {
        return scp.recursiveUpload(localRoot, remoteRoot, mode, recurse, remoteFiles, sp, log);
    }

    // ---- in-memory workers ----
    static bool uploadData(ClsScp& scp, XString& remoteFilePath, DataBuffer& data,
                           ProgressEvent* progress) {
        return scp.uploadData(remoteFilePath, data, progress);
    }
    static bool downloadData(ClsScp& scp, XString& remotePath, DataBuffer& out,
                             ProgressEvent* progress) {
        return scp.downloadData(remotePath, out, progress);
    }
};

}  // namespace scpkit
