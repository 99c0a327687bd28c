// UploadFile: one local file to a remote "scp -t".
#include "base/CritSec.h"
#include "base/DataBuffer.h"
#include "base/DataSource.h"
#include "base/Logger.h"
#include "base/Output.h"
#include "base/Progress.h"
#include "scp/ClsScp.h"
#include "scp/ScpCommand.h"
#include "scp/ScpFileInfo.h"
#include "ssh/ClsSsh.h"

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

    int channel = ssh->openSessionChannel(sp, log);
    if (channel < 0 || !setEnvironmentVars(channel, sp, log)) {
        logSuccessFailure(false);
        return false;
    }

    // The blank test looks at the directory even when the name is what is sent.
    XString command;
    buildScpCommand("scp -t ", filenameOnly ? remoteFilename : remoteFilePath,
                    containsBlank(remoteFilePath), command);
    if (!ssh->sendReqExec(channel, command, sp, log)) {
        logSuccessFailure(false);
        return false;
    }

    if (!sendFile(channel, source, false, info, sp, log)) {
        if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);
        logSuccessFailure(false);
        return false;
    }

    if (log.m_verboseLogging) log.LogInfo("Waiting for the final response...");
    DataBuffer ack;
    OutputDataBuffer ackOut(&ack);
    if (!waitForGo(ack, ackOut, static_cast<unsigned>(channel), sp, log)) return false;

    if (!ssh->channelSendClose(channel, sp, log)) return false;
    bool result = awaitChannelClose(*ssh, channel, sp, log);

    if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);
    logSuccessFailure(result);
    return result;
}

}  // namespace scpkit
