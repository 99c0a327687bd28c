// push and pull: bring one directory tree up to date from the other.
#include <unistd.h>

#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "cli/Commands.h"
#include "cli/ErrorLine.h"
#include "cli/ExitStatus.h"
#include "cli/FileList.h"
#include "cli/Interrupt.h"
#include "cli/LocalFiles.h"
#include "cli/ProgressBar.h"
#include "cli/RemoteShell.h"
#include "cli/SafeText.h"
#include "cli/Session.h"
#include "cli/TransferWatch.h"

namespace scpkit::cli {

namespace {

// Upload modes that copy a file missing on the server (all but 3,
// newer-existing): against a missing directory they copy everything.
bool copiesMissingFiles(int uploadMode) {
    return uploadMode != 3;
}

class TreeCommand : public CommandRun {
  public:
    explicit TreeCommand(const Options& o)
        : m_o(o),
          m_localRoot(trimSlashes(o.local.front())),
          m_remoteRoot(o.server().path.empty() ? "." : o.server().path) {}

    int prepare() override {
        if (m_o.command == Command::Push && !isDirectory(m_localRoot)) {
            printError("not a directory: " + stripControlChars(m_o.local.front()));
            return kExitTransferFailed;
        }
        return kExitOk;
    }

    int run(Session& s) override {
        int mode = m_o.tree.syncMode;
        if (m_o.command == Command::Push) {
            bool skip = false;
            int status = prepareRemoteRoot(s, mode, skip);
            if (status != kExitOk || skip) return status;
        }
        if (interruptRequested()) return interruptedStatus(s.commandName(), "");
        ClsScp scp;
        s.configure(scp);
        XString local(m_localRoot.c_str()), remote(m_remoteRoot.c_str());
        bool ok;
        if (m_o.command == Command::Push) {
            s.watch.startTree(TreeDirection::Upload, m_localRoot);
            ok = scp.SyncTreeUpload(local, remote, mode, m_o.tree.recurse, &s.watch);
        } else {
            s.watch.startTree(TreeDirection::Download, m_localRoot);
            ok = scp.SyncTreeDownload(remote, local, mode, m_o.tree.recurse, &s.watch);
        }
        s.record(scp);
        XString synced;
        scp.get_SyncedFiles(synced);
        s.bar.clear();
        // What was copied is listed even after a failure: it did happen.
        s.list.completeFrom(synced.getUtf8());
        if (ok) return kExitOk;
        std::string cleanup = removeUnfinished(s);
        if (interruptRequested()) return interruptedStatus(s.commandName(), cleanup);
        return failed(s, scp);
    }

  private:
    // push makes its remote directory first; a dry run only looks, and
    // against a missing directory needs no listing of it.
    int prepareRemoteRoot(Session& s, int& mode, bool& skip) {
        std::string error;
        if (m_o.tree.dryRun) {
            RemotePathKind kind = probeRemotePath(s.ssh, m_remoteRoot);
            s.record(s.ssh);
            if (kind == RemotePathKind::Missing || kind == RemotePathKind::MissingParent) {
                skip = !copiesMissingFiles(mode);
                mode = 0;
            }
            return kExitOk;
        }
        bool made = ensureRemoteDirectory(s.ssh, m_remoteRoot, error);
        s.record(s.ssh);
        if (made) return kExitOk;
        printError("push: cannot make the remote directory " + stripControlChars(m_remoteRoot) +
                   ": " + stripControlChars(error) + s.logHint());
        return kExitTransferFailed;
    }

    // The one file a failed run had begun: locally for pull, on the server
    // for push (only once its bytes had begun to arrive there).
    std::string removeUnfinished(Session& s) {
        if (m_o.command == Command::Pull) {
            const std::string& partial = s.watch.unfinishedDownload();
            if (partial.empty()) return "";
            ::unlink(partial.c_str());
            setPartialLocalFile("");
            return "removed the partial " + stripControlChars(partial);
        }
        const std::string& relative = s.watch.unfinishedUpload();
        if (relative.empty()) return "";
        std::string path = joinPath(m_remoteRoot, relative), error;
        bool removed = removeRemoteFile(s.ssh, path, error);
        s.record(s.ssh);
        return removed ? "removed the partial " + stripControlChars(path)
                       : "could not remove the partial " + stripControlChars(path) + ": " +
                             stripControlChars(error);
    }

    int failed(Session& s, ClsScp& scp) {
        std::string reason = failureReason(scp);
        RemotePathKind kind = probeRemotePath(s.ssh, m_remoteRoot);
        s.record(s.ssh);
        if (kind == RemotePathKind::File) {
            reason = "it is a file on the server, not a directory (get copies files)";
        } else if (kind == RemotePathKind::Missing || kind == RemotePathKind::MissingParent) {
            reason = "no such directory on the server";
        }
        printError(std::string(s.commandName()) + " " + stripControlChars(m_o.remoteText.front()) +
                   " failed" + (reason.empty() ? "" : ": " + reason) + s.logHint());
        return kExitTransferFailed;
    }

    const Options& m_o;
    std::string m_localRoot;
    std::string m_remoteRoot;
};

}  // namespace

std::unique_ptr<CommandRun> makeTreeCommand(const Options& options) {
    return std::make_unique<TreeCommand>(options);
}

}  // namespace scpkit::cli
