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

bool ClsScp::doRemoteTraverse(bool bComputeMode, XString& remoteDir, XString& localDir, int mode,
                              bool recurse, StringHashMap* remoteFiles, SocketParams& sp,
                              LogBase& log) {
    LogContextExitor ctx(log, "doRemoteTraverse");
    if (!ssh) return false;

    int channel = ssh->openSessionChannel(sp, log);

    ChannelFinisher finisher(ssh, channel);
    if (channel < 0) {
        logSuccessFailure(false);
        return false;
    }
    if (!setEnvironmentVars(channel, sp, log)) {
        logSuccessFailure(false);
        return false;
    }
    // The traversal root goes out unquoted, exactly as given.
    XString command;
    buildScpCommand("scp -rpf ", remoteDir, false, command);
    if (!ssh->sendReqExec(channel, command, sp, log)) {
        logSuccessFailure(false);
        return false;
    }

    int64_t totalByteCount = 0;
    unsigned totalNumDirs = 0;
    if (!consumeRecursiveResponse(bComputeMode, static_cast<unsigned>(channel), mode, recurse,
                                  localDir, totalByteCount, totalNumDirs, remoteFiles, sp, log)) {
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

    finishTreeChannel(*ssh, channel, sp, log);
    return true;
}

namespace {

// What the record loop does after one record.
enum class LoopCode { ContinueDir, ContinueFile, Done, Failed };

}  // namespace

bool ClsScp::consumeRecursiveResponse(bool bComputeMode, unsigned channel, int mode, bool recurse,
                                      XString& localDir, int64_t& totalByteCount,
                                      unsigned& totalNumDirs, StringHashMap* remoteFiles,
                                      SocketParams& sp, LogBase& log) {
    totalByteCount = 0;
    totalNumDirs = 0;
    LogContextExitor ctx(log, "consumeRecursiveResponse");
    if (!ssh) return false;

    log.LogDataLong("bComputeMode", bComputeMode ? 1 : 0);

    DataBuffer ready;
    ready.appendChar('\0');
    DataBuffer warning;
    warning.appendChar('\x01');
    DataBuffer skipText;
    skipText.appendStr("skip\n");

    const int ch = static_cast<int>(channel);
    if (!sendScpData(ch, ready, sp, log)) return false;

    if (log.m_verboseLogging) {
        log.LogDataX("syncMustMatch", syncMustMatch);
        log.LogDataX("syncMustNotMatch", syncMustNotMatch);
        log.LogDataX("syncMustMatchDir", syncMustMatchDir);
        log.LogDataX("syncMustNotMatchDir", syncMustNotMatchDir);
    }
    ExtPtrArraySb mustMatch, mustNotMatch, mustMatchDir, mustNotMatchDir;
    syncMustMatch.getUtf8Sb().splitAndTrim(mustMatch, ';', true, true);
    syncMustNotMatch.getUtf8Sb().splitAndTrim(mustNotMatch, ';', true, true);
    syncMustMatchDir.getUtf8Sb().splitAndTrim(mustMatchDir, ';', true, true);
    syncMustNotMatchDir.getUtf8Sb().splitAndTrim(mustNotMatchDir, ';', true, true);

    ExtPtrArraySb dirStack;
    ProgressMonitor* pm = sp.m_progressMonitor;

    auto failAt = [&log](int where) {
        log.LogDataLong("errReturnLoc", where);
        return LoopCode::Failed;
    };
    // One answer on the channel; a missing SSH object counts as a failed send.
    auto answer = [&](DataBuffer& bytes) { return ssh && sendScpData(ch, bytes, sp, log); };
    auto announceReady = [&log]() {
        if (log.m_verboseLogging) log.LogInfo("Sending 0 ready/continue byte..");
    };

    // The warning answer that makes the source give up the file just announced.
    auto skipFile = [&]() {
        if (log.m_verboseLogging) log.LogInfo("Sending 1 skip-data byte..");
        if (!answer(warning)) return failAt(25);
        if (sp.spAbortCheck(log)) return LoopCode::Failed;
        if (!answer(skipText)) return failAt(26);
        if (sp.spAbortCheck(log)) return LoopCode::Failed;
        return dirStack.getSize() == 0 ? LoopCode::Done : LoopCode::ContinueFile;
    };

    auto endOfDir = [&]() {
        if (dirStack.getSize() == 0) {
            log.LogError("unexpected empty dir stack.");
            abortRemainder(channel, sp, log);
            return failAt(1);
        }
        StringBuffer* left = dirStack.pop();
        if (log.m_verboseLogging) log.LogDataSb("exitDir", *left);
        StringBuffer::deleteSb(left);
        announceReady();
        if (!answer(ready)) return failAt(2);
        if (sp.spAbortCheck(log)) return LoopCode::Failed;
        // The root's own "E" closes the walk.
        return dirStack.getSize() == 0 ? LoopCode::Done : LoopCode::ContinueDir;
    };

    auto directory = [&](ScpFileInfo& info, bool skip) {
        if (log.m_verboseLogging) log.LogDataSb(skip ? "skipDir" : "enterDir", info.filename);

        const bool isRoot = dirStack.getSize() == 0;
        // Pushed even when skipped: the skip pops it again below.
        if (!dirStack.appendString(info.filename.getString())) return failAt(10);
        info.contructRPath(dirStack, log);

        if ((isRoot || recurse) && !skip) {
            if (!remoteFiles) {
                XString localPath;
                if (needToDownload(mode, localDir, info, localPath, log)) {
                    if (log.m_verboseLogging) log.LogInfo("This file will be downloaded..");
                    ++totalNumDirs;
                    if (!bComputeMode) {
                        if (!FileSys::createDir(localPath, &log) &&
                            !DirAutoCreate::ensureDirUtf8(localPath.getUtf8(), &log)) {
                            abortRemainder(channel, sp, log);
                            return failAt(3);
                        }
                        if (pm) pm->progressInfo("scp-localdir-created", localPath.getUtf8());
                        // Never setuid, setgid or sticky bits from a server.
                        FileSys::setPerm(localPath, info.permissions & 0777, &log);
                        if (pm) pm->consumeProgress(100, &log);
                    }
                }
            }
            announceReady();
            if (!answer(ready)) return failAt(14);
            if (sp.spAbortCheck(log)) return failAt(15);
            return LoopCode::ContinueDir;
        }

        if (log.m_verboseLogging)
            log.LogInfo("Skipping this directory: sending 1 skip-data byte..");
        if (!answer(warning)) return LoopCode::Failed;
        if (sp.spAbortCheck(log)) return failAt(18);
        if (!answer(skipText)) return failAt(19);
        if (sp.spAbortCheck(log)) return failAt(20);
        // The source sends neither the contents nor an "E" for a skipped directory.
        StringBuffer::deleteSb(dirStack.pop());
        return LoopCode::ContinueDir;
    };

    auto file = [&](ScpFileInfo& info, bool skip) {
        info.contructRPath(dirStack, log);
        if (log.m_verboseLogging) {
            log.LogDataSb("filename", info.filename);
            log.LogDataSb("rFilePath", info.rFilePath);
            log.LogDataInt64("fileSize", info.fileSize);
        }

        if (remoteFiles) {
            // Every remote file is recorded, whatever the file filters say.
            if (ScpFileInfo* copy = info.cloneScpFi()) {
                remoteFiles->hashInsert(info.rFilePath.getString(), copy);
            }
            if (log.m_verboseLogging) log.LogDataSb("hashingRemoteFile", info.rFilePath);
            return skipFile();
        }
        if (skip) return skipFile();

        XString localPath;
        if (!needToDownload(mode, localDir, info, localPath, log)) return skipFile();
        if (log.m_verboseLogging) log.LogInfo("This file will be downloaded...");
        totalByteCount = addSaturating(totalByteCount, info.fileSize);
        // Counted, but the data never cross in the compute pass.
        if (bComputeMode) return skipFile();

        announceReady();
        if (!answer(ready)) return failAt(21);
        if (sp.spAbortCheck(log)) return failAt(22);
        if (pm) pm->progressInfo("scp-begin-download", info.rFilePath.getString());
        if (!streamScpDataToFile(channel, localPath, info, sp, log)) {
            abortRemainder(channel, sp, log);
            return LoopCode::Failed;
        }
        syncedFiles.append(info.rFilePath);
        syncedFiles.appendLineEnding();
        if (pm) pm->progressInfo("scp-localfile-created", localPath.getUtf8());
        announceReady();
        if (!answer(ready)) return failAt(23);
        if (sp.spAbortCheck(log)) return failAt(24);
        // A single file as the remote root ends the walk.
        return dirStack.getSize() == 0 ? LoopCode::Done : LoopCode::ContinueFile;
    };

    LoopCode code = LoopCode::ContinueDir;
    while (code == LoopCode::ContinueDir || code == LoopCode::ContinueFile) {
        ScpFileInfo info;
        if (sp.spAbortCheck(log)) return false;

        if (!receiveFileInfo(channel, info, sp, log)) {
            // A failed read after the remote program has finished is the end
            // of the stream, not an error.
            if (sp.m_receivedEof || ssh->channelReceivedEof(ch, log)) {
                code = LoopCode::Done;
                break;
            }
            failAt(30);
            return false;
        }
        if (sp.spAbortCheck(log)) return false;

        if (info.isEndOfDir) {
            code = endOfDir();
            continue;
        }

        // A name that could lead outside the local root is refused before
        // anything is created or recorded. The root directory's own name is
        // never part of a local path (the server sends "." or "" for some
        // roots), so it is exempt.
        const bool isRootDir = info.isDirectory && dirStack.getSize() == 0;
        if (!isRootDir && !isSafeRemoteName(info.filename)) {
            log.LogError("Refusing an unsafe file name from the server.");
            log.LogDataSb("unsafeName", info.filename);
            abortRemainder(channel, sp, log);
            return false;
        }

        XString name;
        name.setFromSbUtf8(info.filename);
        bool skip = info.isDirectory ? skipFromMustMatch(name, mustMatchDir, mustNotMatchDir, log)
                                     : skipFromMustMatch(name, mustMatch, mustNotMatch, log);
        if (info.isDirectory) {
            code = directory(info, skip);
        } else {
            if (log.m_verboseLogging) {
                log.LogInfo(skip ? "Skipping this file because of the must-match pattern..."
                                 : "NOT skipping this file because of must-match pattern.");
            }
            code = file(info, skip);
        }
    }

    if (code == LoopCode::Failed) return false;
    if (log.m_verboseLogging) log.LogInfo("Returning true from consumeRecursiveResponse");
    return true;
}

}  // namespace scpkit
