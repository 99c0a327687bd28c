// Synchronises a local directory tree onto a remote directory.
#include <scpkit/base/CritSec.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Owners.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/StringHashMap.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>

namespace scpkit {

bool ClsScp::SyncTreeUpload(XString& localDirRoot, XString& remoteDirRoot, int mode, bool recurse,
                            ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "SyncTreeUpload");

    // Emptied first, so that even a call that fails at once leaves it empty.
    syncedFiles.clear();
    if (!requireSsh(m_log)) return false;

    ProgressMonitorPtr pmPtr(progress, m_pollIntervalMs, m_percentScale, 0);
    ProgressMonitor* pm = pmPtr.getPm();
    SocketParams sp(pm);

    m_log.LogDataX("localDirRoot", localDirRoot);
    m_log.LogDataX("remoteDirRoot", remoteDirRoot);
    m_log.LogDataLong("mode", mode);

    // Every mode but 0 compares against what already exists remotely. The
    // map is keyed by the path relative to the remote root.
    ObjectOwner mapOwner;
    StringHashMap* remoteFiles = nullptr;
    if (mode != 0) {
        remoteFiles = StringHashMap::createNewObject(16691);
        if (remoteFiles) {
            mapOwner.own(remoteFiles);
            if (!doRemoteTraverse(true, remoteDirRoot, localDirRoot, mode, recurse, remoteFiles, sp,
                                  m_log)) {
                m_log.LogError("Initial remote traverse to identify existing files failed.");
                logSuccessFailure(false);
                return false;
            }
            if (sp.spAbortCheck(m_log)) {
                logSuccessFailure(false);
                return false;
            }
        }
    }

    // Sizing the work is only worth a walk when someone watches the progress
    // and has not declined it ("NoSizingPass"). With "DryRun" the same walk
    // is the whole call: it lists what would be sent and sends nothing.
    const bool dryRun = hasOption("DryRun");
    if (dryRun || (pm && !hasOption("NoSizingPass"))) {
        if (!doLocalTraverse(true, 0, localDirRoot, remoteDirRoot, mode, recurse, remoteFiles, sp,
                             m_log)) {
            m_log.LogError("local traverse to compute total cost failed.");
            logSuccessFailure(false);
            return false;
        }
        if (sp.spAbortCheck(m_log)) {
            logSuccessFailure(false);
            return false;
        }
    }

    if (!dryRun) {
        if (!recursiveUpload(localDirRoot, remoteDirRoot, mode, recurse, remoteFiles, sp, m_log)) {
            logSuccessFailure(false);
            return false;
        }
        if (sp.spAbortCheck(m_log)) {
            logSuccessFailure(false);
            return false;
        }
    }

    if (pm) pm->consumeRemaining(&m_log);
    logSuccessFailure(true);
    return true;
}

}  // namespace scpkit
