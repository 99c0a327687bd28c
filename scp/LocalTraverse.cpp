// Walks a local directory tree without recursion of its own: an explicit
// stack of open directory iterators, one per level of the current path, so
// the depth of a tree is bounded by memory rather than by the call stack.
//
// Two passes share the walk. The compute pass totals the bytes of the files
// that would be sent and the directories that would be entered. The upload
// pass is the source side of a recursive copy: "D" on entering a directory,
// each selected file with its times, "E" on leaving; every protocol step
// first waits for the acknowledgement of the previous one.
#include <cstdint>

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

bool ClsScp::doLocalTraverse(bool computeOnly, unsigned channel, XString& localRoot,
                             XString& remoteRoot, int mode, bool recurse,
                             StringHashMap* remoteFiles, SocketParams& sp, LogBase& log) {
    (void)remoteRoot;  // carried for the caller's symmetry; the walk is local
    LogContextExitor ctx(log, "doLocalTraverse");

    ExtPtrArraySb mustMatch, mustNotMatch, mustMatchDir, mustNotMatchDir;
    syncMustMatch.getUtf8Sb().splitAndTrim(mustMatch, ';', true, true);
    syncMustNotMatch.getUtf8Sb().splitAndTrim(mustNotMatch, ';', true, true);
    syncMustMatchDir.getUtf8Sb().splitAndTrim(mustMatchDir, ';', true, true);
    syncMustNotMatchDir.getUtf8Sb().splitAndTrim(mustNotMatchDir, ';', true, true);

    _vqFileIterator* current = _vqFileIterator::createNewObject();
    if (!current) return false;
    if (!current->openDirectory(localRoot, log)) {
        log.LogError("Failed to open local root directory");
        VostrelObject::deleteObject(current);
        return false;
    }

    // Iterators still open when the walk fails are released with the stack.
    ExtPtrArray dirStack;
    ExtPtrArraySb relPathStack;
    if (!dirStack.appendObject(current)) return false;
    if (!relPathStack.appendString(".")) return false;
    XString curPath;
    curPath.copyFromX(localRoot);
    XString name;

    int64_t totalBytes = 0;
    unsigned numDirs = 0;
    DataBuffer ackBuf;
    OutputDataBuffer ackOut(&ackBuf);
    ProgressMonitor* pm = computeOnly ? nullptr : sp.m_progressMonitor;
    const int ch = static_cast<int>(channel);

    NestedContexts nested(log);
    if (log.m_verboseLogging) {
        log.LogDataX("xLocalRoot", localRoot);
        nested.enter("dirTree");
    }

    enum class State { Read, Advance, Leave, Finish };
    State state = State::Read;
    while (state != State::Finish) {
        switch (state) {
            case State::Read: {
                if (sp.spAbortCheck(log)) {
                    log.LogError("Aborted by application callback");
                    return false;
                }
                name.clear();
                current->getFfFilename(name, log);
                const bool isDir = current->isDirectory();
                // Evaluated for every entry, the dot entries included.
                const bool skip = isDir
                                      ? skipFromMustMatch(name, mustMatchDir, mustNotMatchDir, log)
                                      : skipFromMustMatch(name, mustMatch, mustNotMatch, log);
                if (isDotEntry(name) || skip || (isDir && !recurse)) {
                    state = State::Advance;
                    break;
                }

                if (!isDir) {
                    XString fullPath;
                    _vqFilePath::CombineDirAndFilename(curPath, name, fullPath);
                    if (log.m_verboseLogging) log.LogDataX("file", fullPath);
                    state = State::Advance;
                    if (!needToUpload(mode, fullPath, localRoot, remoteFiles, log)) break;

                    if (computeOnly) {
                        bool ok = false;
                        int64_t size = FileSys::fileSizeX_64(fullPath, &log, ok);
                        if (ok && size >= 0) {
                            totalBytes += size;
                        } else {
                            log.LogError("Failed to add file size to total.");
                        }
                        break;
                    }

                    _vqFileDataSource source;
                    ScpFileInfo info;
                    if (!openLocalFile(fullPath, name.getUtf8(), source, info, log)) {
                        // One unreadable file does not stop the tree.
                        log.LogError("Unable to open local file..");
                        if (pm) pm->progressInfo("scp-localfile-cannot-open", fullPath.getUtf8());
                        break;
                    }
                    source.m_reportsProgress = true;
                    if (!sendFile(ch, source, false, info, sp, log)) {
                        if (pm) pm->progressInfo("scp-localfile-upload-failed", fullPath.getUtf8());
                        return false;
                    }
                    info.contructRPath(relPathStack, log);
                    syncedFiles.append(info.rFilePath);
                    syncedFiles.appendLineEnding();
                    if (pm) pm->progressInfo("scp-localfile-uploaded", fullPath.getUtf8());
                    break;
                }

                // A directory, entered at the moment its entry is read.
                if (log.m_verboseLogging) nested.enter("subdir");
                XString dirPath;
                _vqFilePath::CombineDirAndFilename(curPath, name, dirPath);
                curPath.copyFromX(dirPath);
                if (log.m_verboseLogging) log.LogDataX("subDir", curPath);

                if (!computeOnly) {
                    if (pm) pm->progressInfo("scp-localdir-entered", curPath.getUtf8());
                    bool permsOk = true;
                    unsigned perms = FileSys::getUnixPerms(curPath, nullptr, permsOk);
                    if (!waitForGo(ackBuf, ackOut, channel, sp, log)) return false;
                    if (sp.spAbortCheck(log)) return false;
                    if (!sendDirInfo(ch, static_cast<int>(perms), name, sp, log)) return false;
                    if (sp.m_progressMonitor) sp.m_progressMonitor->consumeProgress(100, &log);
                }

                _vqFileIterator* sub = _vqFileIterator::createNewObject();
                if (!sub) return false;
                if (!sub->openDirectory(curPath, log)) {
                    log.LogError("Failed to open directory");
                    log.LogDataX("curLocalPath", curPath);
                    VostrelObject::deleteObject(sub);
                    return false;
                }
                if (!dirStack.appendObject(sub)) return false;
                if (!relPathStack.appendString(name.getUtf8())) return false;
                ++numDirs;
                current = sub;
                state = State::Read;
                break;
            }

            case State::Advance:
                state = (current->m_hasEntry && current->advanceToNext(log)) ? State::Read
                                                                             : State::Leave;
                break;

            case State::Leave: {
                current->closeDirectory();
                if (!computeOnly) {
                    if (!waitForGo(ackBuf, ackOut, channel, sp, log)) return false;
                    if (sp.spAbortCheck(log)) return false;
                    // The root gets its "E" too, although it had no "D": the
                    // remote sink acknowledges it and ends.
                    DataBuffer endLine;
                    endLine.appendStr("E\n");
                    if (!sendScpData(ch, endLine, sp, log)) return false;
                }
                if (log.m_verboseLogging) nested.leave();
                if (sp.spAbortCheck(log)) {
                    log.LogError("Aborted by application callback");
                    return false;
                }

                VostrelObject* popped = dirStack.pop();
                if (popped != current) {
                    log.LogError("dir traversal stack mismatch.");
                    VostrelObject::deleteObject(popped);
                    return false;
                }
                VostrelObject::deleteObject(popped);
                StringBuffer::deleteSb(relPathStack.pop());

                current = static_cast<_vqFileIterator*>(dirStack.lastElement());
                if (!current) {
                    state = State::Finish;
                    break;
                }
                if (log.m_verboseLogging) log.LogDataX("leavingDir", curPath);
                if (pm) pm->progressInfo("scp-localdir-leaving", curPath.getUtf8());
                _vqFilePath::UpOneDir(curPath);
                state = State::Advance;
                break;
            }

            case State::Finish:
                break;
        }
    }

    if (computeOnly) {
        if (sp.m_progressMonitor) {
            log.LogDataInt64("totalByteCount", totalBytes);
            log.LogDataInt64("totalNumDirs", static_cast<int64_t>(numDirs));
            sp.m_progressMonitor->progressReset(totalBytes + 100 * static_cast<int64_t>(numDirs),
                                                &log);
        }
        return true;
    }
    if (log.m_verboseLogging) log.LogInfo("Waiting for the final response...");
    return waitForGo(ackBuf, ackOut, channel, sp, log);
}

}  // namespace scpkit
