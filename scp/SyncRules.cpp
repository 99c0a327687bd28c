// Per-entry decisions of the tree synchronisations: whether a remote file is
// downloaded (or a remote directory created locally), whether a local file is
// uploaded, and whether the name filters leave an entry out.
//
// The mode numbering differs between the two directions and is part of the
// public interface: download mode 4 deliberately behaves like mode 3.
#include <scpkit/base/Conversions.h>
#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/base/FilePath.h>
#include <scpkit/base/FileSys.h>
#include <scpkit/base/FileTime.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/StringHashMap.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/NameFilters.h>
#include <scpkit/scp/ScpFileInfo.h>

namespace scpkit {

namespace {

// True when the local file's size differs from `size`; an unreadable size
// counts as "no difference" so that the entry is left alone.
bool localSizeDiffers(const XString& localPath, int64_t size, LogBase& log) {
    bool ok = false;
    int64_t localSize = FileSys::fileSizeX_64(localPath, &log, ok);
    if (!ok) return false;
    if (localSize == size) return false;
    if (log.m_verboseLogging) log.LogInfo("because remote file has a different size.");
    return true;
}

}  // namespace

bool ClsScp::needToDownload(int mode, XString& localRoot, ScpFileInfo& remote, XString& localPath,
                            LogBase& log) {
    LogContextExitor ctx(log, "needToDownload");

    // The caller always receives the local path, whatever the answer.
    localPath.clear();
    XString relPath;
    relPath.setFromSbUtf8(remote.rFilePath);
    _vqFilePath::CombineDirAndFilepath(localRoot, relPath, localPath);

    if (mode == 0) return true;

    if (log.m_verboseLogging)
        log.LogDataX(remote.isDirectory ? "localDir" : "localPath", localPath);

    if (remote.isDirectory) {
        if (FileSys::IsExistingDirectory(localPath, nullptr, &log)) return false;
        if (log.m_verboseLogging) log.LogInfo("local directory does not exist, must create.");
        return true;
    }

    bool exists = FileSys::fileExistsX(localPath, nullptr, &log);
    if (!exists && log.m_verboseLogging) log.LogInfo("because local file does not exist.");

    if (mode == 1) return !exists;
    if (!exists) return mode == 2 || mode == 5 || mode == 6;
    if (mode == 5) return localSizeDiffers(localPath, remote.fileSize, log);

    VostrelFileTime localTime;
    if (!FileSys::GetFileLastModTimeGmt(localPath, localTime, &log)) return false;
    if (VostrelFileTime::compareFileTimeExact(remote.lastModTime, localTime) >= 1) {
        if (log.m_verboseLogging) log.LogInfo("because remote file is newer.");
        return true;
    }
    if (mode == 6) return localSizeDiffers(localPath, remote.fileSize, log);
    return false;
}

bool ClsScp::needToUpload(int mode, XString& localFilePath, XString& localRoot,
                          StringHashMap* remoteFiles, LogBase& log) {
    LogContextExitor ctx(log, "needToUpload");

    if (mode == 0) return true;
    if (!remoteFiles) {
        log.LogError("No hash map.");
        return false;
    }

    if (log.m_verboseLogging) {
        log.LogDataX("xPath", localFilePath);
        log.LogDataX("xLocalRoot", localRoot);
    }
    if (!localFilePath.beginsWithUtf8(localRoot.getUtf8(), false)) {
        log.LogError("path does not begin with local root dir.");
        log.LogDataX("xPath", localFilePath);
        log.LogDataX("xLocalRoot", localRoot);
        return false;
    }
    if (log.m_verboseLogging) {
        log.LogDataX("xFind0", localFilePath);
        log.LogDataX("xLocalRoot", localRoot);
    }

    // The key is the path relative to the root, as the remote traversal
    // stored it: no root, no leading '/'.
    XString key;
    key.copyFromX(localFilePath);
    key.replaceFirstOccuranceUtf8(localRoot.getUtf8(), "", false);
    const char* keyText = key.getUtf8();
    if (*keyText == '/') ++keyText;

    auto* remote = dynamic_cast<ScpFileInfo*>(remoteFiles->hashLookup(keyText));
    if (!remote) {
        if (mode == 1 || mode == 2 || mode == 4 || mode == 5) {
            if (log.m_verboseLogging) log.LogInfo("because remote file does not yet exist.");
            return true;
        }
        return false;
    }

    if (mode == 1) return false;
    if (mode == 4) return localSizeDiffers(localFilePath, remote->fileSize, log);

    VostrelFileTime localTime;
    if (!FileSys::GetFileLastModTimeGmt(localFilePath, localTime, &log)) return false;
    if (VostrelFileTime::compareFileTimeExact(localTime, remote->lastModTime) >= 1) {
        if (log.m_verboseLogging) log.LogInfo("because local file is newer.");
        return true;
    }
    if (mode == 5) return localSizeDiffers(localFilePath, remote->fileSize, log);
    return false;
}

bool ClsScp::skipFromMustMatch(XString& name, ExtPtrArraySb& mustMatch, ExtPtrArraySb& mustNotMatch,
                               LogBase& log) {
    LogContextExitor ctx(log, "skipFromMustMatch");

    // An empty list places no constraint; a must-match failure decides first.
    if (mustMatch.getSize() > 0 && !vqMatchesAny(name, mustMatch, false)) return true;
    if (mustNotMatch.getSize() > 0 && vqMatchesAny(name, mustNotMatch, false)) return true;
    return false;
}

void ClsScp::listSyncedFile(const ScpFileInfo& info) {
    syncedFiles.append(info.rFilePath);
    syncedFiles.appendLineEnding();
}

ClsScp::NameFilters::NameFilters(const ClsScp& scp) {
    scp.syncMustMatch.getUtf8Sb().splitAndTrim(mustMatch, ';', true, true);
    scp.syncMustNotMatch.getUtf8Sb().splitAndTrim(mustNotMatch, ';', true, true);
    scp.syncMustMatchDir.getUtf8Sb().splitAndTrim(mustMatchDir, ';', true, true);
    scp.syncMustNotMatchDir.getUtf8Sb().splitAndTrim(mustNotMatchDir, ';', true, true);
}

bool ClsScp::NameFilters::skips(ClsScp& scp, XString& name, bool isDirectory, LogBase& log) {
    return isDirectory ? scp.skipFromMustMatch(name, mustMatchDir, mustNotMatchDir, log)
                       : scp.skipFromMustMatch(name, mustMatch, mustNotMatch, log);
}

bool ClsScp::NameFilters::empty() const {
    return mustMatch.getSize() == 0 && mustNotMatch.getSize() == 0 && mustMatchDir.getSize() == 0 &&
           mustNotMatchDir.getSize() == 0;
}

}  // namespace scpkit
