// Walks a remote directory tree by running the remote scp as a recursive
// source ("scp -rpf") and acting as its sink one record at a time. One engine
// serves three uses: totalling the work of a download (compute), doing the
// download, and recording every remote file in a map (hashing) so that a
// tree upload can compare against it.
//
// The answers steer the remote source: 0x00 goes on (descend, send the data,
// continue), 0x01 followed by "skip\n" is a warning about the entry just
// announced, on which the source gives that entry up and moves on, so a
// rejected file's data never crosses the connection.
#include <cstdint>
#include <limits>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/base/FileSys.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/StringHashMap.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/NameFilters.h>
#include <scpkit/scp/RemoteNameCheck.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/scp/ScpFileInfo.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

namespace {

// Sizes come from the server and can be anything a signed 64-bit number
// holds; totals of them stop at the limits instead of overflowing.
int64_t addSaturating(int64_t a, int64_t b) {
    if (b > 0 && a > std::numeric_limits<int64_t>::max() - b)
        return std::numeric_limits<int64_t>::max();
    if (b < 0 && a < std::numeric_limits<int64_t>::min() - b)
        return std::numeric_limits<int64_t>::min();
    return a + b;
}

}  // namespace

// One run of the record loop. Its members are the state of the walk; its
// methods are the record kinds and the answers that steer the source.
class ClsScp::RemoteWalk {
  public:
    RemoteWalk(ClsScp& scp, bool bComputeMode, unsigned channel, int mode, bool recurse,
               XString& localDir, StringHashMap* remoteFiles, SocketParams& sp, LogBase& log)
        : m_scp(scp),
          m_computeMode(bComputeMode),
          m_channel(channel),
          m_mode(mode),
          m_recurse(recurse),
          m_localDir(localDir),
          m_remoteFiles(remoteFiles),
          m_sp(sp),
          m_log(log),
          m_filters(scp),
          m_pm(sp.m_progressMonitor),
          m_listSelected(bComputeMode && !remoteFiles && scp.hasOption("DryRun")),
          m_pipelined(scp.hasOption("Pipelined")),
          m_allZero(m_pipelined && !bComputeMode && !remoteFiles && mode == 0 && recurse &&
                    m_filters.empty()) {}

    bool run();

    int64_t totalByteCount = 0;
    unsigned totalNumDirs = 0;

  private:
    enum class Next { Continue, Done, Failed };

    Next nextRecord();
    Next endOfDirectory();
    Next directory(ScpFileInfo& info, bool skip);
    Next enterDirectory(ScpFileInfo& info);
    Next skipDirectory();
    Next file(ScpFileInfo& info, bool skip);
    Next downloadFile(ScpFileInfo& info, XString& localPath);
    Next skipFile();
    bool refuseUnsafeName(const ScpFileInfo& info);

    // One answer on the channel; no SSH object counts as a failed send.
    // One answer on the channel; no SSH object counts as a failed send. The
    // last answer to a record names the depth after it, so that the answers
    // the next records are sure to need can go out with it.
    bool answer(const char* bytes, size_t numBytes, int depthAfter = -1);
    bool ready(int depthAfter = -1) { return answer("", 1, depthAfter); }
    int depth() const { return m_dirStack.getSize(); }
    int aheadTarget(int depthAfter) const;
    bool readRecord(ScpFileInfo& info);
    bool sendAhead(int target);
    void announceReady() {
        if (m_log.m_verboseLogging) m_log.LogInfo("Sending 0 ready/continue byte..");
    }
    Next failAt(int where) {
        m_log.LogDataLong("errReturnLoc", where);
        return Next::Failed;
    }
    bool aborted() { return m_sp.spAbortCheck(m_log); }
    // The source ends the walk after the root's own "E", or after a file
    // that was the root.
    Next continueUnlessRootClosed() {
        return m_dirStack.getSize() == 0 ? Next::Done : Next::Continue;
    }

    ClsScp& m_scp;
    const bool m_computeMode;
    const unsigned m_channel;
    const int m_mode;
    const bool m_recurse;
    XString& m_localDir;
    StringHashMap* const m_remoteFiles;
    SocketParams& m_sp;
    LogBase& m_log;
    NameFilters m_filters;
    ProgressMonitor* const m_pm;
    const bool m_listSelected;  // a dry run: SyncedFiles lists what would be copied
    ExtPtrArraySb m_dirStack;   // names of the open remote directories, the root's first

    // "Pipelined": inside an open directory the next record is a "T" line or
    // an "E", both answered with 0x00, so that answer can leave before the
    // record arrives, once the source has shown that it sends "T" lines.
    // Where every answer is 0x00 (download, mode 0, no filters, recurse)
    // the answers of a file run ahead too, within a bounded window and
    // never beyond what the source is sure to ask for.
    const bool m_pipelined;
    const bool m_allZero;
    bool m_timesShown = false;
    int m_ahead = 0;  // 0x00 answers sent for records not yet read
    bool m_refusedRecord = false;
    static constexpr int kWindow = 16;
};

bool ClsScp::RemoteWalk::answer(const char* bytes, size_t numBytes, int depthAfter) {
    if (!m_scp.ssh) return false;
    DataBuffer data;
    // A 0x00 already sent ahead answers this record.
    if (numBytes == 1 && bytes[0] == '\0' && m_ahead > 0) {
        --m_ahead;
    } else {
        data.append(bytes, numBytes);
    }
    for (int target = aheadTarget(depthAfter); m_ahead < target; ++m_ahead) data.appendChar('\0');
    if (data.getSize() == 0) return true;
    return m_scp.sendScpData(static_cast<int>(m_channel), data, m_sp, m_log);
}

// After a record, with `depthAfter` directories open, the source still owes
// at least one "E" for each of them; the next record is a "T" or an "E".
int ClsScp::RemoteWalk::aheadTarget(int depthAfter) const {
    if (!m_timesShown || depthAfter <= 0) return 0;
    return std::min(m_allZero ? kWindow : 1, depthAfter);
}

bool ClsScp::RemoteWalk::sendAhead(int target) {
    DataBuffer zeros;
    for (; m_ahead < target; ++m_ahead) zeros.appendChar('\0');
    return zeros.getSize() == 0 ||
           (m_scp.ssh && m_scp.sendScpData(static_cast<int>(m_channel), zeros, m_sp, m_log));
}

// With answers in flight the stream holds records back to back: each line
// is taken up to its line feed.
bool ClsScp::RemoteWalk::readRecord(ScpFileInfo& info) {
    if (!m_pipelined) return m_scp.receiveFileInfo(m_channel, info, m_sp, m_log);
    RecordRead how;
    how.framing = Framing::ThroughLineFeed;
    how.timesAnsweredAhead = m_ahead > 0;
    if (!m_scp.readRecord(m_channel, info, how, m_sp, m_log)) return false;
    if (how.sawTimes) {
        m_timesShown = true;
        if (how.timesAnsweredAhead) --m_ahead;
    } else if (how.timesAnsweredAhead && !info.isEndOfDir) {
        // The source would take the 0x00 sent for a "T" line as this
        // record's answer: a file the selection might skip would come.
        m_log.LogError("A record came without the times line that was answered ahead.");
        m_scp.abortRemainder(m_channel, m_sp, m_log);
        m_refusedRecord = true;
        return false;
    }
    return true;
}

bool ClsScp::RemoteWalk::run() {
    if (!ready()) return false;
    if (m_log.m_verboseLogging) {
        m_log.LogDataX("syncMustMatch", m_scp.syncMustMatch);
        m_log.LogDataX("syncMustNotMatch", m_scp.syncMustNotMatch);
        m_log.LogDataX("syncMustMatchDir", m_scp.syncMustMatchDir);
        m_log.LogDataX("syncMustNotMatchDir", m_scp.syncMustNotMatchDir);
    }
    Next next = Next::Continue;
    while (next == Next::Continue) next = nextRecord();
    if (next == Next::Failed) return false;
    if (m_log.m_verboseLogging) m_log.LogInfo("Returning true from consumeRecursiveResponse");
    return true;
}

ClsScp::RemoteWalk::Next ClsScp::RemoteWalk::nextRecord() {
    ScpFileInfo info;
    if (aborted()) return Next::Failed;
    if (!readRecord(info)) {
        if (m_refusedRecord) return Next::Failed;
        // A failed read after the remote program has finished is the end of
        // the stream, not an error.
        if (m_sp.m_receivedEof ||
            m_scp.ssh->channelReceivedEof(static_cast<int>(m_channel), m_log)) {
            return Next::Done;
        }
        return failAt(30);
    }
    if (aborted()) return Next::Failed;
    if (info.isEndOfDir) return endOfDirectory();
    if (!refuseUnsafeName(info)) return Next::Failed;
    // Every answer is 0x00: this record's, a file's data answer, and one for
    // the record after it, as long as the directories still open will ask.
    if (m_allZero && m_timesShown && !sendAhead(std::min(kWindow, depth() + 2)))
        return Next::Failed;

    XString name;
    name.setFromSbUtf8(info.filename);
    const bool skip = m_filters.skips(m_scp, name, info.isDirectory, m_log);
    if (info.isDirectory) return directory(info, skip);
    if (m_log.m_verboseLogging) {
        m_log.LogInfo(skip ? "Skipping this file because of the must-match pattern..."
                           : "NOT skipping this file because of must-match pattern.");
    }
    return file(info, skip);
}

// A name that could lead outside the local root is refused before anything
// is created or recorded. The root directory's own name is never part of a
// local path (the server sends "." or "" for some roots), so it is exempt.
bool ClsScp::RemoteWalk::refuseUnsafeName(const ScpFileInfo& info) {
    const bool isRootDir = info.isDirectory && m_dirStack.getSize() == 0;
    if (isRootDir || isSafeRemoteName(info.filename)) return true;
    m_log.LogError("Refusing an unsafe file name from the server.");
    m_log.LogDataSb("unsafeName", info.filename);
    m_scp.abortRemainder(m_channel, m_sp, m_log);
    return false;
}

ClsScp::RemoteWalk::Next ClsScp::RemoteWalk::endOfDirectory() {
    if (m_dirStack.getSize() == 0) {
        m_log.LogError("unexpected empty dir stack.");
        m_scp.abortRemainder(m_channel, m_sp, m_log);
        return failAt(1);
    }
    StringBuffer* left = m_dirStack.pop();
    if (m_log.m_verboseLogging) m_log.LogDataSb("exitDir", *left);
    StringBuffer::deleteSb(left);
    announceReady();
    if (!ready(depth())) return failAt(2);
    if (aborted()) return Next::Failed;
    return continueUnlessRootClosed();
}

ClsScp::RemoteWalk::Next ClsScp::RemoteWalk::directory(ScpFileInfo& info, bool skip) {
    if (m_log.m_verboseLogging) m_log.LogDataSb(skip ? "skipDir" : "enterDir", info.filename);
    const bool isRoot = m_dirStack.getSize() == 0;
    // Pushed even when skipped: the skip pops it again.
    if (!m_dirStack.appendString(info.filename.getString())) return failAt(10);
    info.contructRPath(m_dirStack, m_log);
    if ((isRoot || m_recurse) && !skip) return enterDirectory(info);
    return skipDirectory();
}

ClsScp::RemoteWalk::Next ClsScp::RemoteWalk::enterDirectory(ScpFileInfo& info) {
    XString localPath;
    if (!m_remoteFiles && m_scp.needToDownload(m_mode, m_localDir, info, localPath, m_log)) {
        if (m_log.m_verboseLogging) m_log.LogInfo("This file will be downloaded..");
        ++totalNumDirs;
        if (!m_computeMode) {
            if (!FileSys::createDir(localPath, &m_log) &&
                !DirAutoCreate::ensureDirUtf8(localPath.getUtf8(), &m_log)) {
                m_scp.abortRemainder(m_channel, m_sp, m_log);
                return failAt(3);
            }
            if (m_pm) m_pm->progressInfo("scp-localdir-created", localPath.getUtf8());
            // Never setuid, setgid or sticky bits from a server.
            FileSys::setPerm(localPath, info.permissions & 0777, &m_log);
            if (m_pm) m_pm->consumeProgress(100, &m_log);
        }
    }
    announceReady();
    if (!ready(depth())) return failAt(14);
    if (aborted()) return failAt(15);
    return Next::Continue;
}

// The source sends neither the contents nor an "E" for a skipped directory,
// so its name leaves the stack at once.
ClsScp::RemoteWalk::Next ClsScp::RemoteWalk::skipDirectory() {
    if (m_log.m_verboseLogging)
        m_log.LogInfo("Skipping this directory: sending 1 skip-data byte..");
    if (!answer("\x01", 1)) return Next::Failed;
    if (aborted()) return failAt(18);
    if (!answer("skip\n", 5, depth() - 1)) return failAt(19);
    if (aborted()) return failAt(20);
    StringBuffer::deleteSb(m_dirStack.pop());
    return Next::Continue;
}

ClsScp::RemoteWalk::Next ClsScp::RemoteWalk::file(ScpFileInfo& info, bool skip) {
    info.contructRPath(m_dirStack, m_log);
    if (m_log.m_verboseLogging) {
        m_log.LogDataSb("filename", info.filename);
        m_log.LogDataSb("rFilePath", info.rFilePath);
        m_log.LogDataInt64("fileSize", info.fileSize);
    }
    if (m_remoteFiles) {
        // Every remote file is recorded, whatever the file filters say.
        if (ScpFileInfo* copy = info.cloneScpFi()) {
            m_remoteFiles->hashInsert(info.rFilePath.getString(), copy);
        }
        if (m_log.m_verboseLogging) m_log.LogDataSb("hashingRemoteFile", info.rFilePath);
        return skipFile();
    }
    if (skip) return skipFile();

    XString localPath;
    if (!m_scp.needToDownload(m_mode, m_localDir, info, localPath, m_log)) return skipFile();
    if (m_log.m_verboseLogging) m_log.LogInfo("This file will be downloaded...");
    totalByteCount = addSaturating(totalByteCount, info.fileSize);
    // Counted, but the data never cross in the compute pass.
    if (m_computeMode) {
        if (m_listSelected) m_scp.listSyncedFile(info);
        return skipFile();
    }
    return downloadFile(info, localPath);
}

ClsScp::RemoteWalk::Next ClsScp::RemoteWalk::downloadFile(ScpFileInfo& info, XString& localPath) {
    announceReady();
    if (!ready()) return failAt(21);
    if (aborted()) return failAt(22);
    if (m_pm) m_pm->progressInfo("scp-begin-download", info.rFilePath.getString());
    if (!m_scp.streamScpDataToFile(m_channel, localPath, info, m_sp, m_log)) {
        m_scp.abortRemainder(m_channel, m_sp, m_log);
        return Next::Failed;
    }
    m_scp.listSyncedFile(info);
    if (m_pm) m_pm->progressInfo("scp-localfile-created", localPath.getUtf8());
    announceReady();
    if (!ready(depth())) return failAt(23);
    if (aborted()) return failAt(24);
    return continueUnlessRootClosed();
}

// The warning answer that makes the source give up the file just announced.
ClsScp::RemoteWalk::Next ClsScp::RemoteWalk::skipFile() {
    if (m_log.m_verboseLogging) m_log.LogInfo("Sending 1 skip-data byte..");
    if (!answer("\x01", 1)) return failAt(25);
    if (aborted()) return Next::Failed;
    if (!answer("skip\n", 5, depth())) return failAt(26);
    if (aborted()) return Next::Failed;
    return continueUnlessRootClosed();
}

bool ClsScp::doRemoteTraverse(bool bComputeMode, XString& remoteDir, XString& localDir, int mode,
                              bool recurse, StringHashMap* remoteFiles, SocketParams& sp,
                              LogBase& log) {
    LogContextExitor ctx(log, "doRemoteTraverse");
    if (!ssh) return false;

    // The traversal root goes out unquoted, exactly as given.
    ScpChannel channel(ssh);
    if (!startRemoteScp(channel, "scp -rpf ", remoteDir, Quoting::Bare, sp, log)) return false;

    int64_t totalByteCount = 0;
    unsigned totalNumDirs = 0;
    if (!consumeRecursiveResponse(bComputeMode, channel.number(), mode, recurse, localDir,
                                  totalByteCount, totalNumDirs, remoteFiles, sp, log)) {
        log.LogError("Consume recursive response failed.");
        logSuccessFailure(false);
        return false;
    }

    if (!remoteFiles && bComputeMode) {
        log.LogDataInt64("totalByteCount", totalByteCount);
        log.LogDataInt64("totalNumDirs", static_cast<int64_t>(totalNumDirs));
        // Every directory to be created weighs 100 bytes of progress.
        uint32_t dirCost = 100u * totalNumDirs;
        if (sp.m_progressMonitor) {
            sp.m_progressMonitor->progressReset(
                addSaturating(totalByteCount, static_cast<int64_t>(dirCost)), &log);
        }
    }

    finishTreeChannel(*ssh, channel.id(), sp, log);
    return true;
}

bool ClsScp::consumeRecursiveResponse(bool bComputeMode, unsigned channel, int mode, bool recurse,
                                      XString& localDir, int64_t& totalByteCount,
                                      unsigned& totalNumDirs, StringHashMap* remoteFiles,
                                      SocketParams& sp, LogBase& log) {
    totalByteCount = 0;
    totalNumDirs = 0;
    LogContextExitor ctx(log, "consumeRecursiveResponse");
    if (!ssh) return false;
    log.LogDataLong("bComputeMode", bComputeMode ? 1 : 0);

    RemoteWalk walk(*this, bComputeMode, channel, mode, recurse, localDir, remoteFiles, sp, log);
    bool ok = walk.run();
    totalByteCount = walk.totalByteCount;
    totalNumDirs = walk.totalNumDirs;
    return ok;
}

}  // namespace scpkit
