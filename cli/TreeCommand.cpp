// push and pull: bring one directory tree up to date from the other, over
// several channels at once when the tree is worth cutting into pieces.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <unordered_map>

#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "cli/Commands.h"
#include "cli/ErrorLine.h"
#include "cli/ExitStatus.h"
#include "cli/FileList.h"
#include "cli/Interrupt.h"
#include "cli/LocalFiles.h"
#include "cli/ParallelTree.h"
#include "cli/PieceNeeds.h"
#include "cli/ProgressBar.h"
#include "cli/RemoteShell.h"
#include "cli/SafeText.h"
#include "cli/Session.h"
#include "cli/TransferWatch.h"
#include "cli/TreeSetup.h"
#include "cli/TreeSplit.h"

namespace scpkit::cli {

namespace {

// Upload modes that copy a file missing on the server (all but 3,
// newer-existing): against a missing directory they copy everything.
bool copiesMissingFiles(int uploadMode) {
    return uploadMode != 3;
}

// Download modes that copy a file missing here (all but 3 and 4).
bool downloadsMissingFiles(int downloadMode) {
    return downloadMode != 3 && downloadMode != 4;
}

// The rules of the cut from a remote command just timed. SCPKIT_PIECE_COST
// (round trips) stands in for the measurement where timings mean nothing:
// in the tests, on a loaded machine.
SplitRules rulesFor(int workers, double roundTrip, double command, int commandsPerPiece) {
    const char* fixed = std::getenv("SCPKIT_PIECE_COST");
    if (!fixed || std::atoi(fixed) <= 0) {
        return measuredRules(workers, roundTrip, command, commandsPerPiece);
    }
    SplitRules rules = finestRules(workers, commandsPerPiece);
    rules.pieceOverhead = std::max<int64_t>(rules.pieceOverhead, std::atoi(fixed));
    return rules;
}

std::string pathIn(const std::string& root, const std::string& below) {
    return below.empty() ? root : joinPath(root, below);
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
        // -j 1, --no-recurse and a tree not worth cutting: one channel.
        bool rootReady = false;
        if (m_o.tree.jobs > 1 && m_o.tree.recurse) {
            int status = kExitOk;
            bool ran = m_o.command == Command::Push ? pushInParallel(s, status, rootReady)
                                                    : pullInParallel(s, status);
            if (ran) return status;
        }
        return runOneChannel(s, rootReady);
    }

  private:
    // `rootReady`: push has made (or, for a dry run, found) its remote root.
    int runOneChannel(Session& s, bool rootReady) {
        int mode = m_o.tree.syncMode;
        if (m_o.command == Command::Push && !rootReady) {
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

    // push: the local tree cut into pieces, the directories they start in
    // made on the server by one short script, whose time tells what a piece
    // costs there. False, having copied nothing, when one channel is as
    // good; `rootReady` when the remote root has been made meanwhile.
    bool pushInParallel(Session& s, int& status, bool& rootReady) {
        const int mode = m_o.tree.syncMode;
        if (m_o.tree.dryRun && mode == 0) return false;  // nothing to ask the server
        TreeShape shape = localTreeShape(m_localRoot, NameFilters(m_o.tree));
        const int commandsPerPiece = mode == 0 ? 1 : 2;  // a listing first
        SplitRules rules = finestRules(m_o.tree.jobs, commandsPerPiece);
        rules.shareFiles = mode == 0;
        rules.pieceRoots = uploadPieceRoots(mode);
        TreePlan finest = splitTree(shape, rules);
        if (finest.pieces.size() < 2) return false;

        // The server cannot tell which directories a piece will make: all
        // of them are made first, the root's included, parents first.
        std::vector<size_t> made = finest.madeFirst;
        for (const TreePiece& p : finest.pieces) made.push_back(p.dir);
        made.push_back(0);
        std::sort(made.begin(), made.end());
        made.erase(std::unique(made.begin(), made.end()), made.end());
        std::vector<SetupDirectory> dirs;
        for (size_t i : made) dirs.push_back({shape.dirs[i].path, shape.dirs[i].mode});
        RemoteSetup setup;
        bool ready = m_o.tree.dryRun ? findRemoteDirectories(s.ssh, m_remoteRoot, dirs, setup)
                                     : makeRemoteDirectories(s.ssh, m_remoteRoot, dirs, setup);
        s.record(s.ssh);
        if (!ready && m_o.tree.dryRun) return false;
        if (!ready) {
            printError("push: cannot make the remote directory " + stripControlChars(m_remoteRoot) +
                       ": " + stripControlChars(setup.error) + s.logHint());
            status = kExitTransferFailed;
            return true;
        }
        rootReady = !setup.rootMissing;
        SplitRules measured =
            rulesFor(m_o.tree.jobs, setup.execSeconds, setup.seconds, commandsPerPiece);
        measured.shareFiles = rules.shareFiles;
        measured.pieceRoots = rules.pieceRoots;
        TreePlan plan = splitTree(shape, measured);
        auto madeAt = [&made](size_t dir) {
            return std::lower_bound(made.begin(), made.end(), dir) - made.begin();
        };
        bool allMade = std::all_of(plan.pieces.begin(), plan.pieces.end(), [&](const TreePiece& p) {
            return static_cast<size_t>(madeAt(p.dir)) < made.size() && made[madeAt(p.dir)] == p.dir;
        });
        if (plan.pieces.size() < 2 || !allMade) return false;

        // What the server holds, so that pieces with nothing to copy are
        // not started; without it every piece runs.
        std::unordered_map<std::string, ListedEntry> there;
        const bool listed = mode != 0 && !setup.rootMissing && listRemoteTree(s, there);
        std::vector<PieceJob> jobs;
        for (const TreePiece& p : plan.pieces) {
            int pieceMode = mode;
            // A directory that was not there holds nothing to compare with.
            if (setup.missing[madeAt(p.dir)] && mode != 0) {
                if (!copiesMissingFiles(mode)) continue;
                pieceMode = 0;
            }
            if (listed && pieceMode != 0 && !uploadPieceNeeded(shape, p, there, pieceMode))
                continue;
            jobs.push_back(job(shape.dirs[p.dir].path, p, pieceMode));
        }
        status = finishParallel(s, runJobs(s, TreeDirection::Upload, jobs), dirs);
        return true;
    }

    // pull: the remote tree's shape from one listing command; the local
    // directories between the root and the pieces made here first. False,
    // having changed nothing, when the server cannot list or one channel
    // is as good.
    bool pullInParallel(Session& s, int& status) {
        const int mode = m_o.tree.syncMode;
        NameFilters filters(m_o.tree);
        // The remote root must pass the directory filters too: when its name
        // is not plain, the one channel finds out.
        std::string rootName = baseName(trimSlashes(m_remoteRoot));
        if (filters.filtersDirectories() &&
            (rootName.empty() || rootName == "." || rootName == "~" || rootName == "/" ||
             !filters.keepsDirectory(rootName))) {
            return false;
        }
        RemoteRun listing = runRemote(s.ssh, "listRemoteTree", remoteListingCommand(m_remoteRoot));
        s.record(s.ssh);
        TreeShape shape;
        if (!parseRemoteListing(listing.out, filters, shape)) return false;
        SplitRules rules = rulesFor(m_o.tree.jobs, listing.execSeconds, listing.seconds, 1);
        rules.pieceRoots = PieceRoots::Any;
        TreePlan plan = splitTree(shape, rules);
        if (plan.pieces.size() < 2) return false;

        std::vector<SetupDirectory> dirs;
        for (size_t i : plan.madeFirst) dirs.push_back({shape.dirs[i].path, shape.dirs[i].mode});
        std::vector<bool> missing(dirs.size());
        std::string error;
        if (m_o.tree.dryRun) {
            for (size_t i = 0; i < dirs.size(); ++i)
                missing[i] = !isDirectory(pathIn(m_localRoot, dirs[i].path));
        } else if (!makeLocalDirectories(m_localRoot, dirs,
                                         mode == 0 ? ExistingModes::Set : ExistingModes::Keep,
                                         missing, error)) {
            printError("pull: " + stripControlChars(error));
            status = kExitTransferFailed;
            return true;
        }

        std::vector<PieceJob> jobs;
        for (const TreePiece& p : plan.pieces) {
            const std::string& below = shape.dirs[p.dir].path;
            auto made = std::find(plan.madeFirst.begin(), plan.madeFirst.end(), p.dir);
            bool wasMissing = made != plan.madeFirst.end()
                                  ? missing[made - plan.madeFirst.begin()]
                                  : !isDirectory(pathIn(m_localRoot, below));
            // Every file is missing there: copying all is the same choice,
            // and streams.
            int pieceMode = wasMissing && downloadsMissingFiles(mode) ? 0 : mode;
            // Where the listing and the local files show nothing to copy,
            // the piece is not started.
            if (pieceMode != 0 && !downloadPieceNeeded(shape, p, m_localRoot, pieceMode)) continue;
            jobs.push_back(job(below, p, pieceMode));
        }
        status = finishParallel(s, runJobs(s, TreeDirection::Download, jobs), {});
        return true;
    }

    // No worker starts when every piece was found to have nothing to copy.
    ParallelOutcome runJobs(Session& s, TreeDirection direction,
                            const std::vector<PieceJob>& jobs) {
        if (jobs.empty()) return ParallelOutcome();
        return runPieces(s, direction, jobs, m_o.tree.jobs);
    }

    // push: every entry below the remote root, from one listing command.
    bool listRemoteTree(Session& s, std::unordered_map<std::string, ListedEntry>& there) {
        RemoteRun listing = runRemote(s.ssh, "listRemoteTree", remoteListingCommand(m_remoteRoot));
        s.record(s.ssh);
        return listing.ran && parseListing(listing.out, there);
    }

    // Which directories may start a piece of push (see remotePieceRoot).
    PieceRoots uploadPieceRoots(int mode) const {
        if (m_remoteRoot.find(' ') != std::string::npos) return PieceRoots::PlainOnly;
        return mode == 0 && plainPath(m_remoteRoot) ? PieceRoots::Any : PieceRoots::NoSpaces;
    }

    // A piece's remote directory, for the remote scp's command line: as it
    // is when plain, else quoted for the shell. The library puts a path
    // with a space in double quotes for an upload (and lists the server
    // with the path as it is): such a path is escaped for double quotes,
    // which only an upload with nothing to list and a plain root can take.
    std::string remotePieceRoot(const std::string& below) const {
        if (plainPath(below)) return pathIn(m_remoteRoot, below);
        if (m_o.command == Command::Pull || below.find(' ') == std::string::npos)
            return joinPath(m_remoteRoot, shellWord(below));
        std::string escaped;
        for (char c : below) {
            if (c == '"' || c == '\\' || c == '$' || c == '`') escaped += '\\';
            escaped += c;
        }
        return joinPath(m_remoteRoot, escaped);
    }

    PieceJob job(const std::string& below, const TreePiece& piece, int mode) const {
        PieceJob j;
        j.localRoot = pathIn(m_localRoot, below);
        j.remoteRoot = remotePieceRoot(below);
        j.listPrefix = below.empty() ? "" : below + "/";
        j.mode = mode;
        j.recurse = piece.recurse;
        j.onlyNames = piece.onlyNames;
        j.plannedBytes = piece.plannedBytes;
        return j;
    }

    // After the pieces: what they had begun is removed, what they copied
    // has been listed; push gives back the directory modes it held back.
    int finishParallel(Session& s, ParallelOutcome outcome,
                       const std::vector<SetupDirectory>& madeRemotely) {
        s.bar.clear();
        std::vector<std::string> cleanup;
        for (const std::string& partial : outcome.unfinishedLocal) {
            ::unlink(partial.c_str());
            cleanup.push_back("removed the partial " + stripControlChars(partial));
        }
        for (int slot = 0; slot < kMaxTreeJobs; ++slot) setPartialLocalFile("", slot);
        for (const UnfinishedUpload& upload : outcome.unfinishedRemote)
            cleanup.push_back(removeRemotePartial(s, upload));
        std::string said;
        for (const std::string& line : cleanup)
            if (!line.empty()) said += (said.empty() ? "" : "; ") + line;
        if (outcome.result == ParallelOutcome::Result::Interrupted)
            return interruptedStatus(s.commandName(), said);
        if (outcome.result == ParallelOutcome::Result::Failed) {
            const std::string& reason = outcome.failure;
            printError(std::string(s.commandName()) + " " +
                       stripControlChars(m_o.remoteText.front()) + " failed" +
                       (reason.empty() ? "" : ": " + reason) + s.logHint());
            return kExitTransferFailed;
        }
        std::string error;
        if (m_o.tree.dryRun || finishRemoteModes(s.ssh, m_remoteRoot, madeRemotely, error))
            return kExitOk;
        s.record(s.ssh);
        printError("push: cannot set the modes of the remote directories: " +
                   stripControlChars(error) + s.logHint());
        return kExitTransferFailed;
    }

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
        const UnfinishedUpload& upload = s.watch.unfinishedUpload();
        return upload.path.empty() ? "" : removeRemotePartial(s, upload);
    }

    // A file whose bytes had begun to arrive is removed; one the remote scp
    // may only have made is removed when it is empty there and not here
    // (a file it had not touched stays as it was).
    std::string removeRemotePartial(Session& s, const UnfinishedUpload& upload) {
        std::string path = joinPath(m_remoteRoot, upload.path), error;
        if (!upload.bytesLeft) {
            if (regularFileSize(joinPath(m_localRoot, upload.path)) <= 0) return "";
            std::string p = shellQuotePath(path);
            RemoteRun run =
                runRemote(s.ssh, "removeRemoteFile",
                          "sh -c " + shellQuotePath("[ -f " + p + " ] && [ ! -s " + p +
                                                    " ] && rm -f -- " + p + " && echo removed"));
            s.record(s.ssh);
            return run.out == "removed\n" ? "removed the empty " + stripControlChars(path) : "";
        }
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
