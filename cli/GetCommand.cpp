// get: one or more remote files, or the files a wildcard matches, to a
// local file, a local directory or standard output.
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "cli/Commands.h"
#include "cli/DownloadTarget.h"
#include "cli/ErrorLine.h"
#include "cli/ExitStatus.h"
#include "cli/FileList.h"
#include "cli/Interrupt.h"
#include "cli/LocalFiles.h"
#include "cli/ProgressBar.h"
#include "cli/RemoteGlob.h"
#include "cli/RemoteShell.h"
#include "cli/SafeText.h"
#include "cli/Session.h"
#include "cli/TransferWatch.h"

namespace scpkit::cli {

namespace {

enum class Outcome { Done, Failed, Interrupted };

std::string directoryPart(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

class GetCommand : public CommandRun {
  public:
    explicit GetCommand(const Options& o) : m_o(o), m_target(o.local.front()) {}

    int prepare() override {
        if (m_o.writesStdout()) return kExitOk;
        bool intoDirectory = m_o.remote.size() > 1 || isRemoteGlob(m_o.server().path);
        if (intoDirectory && !isDirectory(m_target)) {
            printError("get: the target of several files must be a directory: " +
                       stripControlChars(m_target));
            return kExitTransferFailed;
        }
        for (const RemoteTarget& r : m_o.remote) {
            std::string local = localPathFor(r.path);
            if (!isRemoteGlob(r.path) && !isDirectory(directoryPart(local))) {
                printError("get: no such directory: " + stripControlChars(directoryPart(local)));
                return kExitTransferFailed;
            }
        }
        return kExitOk;
    }

    int run(Session& s) override {
        bool failed = false;
        for (const RemoteTarget& r : m_o.remote) {
            if (interruptRequested()) return interruptedStatus("get", "");
            Outcome outcome = isRemoteGlob(r.path) ? getMatching(s, r.path)
                              : m_o.writesStdout() ? getToStdout(s, r.path)
                                                   : getFile(s, r.path);
            if (outcome == Outcome::Interrupted) return interruptedStatus("get", m_cleanup);
            failed = failed || outcome == Outcome::Failed;
        }
        return failed ? kExitTransferFailed : kExitOk;
    }

  private:
    std::string localPathFor(const std::string& remotePath) const {
        if (!isDirectory(m_target)) return m_target;
        return joinPath(m_target, baseName(remotePath));
    }

    Outcome getFile(Session& s, const std::string& remotePath) {
        DownloadTarget target;
        std::string error;
        if (!target.prepare(localPathFor(remotePath), error)) {
            printError("get: " + stripControlChars(error));
            return Outcome::Failed;
        }
        std::string label = baseName(remotePath);
        std::function<int64_t()> arrived;
        if (target.writePath() != target.finalPath()) {
            arrived = [path = target.writePath()] { return regularFileSize(path); };
        }
        s.watch.startFile(label, -1, arrived);
        ClsScp scp;
        s.configure(scp);
        XString remote(remotePath.c_str()), local(target.writePath().c_str());
        bool ok = scp.DownloadFile(remote, local, &s.watch);
        s.record(scp);
        if (ok && !target.commit(error)) {
            printError("get: " + stripControlChars(error));
            return Outcome::Failed;
        }
        if (ok) {
            s.watch.finishFile(label, regularFileSize(target.finalPath()));
            return Outcome::Done;
        }
        target.discard();
        if (interruptRequested()) return Outcome::Interrupted;
        return failed(s, scp, remotePath);
    }

    Outcome getToStdout(Session& s, const std::string& remotePath) {
        DataBuffer data;
        s.watch.startFile(baseName(remotePath), -1,
                          [&data] { return static_cast<int64_t>(data.getSize()); });
        ClsScp scp;
        s.configure(scp);
        XString remote(remotePath.c_str());
        bool ok = scp.DownloadBinary(remote, data, &s.watch);
        s.record(scp);
        if (!ok) return interruptRequested() ? Outcome::Interrupted : failed(s, scp, remotePath);
        s.bar.clear();
        if (!writeAll(1, data.getData2(), data.getSize())) {
            printError(std::string("cannot write standard output: ") + std::strerror(errno));
            return Outcome::Failed;
        }
        s.watch.finishFile(baseName(remotePath), static_cast<int64_t>(data.getSize()));
        return Outcome::Done;
    }

    // The matching files of one remote directory, as a tree one level deep
    // with the wildcard as its filter. As in a shell, names that begin with
    // a dot match only a pattern that does too.
    Outcome getMatching(Session& s, const std::string& remotePath) {
        RemoteGlob glob = splitRemoteGlob(remotePath);
        ClsScp scp;
        s.configure(scp);
        XString match(glob.pattern.c_str()), hidden(".*");
        scp.put_SyncMustMatch(match);
        if (glob.pattern[0] != '.') scp.put_SyncMustNotMatch(hidden);
        s.watch.startTree(TreeDirection::Download, trimSlashes(m_target));
        XString remote(glob.directory.c_str()), local(trimSlashes(m_target).c_str());
        bool ok = scp.SyncTreeDownload(remote, local, 0, false, &s.watch);
        s.record(scp);
        XString synced;
        scp.get_SyncedFiles(synced);
        if (!ok && !s.watch.unfinishedDownload().empty()) {
            ::unlink(s.watch.unfinishedDownload().c_str());
            setPartialLocalFile("");
            m_cleanup = "removed the partial " + stripControlChars(s.watch.unfinishedDownload());
        }
        if (!ok && interruptRequested()) return Outcome::Interrupted;
        if (!ok) return failed(s, scp, remotePath);
        if (synced.isEmpty()) {
            printError("get: no file on the server matches " + stripControlChars(remotePath));
            return Outcome::Failed;
        }
        return Outcome::Done;
    }

    // Says why, in the words of what the remote path turns out to be.
    Outcome failed(Session& s, ClsScp& scp, const std::string& remotePath) {
        std::string reason = failureReason(scp);
        bool glob = isRemoteGlob(remotePath);
        RemotePathKind kind =
            probeRemotePath(s.ssh, glob ? splitRemoteGlob(remotePath).directory : remotePath);
        s.record(s.ssh);
        bool wantsFile = !glob;  // a wildcard names files of a directory
        if (kind == RemotePathKind::Directory && wantsFile) {
            reason = "it is a directory on the server (pull copies directories)";
        } else if (kind == RemotePathKind::File && !wantsFile) {
            reason = "it is a file on the server, not a directory";
        } else if (kind == RemotePathKind::Missing || kind == RemotePathKind::MissingParent) {
            reason = "no such file or directory on the server";
        }
        printError("get " + stripControlChars(remotePath) + " failed" +
                   (reason.empty() ? "" : ": " + reason) + s.logHint());
        return Outcome::Failed;
    }

    const Options& m_o;
    std::string m_target;
    std::string m_cleanup;
};

}  // namespace

std::unique_ptr<CommandRun> makeGetCommand(const Options& options) {
    return std::make_unique<GetCommand>(options);
}

}  // namespace scpkit::cli
