// Brings a local directory tree up to date from a remote one.
#include <scpkit/base/CritSec.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>

namespace scpkit {

bool ClsScp::SyncTreeDownload(XString& remoteDirRoot, XString& localDirRoot, int mode, bool recurse,
                              ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "SyncTreeDownload");

    // Cleared first, so that the list only ever names this run's files.
    syncedFiles.clear();
    if (!requireSsh(m_log)) return false;

    ProgressMonitorPtr pmPtr(progress, m_pollIntervalMs, m_percentScale, 0);
    ProgressMonitor* pm = pmPtr.getPm();
    SocketParams sp(pm);

    m_log.LogDataX("remoteDirRoot", remoteDirRoot);
    m_log.LogDataX("localDirRoot", localDirRoot);
    m_log.LogDataLong("mode", mode);

    // "DryRun": one walk that decides everything and fetches nothing; the
    // files a real run would copy end up in SyncedFiles.
    if (hasOption("DryRun")) {
        bool ok =
            doRemoteTraverse(true, remoteDirRoot, localDirRoot, mode, recurse, nullptr, sp, m_log);
        if (pm) pm->consumeRemaining(&m_log);
        logSuccessFailure(ok);
        return ok;
    }

    // A first walk only sizes the work for the progress callback, so it is
    // skipped when nobody listens, or when asked to ("NoSizingPass").
    if (pm && !hasOption("NoSizingPass") &&
        !doRemoteTraverse(true, remoteDirRoot, localDirRoot, mode, recurse, nullptr, sp, m_log)) {
        m_log.LogError("Failed to get total size of what needs to be downloaded.");
        logSuccessFailure(false);
        return false;
    }

    bool ok =
        doRemoteTraverse(false, remoteDirRoot, localDirRoot, mode, recurse, nullptr, sp, m_log);
    if (pm) pm->consumeRemaining(&m_log);
    logSuccessFailure(ok);
    return ok;
}

}  // namespace scpkit
