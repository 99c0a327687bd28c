// put: one or more local files (or standard input) to the server.
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "cli/Commands.h"
#include "cli/ErrorLine.h"
#include "cli/ExitStatus.h"
#include "cli/Interrupt.h"
#include "cli/LocalFiles.h"
#include "cli/RemoteShell.h"
#include "cli/SafeText.h"
#include "cli/Session.h"
#include "cli/TransferWatch.h"

namespace scpkit::cli {

namespace {

enum class Outcome { Done, Failed, Interrupted };

class PutCommand : public CommandRun {
  public:
    explicit PutCommand(const Options& o) : m_o(o) {}

    int prepare() override {
        if (m_o.readsStdin()) {
            if (!readAll(0, m_stdinData)) {
                printError(std::string("cannot read standard input: ") + std::strerror(errno));
                return kExitTransferFailed;
            }
            return kExitOk;
        }
        for (const std::string& file : m_o.local) {
            if (isDirectory(file)) {
                printError(stripControlChars(file) + " is a directory: push copies directories");
                return kExitTransferFailed;
            }
            if (regularFileSize(file) < 0 || ::access(file.c_str(), R_OK) != 0) {
                printError("not a readable file: " + stripControlChars(file));
                return kExitTransferFailed;
            }
        }
        return kExitOk;
    }

    int run(Session& s) override {
        bool failed = false;
        for (const std::string& file : m_o.local) {
            if (interruptRequested()) return interruptedStatus("put", "");
            Outcome outcome = putOne(s, file);
            if (outcome == Outcome::Interrupted) return interruptedStatus("put", m_cleanup);
            failed = failed || outcome == Outcome::Failed;
        }
        return failed ? kExitTransferFailed : kExitOk;
    }

  private:
    // The remote file `file` becomes: the target, or a file of that name in
    // the target directory.
    std::string remoteFileFor(const std::string& file) const {
        std::string path = m_o.server().path;
        if (m_o.readsStdin() || (!path.empty() && path.back() != '/')) return path;
        return path + baseName(file);
    }

    Outcome putOne(Session& s, const std::string& file) {
        std::string remotePath = remoteFileFor(file);
        if (upload(s, file, remotePath)) return Outcome::Done;
        if (interruptRequested()) {
            removePartial(s, remotePath);
            return Outcome::Interrupted;
        }
        std::string reason = m_reason;
        RemotePathKind kind = probeRemotePath(s.ssh, remotePath);
        s.record(s.ssh);
        if (kind == RemotePathKind::Directory && !m_o.readsStdin()) {
            // As scp does: an existing directory named without its slash.
            remotePath += "/" + baseName(file);
            if (upload(s, file, remotePath)) return Outcome::Done;
            if (interruptRequested()) {
                removePartial(s, remotePath);
                return Outcome::Interrupted;
            }
            reason = m_reason;
        } else if (kind == RemotePathKind::Directory) {
            reason = "it is a directory on the server; name the file to write";
        } else if (kind == RemotePathKind::MissingParent) {
            reason =
                "no such directory on the server: " + stripControlChars(remoteParent(remotePath));
        }
        printError("put " + stripControlChars(file) + " to " + stripControlChars(remotePath) +
                   " failed" + (reason.empty() ? "" : ": " + reason) + s.logHint());
        return Outcome::Failed;
    }

    bool upload(Session& s, const std::string& file, const std::string& remotePath) {
        ClsScp scp;
        s.configure(scp);
        XString remote(remotePath.c_str());
        std::string label = baseName(m_o.readsStdin() ? remotePath : file);
        int64_t size =
            m_o.readsStdin() ? static_cast<int64_t>(m_stdinData.getSize()) : regularFileSize(file);
        s.watch.startFile(label, size, {});
        bool ok;
        if (m_o.readsStdin()) {
            ok = scp.UploadBinary(remote, m_stdinData, &s.watch);  // never retried
        } else {
            XString local(file.c_str());
            ok = scp.UploadFile(local, remote, &s.watch);
        }
        s.record(scp);
        m_reason = ok ? "" : failureReason(scp);
        if (ok) s.watch.finishFile(label, size);
        return ok;
    }

    // The remote file is removed only when its bytes had begun to arrive:
    // before that it was not touched.
    void removePartial(Session& s, const std::string& remotePath) {
        if (!s.watch.fileDataStarted()) return;
        std::string error;
        bool removed = removeRemoteFile(s.ssh, remotePath, error);
        s.record(s.ssh);
        m_cleanup = removed ? "removed the partial " + stripControlChars(remotePath)
                            : "could not remove the partial " + stripControlChars(remotePath) +
                                  ": " + stripControlChars(error);
    }

    const Options& m_o;
    DataBuffer m_stdinData;
    std::string m_reason;
    std::string m_cleanup;
};

}  // namespace

std::unique_ptr<CommandRun> makePutCommand(const Options& options) {
    return std::make_unique<PutCommand>(options);
}

}  // namespace scpkit::cli
