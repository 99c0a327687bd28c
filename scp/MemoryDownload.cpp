// Downloads into memory: one remote file as bytes, a ClsBinData, text in a
// charset or encoded text.
#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/CritSec.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Encode.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/scp/ScpFileInfo.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

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
    if (result && !dbToXString(charset, bytes, outStr, m_log)) {
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
    if (!ssh) {
        log.LogError("No SSH object has been set.  Must call UseSsh first.");
        logSuccessFailure(false);
        return false;
    }

    ProgressMonitorPtr pmPtr(progress, m_pollIntervalMs, m_percentScale, 0);
    SocketParams sp(pmPtr.getPm());
    OutputDataBuffer output(&out);

    int channel = ssh->openSessionChannel(sp, log);

    ChannelFinisher finisher(ssh, channel);
    if (channel < 0 || !setEnvironmentVars(channel, sp, log)) {
        logSuccessFailure(false);
        return false;
    }
    XString command;
    buildScpCommand("scp -pf ", remotePath, containsBlank(remotePath), command);
    if (!ssh->sendReqExec(channel, command, sp, log)) {
        logSuccessFailure(false);
        return false;
    }

    ScpFileInfo info;
    bool received = receiveFile(static_cast<unsigned>(channel), output, true, info, sp, log);
    if (!received) log.LogError("receiveFile returned failure.");
    logRemoteStderr(*ssh, channel, "scp_errors1", log);

    bool result = false;
    if (received) {
        // Anything the source sends after the file is drained with the
        // channel, never acted on.
        DataBuffer zero;
        zero.appendChar('\0');
        if (sendScpData(channel, zero, sp, log)) {
            result = awaitChannelClose(*ssh, channel, sp, log);
            if (!result) log.LogError("SCP failed to receive until channel close.");
        }
    }

    logRemoteStderr(*ssh, channel, "scp_errors2", log);
    if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);
    logSuccessFailure(result);
    return result;
}

}  // namespace scpkit
