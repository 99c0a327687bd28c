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

    ScpChannel channel(ssh);
    if (!startRemoteScp(channel, "scp -rpt ", remoteRoot, quotingFor(remoteRoot), sp, log))
        return false;

    if (!doLocalTraverse(false, channel.number(), localRoot, remoteRoot, mode, recurse, remoteFiles,
                         sp, log)) {
        logSuccessFailure(false);
        return false;
    }

    // Everything was acknowledged; how the channel closes does not change that.
    finishTreeChannel(*ssh, channel.id(), sp, log);
    return true;
}

}  // namespace scpkit
