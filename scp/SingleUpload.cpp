// Uploads of one file: a local file (UploadFile) or in-memory data (text in a
// charset, bytes, encoded bytes, a ClsBinData), each handed to one remote
// "scp -t" session.
#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/CritSec.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/DataSource.h>
#include <scpkit/base/Encode.h>
#include <scpkit/base/FileTime.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/scp/ScpFileInfo.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

namespace {
constexpr uint32_t kDefaultPerms = 0644;
}

// Where one file goes: the directory given to "scp -t" (or the bare name
// with "FilenameOnly") and whether the session's outcome is the call's to log.
struct ClsScp::UploadTarget {
    const XString& remoteDir;
    const XString& remoteFilename;
    enum class Argument { Directory, FilenameOnly } argument;
    enum class Outcome { Logged, LeftToCaller } outcome;
};

bool ClsScp::UploadFile(XString& localFilePath, XString& remoteFilePath, ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadFile");
    LogBase& log = m_log;

    log.LogDataSb("UnixPermOverride", unixPermOverride);
    log.LogDataBool("useOverride", useOverride);
    log.LogDataLong("overridePerms", static_cast<int32_t>(overridePerms));
    const bool filenameOnly = hasOption("FilenameOnly");
    if (!requireSsh(log)) return false;

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
    UploadTarget target{
        remoteFilePath, remoteFilename,
        filenameOnly ? UploadTarget::Argument::FilenameOnly : UploadTarget::Argument::Directory,
        UploadTarget::Outcome::Logged};
    return uploadSession(source, info, target, sp, log);
}

bool ClsScp::UploadString(XString& remotePath, XString& text, XString& charset,
                          ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadString");
    // A failed conversion is not reported: whatever it produced is sent.
    DataBuffer bytes;
    xstringToDb(charset, text, bytes, m_log);
    return uploadData(remotePath, bytes, progress);
}

bool ClsScp::UploadBinaryEncoded(XString& remotePath, XString& encodedBytes, XString& encoding,
                                 ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadBinaryEncoded");
    DataBuffer bytes;
    _clsEncode encoder;
    encoder.put_EncodingMode(encoding);
    encoder.decodeBinary(encodedBytes, bytes, false, m_log);
    return uploadData(remotePath, bytes, progress);
}

bool ClsScp::UploadBinary(XString& remotePath, DataBuffer& bytes, ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadBinary");
    return uploadData(remotePath, bytes, progress);
}

bool ClsScp::UploadBd(XString& remotePath, ClsBinData& bd, ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadBd");
    return uploadData(remotePath, bd.getDataBuffer(), progress);
}

bool ClsScp::uploadData(XString& remoteFilePath, DataBuffer& data, ProgressEvent* progress) {
    LogBase& log = m_log;
    if (!requireSsh(log)) return false;

    int64_t numBytes = static_cast<int64_t>(data.getSize());
    log.LogDataX("remoteFilePath", remoteFilePath);
    log.LogDataInt64("numBytesToUpload", numBytes);
    const bool filenameOnly = hasOption("FilenameOnly");

    _vqMemoryDataSource source;
    source.takeDataBuffer(data);

    XString remoteFilename;
    splitRemoteFilePath(remoteFilePath, remoteFilename);
    log.LogDataX("remoteDir", remoteFilePath);
    log.LogDataX("remoteFilename", remoteFilename);

    // The remote file gets the upload's time and 0644 unless overridden.
    ScpFileInfo info;
    info.filename.append(remoteFilename.getUtf8Sb());
    info.fileSize = numBytes;
    info.permissions = useOverride ? overridePerms : kDefaultPerms;
    info.lastModTime.getCurrentGmt();
    info.lastAccTime.getCurrentGmt();
    info.haveTimes = true;
    source.m_reportsProgress = true;

    ProgressMonitorPtr pmPtr(progress, m_pollIntervalMs, m_percentScale, numBytes);
    SocketParams sp(pmPtr.getPm());
    UploadTarget target{
        remoteFilePath, remoteFilename,
        filenameOnly ? UploadTarget::Argument::FilenameOnly : UploadTarget::Argument::Directory,
        UploadTarget::Outcome::LeftToCaller};
    return uploadSession(source, info, target, sp, log);
}

bool ClsScp::uploadSession(_vqDataSource& source, ScpFileInfo& info, const UploadTarget& target,
                           SocketParams& sp, LogBase& log) {
    const bool logOutcome = target.outcome == UploadTarget::Outcome::Logged;
    // The blank test looks at the directory even when the name is what is sent.
    const XString& argument = target.argument == UploadTarget::Argument::FilenameOnly
                                  ? target.remoteFilename
                                  : target.remoteDir;
    ScpChannel channel(ssh);
    if (!startRemoteScp(channel, "scp -t ", argument, quotingFor(target.remoteDir), sp, log))
        return false;

    // "Pipelined": the T and C lines go out at once, before the ready byte
    // has been read; the data only once all three answers are in.
    const bool pipelined = hasOption("Pipelined");
    PendingAcks acks(1);
    if (pipelined ? !sendFileAhead(channel.id(), source, info, acks, sp, log)
                  : !sendFile(channel.id(), source, false, info, sp, log)) {
        if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);
        if (logOutcome) logSuccessFailure(false);
        return false;
    }

    // The final acknowledgement and the CLOSE log no outcome of their own.
    if (log.m_verboseLogging) log.LogInfo("Waiting for the final response...");
    if (pipelined ? !drainAcks(channel.number(), acks, sp, log)
                  : !waitForGo(acks.buf, acks.out, channel.number(), sp, log))
        return false;
    if (!ssh->channelSendClose(channel.id(), sp, log)) return false;
    bool result = awaitChannelClose(*ssh, channel.id(), sp, log);

    if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);
    if (logOutcome) logSuccessFailure(result);
    return result;
}

}  // namespace scpkit
