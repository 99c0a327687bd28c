// UploadFile: one local file to a remote "scp -t".
#include <scpkit/base/CritSec.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/DataSource.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/scp/ScpFileInfo.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

bool ClsScp::UploadFile(XString& localFilePath, XString& remoteFilePath, ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadFile");
    LogBase& log = m_log;

    log.LogDataSb("UnixPermOverride", unixPermOverride);
    log.LogDataBool("useOverride", useOverride);
    log.LogDataLong("overridePerms", static_cast<int32_t>(overridePerms));
    bool filenameOnly = m_uncommonOptions.containsSubstringNoCase("FilenameOnly");

    if (!ssh) {
        log.LogError("No SSH object has been set.  Must call UseSsh first.");
        logSuccessFailure(false);
        return false;
    }

    _vqFileDataSource source;
    ScpFileInfo info;
    ssh->logServerInfo(log);
    log.LogDataX("localFilePath", localFilePath);
    log.LogDataX("remoteFilePath", remoteFilePath);
    if (remoteFilePath.getUtf8Sb().containsChar('\\')) {
        // clang-format off
        log.LogError("Warning: Remote directory paths should typically use forward slash characters and not backslashes.");
        // clang-format on
    }

    XString remoteFilename;
    splitRemoteFilePath(remoteFilePath, remoteFilename);
    log.LogDataX("remoteDir", remoteFilePath);
    log.LogDataX("remoteFilename", remoteFilename);

    if (!openLocalFile(localFilePath, remoteFilename.getUtf8(), source, info, log)) {
        logSuccessFailure(false);
        return false;
    }
    source.m_reportsProgress = true;

    ProgressMonitorPtr pmPtr(progress, m_pollIntervalMs, m_percentScale, info.fileSize);
    SocketParams sp(pmPtr.getPm());

    return uploadOverChannel(source, info, remoteFilePath, remoteFilename, filenameOnly, sp, true,
                             log);
}

}  // namespace scpkit
