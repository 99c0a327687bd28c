// Downloads of one file from a remote "scp -pf": into a local file
// (DownloadFile) or into memory (bytes, a ClsBinData, text in a charset,
// encoded text).
#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/CritSec.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Encode.h>
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
    if (!requireSsh(log)) return false;

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

    // A download that does not complete leaves no local file; a device or
    // fifo named as the target was written through, never made, and stays.
    auto removeLocalFile = [&]() {
        file->closeHandle();
        if (file->isRegularFile()) FileSys::deleteFileUtf8(localPath.getUtf8(), nullptr);
        return false;
    };

    ScpChannel channel(ssh);
    if (!openScpChannel(channel, sp, log)) return removeLocalFile();
    log.LogDataX("remotePath", remotePath);
    log.LogDataX("localPath", localPath);
    if (!execRemoteScp(channel, "scp -pf ", remotePath, quotingFor(remotePath), sp, log))
        return removeLocalFile();

    ScpFileInfo info;
    bool received = receiveFile(channel.number(), *file, true, info, sp, log);
    logRemoteStderr(*ssh, channel.id(), "scp_errors1", log);

    bool result = false;
    if (received) {
        // The acknowledgement of the file; whatever the source sends after
        // it is drained with the channel, never acted on.
        sendByte(channel.number(), '\0', sp, log);
        if (info.haveTimes) {
            file->setFileTimeUtc_3(info.lastModTime, info.lastAccTime, info.lastModTime, nullptr);
        }
        file->closeHandle();
        if (file->isRegularFile())
            FileSys::setPerm(localPath, info.permissions & kPermBits, nullptr);
        result = awaitChannelClose(*ssh, channel.id(), sp, log);
    }

    logRemoteStderr(*ssh, channel.id(), "scp_errors2", log);
    if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);
    if (!result) removeLocalFile();
    logSuccessFailure(result);
    return result;
}

bool ClsScp::DownloadBinary(XString& remotePath, DataBuffer& outBytes, ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "DownloadBinary");
    outBytes.clear();
    return downloadData(remotePath, outBytes, progress);
}

bool ClsScp::DownloadBd(XString& remotePath, ClsBinData& bd, ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "DownloadBd");
    // Appends: what the object held stays in front of the received bytes.
    return downloadData(remotePath, bd.getDataBuffer(), progress);
}

bool ClsScp::DownloadString(XString& remotePath, XString& charset, XString& outStr,
                            ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "DownloadString");
    DataBuffer bytes;
    bool result = downloadData(remotePath, bytes, progress);
    if (result && !dbToXStringTakingBytes(charset, bytes, outStr, m_log)) {
        m_log.LogError("Failed to convert received bytes from the indicated charset.");
        result = false;
    }
    logSuccessFailure(result);
    return result;
}

bool ClsScp::DownloadBinaryEncoded(XString& remotePath, XString& encoding, XString& outStr,
                                   ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "DownloadBinaryEncoded");
    DataBuffer bytes;
    bool result = downloadData(remotePath, bytes, progress);
    if (result) {
        _clsEncode encoder;
        encoder.put_EncodingMode(encoding);
        result = encoder.encodeBinary(bytes, outStr, false, m_log);
    }
    logSuccessFailure(result);
    return result;
}

bool ClsScp::downloadData(XString& remotePath, DataBuffer& out, ProgressEvent* progress) {
    LogContextExitor ctx(m_log, "downloadData");
    LogBase& log = m_log;
    log.LogDataX("remotePath", remotePath);
    if (!requireSsh(log)) return false;

    ProgressMonitorPtr pmPtr(progress, m_pollIntervalMs, m_percentScale, 0);
    SocketParams sp(pmPtr.getPm());
    OutputDataBuffer output(&out);

    ScpChannel channel(ssh);
    if (!startRemoteScp(channel, "scp -pf ", remotePath, quotingFor(remotePath), sp, log))
        return false;

    ScpFileInfo info;
    bool received = receiveFile(channel.number(), output, true, info, sp, log);
    if (!received) log.LogError("receiveFile returned failure.");
    logRemoteStderr(*ssh, channel.id(), "scp_errors1", log);

    bool result = false;
    // Unlike DownloadFile, a final 0 byte that cannot be sent fails the call.
    if (received && sendByte(channel.number(), '\0', sp, log)) {
        result = awaitChannelClose(*ssh, channel.id(), sp, log);
        if (!result) log.LogError("SCP failed to receive until channel close.");
    }

    logRemoteStderr(*ssh, channel.id(), "scp_errors2", log);
    if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);
    logSuccessFailure(result);
    return result;
}

}  // namespace scpkit
