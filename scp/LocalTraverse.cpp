// Walks a local directory tree without recursion of its own: an explicit
// stack of open directory iterators, one per level of the current path, so
// the depth of a tree is bounded by memory rather than by the call stack.
//
// Two passes share the walk. The compute pass totals the bytes of the files
// that would be sent and the directories that would be entered. The upload
// pass is the source side of a recursive copy: "D" on entering a directory,
// each selected file with its times, "E" on leaving; every protocol step
// first waits for the acknowledgement of the previous one.
#include <algorithm>
#include <cstdint>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/DataSource.h>
#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/base/FileIterator.h>
#include <scpkit/base/FilePath.h>
#include <scpkit/base/FileSys.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/NameFilters.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/scp/ScpFileInfo.h>

namespace scpkit {

namespace {

// Closes the nested log contexts that a walk left open when it stops early,
// so that the log tree stays balanced on every exit.
class NestedContexts {
  public:
    explicit NestedContexts(LogBase& log) : m_log(log) {}
    ~NestedContexts() {
        while (m_open > 0) leave();
    }
    NestedContexts(const NestedContexts&) = delete;
    NestedContexts& operator=(const NestedContexts&) = delete;

    void enter(const char* name) {
        m_log.enterContext(name, true);
        ++m_open;
    }
    void leave() {
        if (m_open == 0) return;
        m_log.leaveContext();
        --m_open;
    }

  private:
    LogBase& m_log;
    int m_open = 0;
};

bool isDotEntry(const XString& name) {
    return name.equalsUtf8(".") || name.equalsUtf8("..");
}

}  // namespace

// One walk over a local tree. Its members are the state of the walk (the
// stacks of open directories, the current path, the totals); its methods
// are the walk's steps: read an entry, advance, leave a directory, finish.
class ClsScp::LocalWalk {
  public:
    enum class Pass { Compute, Upload };
    LocalWalk(ClsScp& scp, Pass pass, unsigned channel, XString& localRoot, int mode, bool recurse,
              StringHashMap* remoteFiles, SocketParams& sp, LogBase& log)
        : m_scp(scp),
          m_pass(pass),
          m_channel(channel),
          m_localRoot(localRoot),
          m_mode(mode),
          m_recurse(recurse),
          m_remoteFiles(remoteFiles),
          m_sp(sp),
          m_log(log),
          m_filters(scp),
          m_nested(log),
          m_pm(pass == Pass::Upload ? sp.m_progressMonitor : nullptr),
          m_listSelected(pass == Pass::Compute && scp.hasOption("DryRun")),
          m_pipelined(pass == Pass::Upload && scp.hasOption("Pipelined")) {}

    bool run();

  private:
    enum class Step { Read, Advance, Leave, Finish, Failed };

    bool openRoot();
    Step read();
    Step handleFile(XString& name);
    Step uploadFile(XString& fullPath, XString& name);
    void listIfSendable(XString& fullPath, XString& name);
    Step enterDirectory(XString& name);
    Step advance();
    Step leave();
    bool finish();

    bool uploading() const { return m_pass == Pass::Upload; }
    bool aborted() { return m_sp.spAbortCheck(m_log); }
    bool abortedWithMessage();
    // Before a "D" or "E" line: lock-step waits for the previous answer;
    // with answers in flight only a "D" just sent must be answered first.
    bool awaitTurn();
    void sentLine(bool isDirectory) {
        ++m_acks.owed;
        m_acks.drainFirst = isDirectory;
    }
    void event(const char* name, const XString& path) {
        if (m_pm) m_pm->progressInfo(name, path.getUtf8());
    }

    ClsScp& m_scp;
    const Pass m_pass;
    const unsigned m_channel;
    XString& m_localRoot;
    const int m_mode;
    const bool m_recurse;
    StringHashMap* const m_remoteFiles;
    SocketParams& m_sp;
    LogBase& m_log;
    NameFilters m_filters;
    NestedContexts m_nested;
    ProgressMonitor* const m_pm;  // events: the upload pass only
    const bool m_listSelected;    // a dry run: SyncedFiles lists what would be sent
    const bool m_pipelined;       // lines go out before earlier answers are read

    // Iterators still open when the walk fails are released with the stack.
    ExtPtrArray m_dirStack;
    ExtPtrArraySb m_relPathStack;       // "." for the root, then each entered name
    std::vector<DirIdentity> m_onPath;  // the real directories of the current path
    _vqFileIterator* m_current = nullptr;
    XString m_curPath;
    int64_t m_totalBytes = 0;
    unsigned m_numDirs = 0;
    PendingAcks m_acks{1};  // the sink's ready byte first
};

bool ClsScp::LocalWalk::awaitTurn() {
    if (!m_pipelined) return m_scp.waitForGo(m_acks.buf, m_acks.out, m_channel, m_sp, m_log);
    return !m_acks.drainFirst || m_scp.drainAcks(m_channel, m_acks, m_sp, m_log);
}

bool ClsScp::LocalWalk::run() {
    if (!openRoot()) return false;
    Step step = Step::Read;
    while (step != Step::Finish) {
        switch (step) {
            case Step::Read:
                step = read();
                break;
            case Step::Advance:
                step = advance();
                break;
            case Step::Leave:
                step = leave();
                break;
            case Step::Finish:
                break;
            case Step::Failed:
                return false;
        }
    }
    return finish();
}

bool ClsScp::LocalWalk::openRoot() {
    _vqFileIterator* root = _vqFileIterator::createNewObject();
    if (!root) return false;
    if (!root->openDirectory(m_localRoot, m_log)) {
        m_log.LogError("Failed to open local root directory");
        VostrelObject::deleteObject(root);
        return false;
    }
    if (!m_dirStack.appendObject(root)) return false;
    if (!m_relPathStack.appendString(".")) return false;
    m_current = root;
    m_curPath.copyFromX(m_localRoot);
    DirIdentity id;
    if (DirIdentity::of(m_localRoot, id)) m_onPath.push_back(id);
    if (m_log.m_verboseLogging) {
        m_log.LogDataX("xLocalRoot", m_localRoot);
        m_nested.enter("dirTree");
    }
    return true;
}

bool ClsScp::LocalWalk::abortedWithMessage() {
    if (!aborted()) return false;
    m_log.LogError("Aborted by application callback");
    return true;
}

ClsScp::LocalWalk::Step ClsScp::LocalWalk::read() {
    if (abortedWithMessage()) return Step::Failed;
    XString name;
    m_current->getFfFilename(name, m_log);
    const bool isDir = m_current->isDirectory();
    // Evaluated for every entry, the dot entries included.
    const bool skip = m_filters.skips(m_scp, name, isDir, m_log);
    if (isDotEntry(name) || skip || (isDir && !m_recurse)) return Step::Advance;
    return isDir ? enterDirectory(name) : handleFile(name);
}

ClsScp::LocalWalk::Step ClsScp::LocalWalk::handleFile(XString& name) {
    XString fullPath;
    _vqFilePath::CombineDirAndFilename(m_curPath, name, fullPath);
    if (m_log.m_verboseLogging) m_log.LogDataX("file", fullPath);
    if (!m_scp.needToUpload(m_mode, fullPath, m_localRoot, m_remoteFiles, m_log))
        return Step::Advance;
    if (uploading()) return uploadFile(fullPath, name);
    if (m_listSelected) listIfSendable(fullPath, name);

    bool ok = false;
    int64_t size = FileSys::fileSizeX_64(fullPath, &m_log, ok);
    if (ok && size >= 0) {
        m_totalBytes += size;
    } else {
        m_log.LogError("Failed to add file size to total.");
    }
    return Step::Advance;
}

ClsScp::LocalWalk::Step ClsScp::LocalWalk::uploadFile(XString& fullPath, XString& name) {
    _vqFileDataSource source;
    ScpFileInfo info;
    if (!m_scp.openLocalFile(fullPath, name.getUtf8(), source, info, m_log)) {
        // One unreadable file does not stop the tree.
        m_log.LogError("Unable to open local file..");
        event("scp-localfile-cannot-open", fullPath);
        return Step::Advance;
    }
    source.m_reportsProgress = true;
    const int ch = static_cast<int>(m_channel);
    if (m_pipelined ? !m_scp.sendFileAhead(ch, source, info, m_acks, m_sp, m_log)
                    : !m_scp.sendFile(ch, source, false, info, m_sp, m_log)) {
        event("scp-localfile-upload-failed", fullPath);
        return Step::Failed;
    }
    info.contructRPath(m_relPathStack, m_log);
    m_scp.listSyncedFile(info);
    event("scp-localfile-uploaded", fullPath);
    return Step::Advance;
}

// What the upload pass would send: a selected file that it can open.
void ClsScp::LocalWalk::listIfSendable(XString& fullPath, XString& name) {
    _vqFileDataSource source;
    ScpFileInfo info;
    if (!m_scp.openLocalFile(fullPath, name.getUtf8(), source, info, m_log)) {
        m_log.LogError("Unable to open local file..");
        return;
    }
    info.contructRPath(m_relPathStack, m_log);
    m_scp.listSyncedFile(info);
}

// A directory is entered at the moment its entry is read. A link that leads
// back to a directory of the current path would make the walk endless: it
// is passed over, in both passes alike.
ClsScp::LocalWalk::Step ClsScp::LocalWalk::enterDirectory(XString& name) {
    XString dirPath;
    _vqFilePath::CombineDirAndFilename(m_curPath, name, dirPath);
    DirIdentity id;
    const bool known = DirIdentity::of(dirPath, id);
    if (known && std::find(m_onPath.begin(), m_onPath.end(), id) != m_onPath.end()) {
        m_log.LogInfo("Skipping a link to a directory already on the path.");
        m_log.LogDataX("path", dirPath);
        return Step::Advance;
    }
    if (m_log.m_verboseLogging) m_nested.enter("subdir");
    m_curPath.copyFromX(dirPath);
    if (m_log.m_verboseLogging) m_log.LogDataX("subDir", m_curPath);

    if (uploading()) {
        event("scp-localdir-entered", m_curPath);
        bool permsOk = true;
        unsigned perms = FileSys::getUnixPerms(m_curPath, nullptr, permsOk);
        if (!awaitTurn()) return Step::Failed;
        if (aborted()) return Step::Failed;
        int ch = static_cast<int>(m_channel);
        if (!m_scp.sendDirInfo(ch, static_cast<int>(perms), name, m_sp, m_log)) return Step::Failed;
        sentLine(true);
        if (m_sp.m_progressMonitor) m_sp.m_progressMonitor->consumeProgress(100, &m_log);
    }

    _vqFileIterator* sub = _vqFileIterator::createNewObject();
    if (!sub) return Step::Failed;
    if (!sub->openDirectory(m_curPath, m_log)) {
        m_log.LogError("Failed to open directory");
        m_log.LogDataX("curLocalPath", m_curPath);
        VostrelObject::deleteObject(sub);
        return Step::Failed;
    }
    if (!m_dirStack.appendObject(sub)) return Step::Failed;
    if (!m_relPathStack.appendString(name.getUtf8())) return Step::Failed;
    m_onPath.push_back(known ? id : DirIdentity{});
    ++m_numDirs;
    m_current = sub;
    return Step::Read;
}

ClsScp::LocalWalk::Step ClsScp::LocalWalk::advance() {
    return (m_current->m_hasEntry && m_current->advanceToNext(m_log)) ? Step::Read : Step::Leave;
}

ClsScp::LocalWalk::Step ClsScp::LocalWalk::leave() {
    m_current->closeDirectory();
    if (uploading()) {
        if (!awaitTurn()) return Step::Failed;
        if (aborted()) return Step::Failed;
        // The root gets its "E" too, although it had no "D": the remote sink
        // acknowledges it and ends.
        DataBuffer endLine;
        endLine.appendStr("E\n");
        if (!m_scp.sendScpData(static_cast<int>(m_channel), endLine, m_sp, m_log))
            return Step::Failed;
        sentLine(false);
    }
    if (m_log.m_verboseLogging) m_nested.leave();
    if (abortedWithMessage()) return Step::Failed;

    VostrelObject* popped = m_dirStack.pop();
    if (popped != m_current) {
        m_log.LogError("dir traversal stack mismatch.");
        VostrelObject::deleteObject(popped);
        return Step::Failed;
    }
    VostrelObject::deleteObject(popped);
    StringBuffer::deleteSb(m_relPathStack.pop());
    if (!m_onPath.empty()) m_onPath.pop_back();

    m_current = static_cast<_vqFileIterator*>(m_dirStack.lastElement());
    if (!m_current) return Step::Finish;
    if (m_log.m_verboseLogging) m_log.LogDataX("leavingDir", m_curPath);
    event("scp-localdir-leaving", m_curPath);
    _vqFilePath::UpOneDir(m_curPath);
    return Step::Advance;
}

bool ClsScp::LocalWalk::finish() {
    if (uploading()) {
        if (m_log.m_verboseLogging) m_log.LogInfo("Waiting for the final response...");
        if (m_pipelined) return m_scp.drainAcks(m_channel, m_acks, m_sp, m_log);
        return m_scp.waitForGo(m_acks.buf, m_acks.out, m_channel, m_sp, m_log);
    }
    if (m_sp.m_progressMonitor) {
        m_log.LogDataInt64("totalByteCount", m_totalBytes);
        m_log.LogDataInt64("totalNumDirs", static_cast<int64_t>(m_numDirs));
        m_sp.m_progressMonitor->progressReset(m_totalBytes + 100 * static_cast<int64_t>(m_numDirs),
                                              &m_log);
    }
    return true;
}

bool ClsScp::doLocalTraverse(bool computeOnly, unsigned channel, XString& localRoot,
                             XString& remoteRoot, int mode, bool recurse,
                             StringHashMap* remoteFiles, SocketParams& sp, LogBase& log) {
    (void)remoteRoot;  // carried for the caller's symmetry; the walk is local
    LogContextExitor ctx(log, "doLocalTraverse");
    LocalWalk walk(*this, computeOnly ? LocalWalk::Pass::Compute : LocalWalk::Pass::Upload, channel,
                   localRoot, mode, recurse, remoteFiles, sp, log);
    return walk.run();
}

}  // namespace scpkit
