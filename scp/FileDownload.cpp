// DownloadFile: one remote file from a remote "scp -pf" into one local file.
#include <scpkit/base/CritSec.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/FileSys.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/scp/ScpFileInfo.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

namespace {
// A mode from the server never plants setuid, setgid or sticky bits.
constexpr uint32_t kPermBits = 0777;
}  // namespace

bool ClsScp::DownloadFile(XString& remotePath, XString& localPath, ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "DownloadFile");
    LogBase& log = m_log;

    if (!ssh) {
        log.LogError("No SSH object has been set.  Must call UseSsh first.");
        logSuccessFailure(false);
        return false;
    }

    ProgressMonitorPtr pmPtr(progress, m_pollIntervalMs, m_percentScale, 0);
    SocketParams sp(pmPtr.getPm());

    // The local file exists before any network traffic, so that a path that
    // cannot be written fails without touching the server.
    OutputFile* file = OutputFile::createFileUtf8(localPath.getUtf8(), log);
    if (!file) {
        logSuccessFailure(false);
        return false;
    }
    OutputOwner owner(file);

    // A download that does not complete leaves no local file.
    auto failAndRemove = [&]() {
        file->closeHandle();
        FileSys::deleteFileUtf8(localPath.getUtf8(), nullptr);
        logSuccessFailure(false);
        return false;
    };

    int channel = ssh->openSessionChannel(sp, log);

    ChannelFinisher finisher(ssh, channel);
    if (channel < 0) return failAndRemove();
    if (!setEnvironmentVars(channel, sp, log)) return failAndRemove();

    log.LogDataX("remotePath", remotePath);
    log.LogDataX("localPath", localPath);

    XString command;
    buildScpCommand("scp -pf ", remotePath, containsBlank(remotePath), command);
    if (!ssh->sendReqExec(channel, command, sp, log)) return failAndRemove();

    ScpFileInfo info;
    unsigned ch = static_cast<unsigned>(channel);
    bool received = receiveFile(ch, *file, true, info, sp, log);
    logRemoteStderr(*ssh, channel, "scp_errors1", log);

    bool result = false;
    if (received) {
        // The acknowledgement of the file; whatever the source sends after
        // it is drained with the channel, never acted on.
        DataBuffer zero;
        zero.appendChar('\0');
        sendScpData(channel, zero, sp, log);

        if (info.haveTimes) {
            file->setFileTimeUtc_3(info.lastModTime, info.lastAccTime, info.lastModTime, nullptr);
        }
        file->closeHandle();
        FileSys::setPerm(localPath, info.permissions & kPermBits, nullptr);

        result = awaitChannelClose(*ssh, channel, sp, log);
    }

    logRemoteStderr(*ssh, channel, "scp_errors2", log);
    if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);

    if (!result) return failAndRemove();
    logSuccessFailure(true);
    return true;
}

}  // namespace scpkit
