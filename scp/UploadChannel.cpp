// The channel exchange of a one-file upload: open, environment, "scp -t",
// the file, the final acknowledgement, CLOSE both ways.
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/scp/ScpFileInfo.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

bool ClsScp::uploadOverChannel(_vqDataSource& source, ScpFileInfo& info, XString& remoteDir,
                               XString& remoteFilename, bool filenameOnly, SocketParams& sp,
                               bool logOutcome, LogBase& log) {
    int channel = ssh->openSessionChannel(sp, log);
    ChannelFinisher finisher(ssh, channel);
    if (channel < 0 || !setEnvironmentVars(channel, sp, log)) {
        logSuccessFailure(false);
        return false;
    }

    // The blank test looks at the directory even when the name is what is sent.
    XString command;
    buildScpCommand("scp -t ", filenameOnly ? remoteFilename : remoteDir, containsBlank(remoteDir),
                    command);
    if (!ssh->sendReqExec(channel, command, sp, log)) {
        logSuccessFailure(false);
        return false;
    }

    if (!sendFile(channel, source, false, info, sp, log)) {
        if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);
        if (logOutcome) logSuccessFailure(false);
        return false;
    }

    // The final acknowledgement and the CLOSE log no outcome of their own.
    if (log.m_verboseLogging) log.LogInfo("Waiting for the final response...");
    DataBuffer ack;
    OutputDataBuffer ackOut(&ack);
    if (!waitForGo(ack, ackOut, static_cast<unsigned>(channel), sp, log)) return false;
    if (!ssh->channelSendClose(channel, sp, log)) return false;
    bool result = awaitChannelClose(*ssh, channel, sp, log);

    if (sp.m_progressMonitor) sp.m_progressMonitor->consumeRemaining(&log);
    if (logOutcome) logSuccessFailure(result);
    return result;
}

}  // namespace scpkit
