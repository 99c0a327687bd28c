// Runs the upload pass of the local walk on a fresh channel whose remote
// scp is a recursive sink ("scp -rpt") on the remote root.
#include <scpkit/base/Logger.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

bool ClsScp::recursiveUpload(XString& localRoot, XString& remoteRoot, int mode, bool recurse,
                             StringHashMap* remoteFiles, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "recursiveUpload");
    if (!ssh) return false;

    int channel = ssh->openSessionChannel(sp, log);

    ChannelFinisher finisher(ssh, channel);
    if (channel < 0) {
        logSuccessFailure(false);
        return false;
    }
    if (!setEnvironmentVars(channel, sp, log)) {
        logSuccessFailure(false);
        return false;
    }
    XString command;
    buildScpCommand("scp -rpt ", remoteRoot, containsBlank(remoteRoot), command);
    if (!ssh->sendReqExec(channel, command, sp, log)) {
        logSuccessFailure(false);
        return false;
    }

    if (!doLocalTraverse(false, static_cast<unsigned>(channel), localRoot, remoteRoot, mode,
                         recurse, remoteFiles, sp, log)) {
        logSuccessFailure(false);
        return false;
    }

    // Everything was acknowledged; how the channel closes does not change that.
    finishTreeChannel(*ssh, channel, sp, log);
    return true;
}

}  // namespace scpkit
