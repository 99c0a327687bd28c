// The receiving side of the protocol: control lines from a remote
// "scp -f" parsed into a record, file bytes streamed into an output, and
// the abort that tells the source to stop.
#include <cstring>
#include <string>

#include <scpkit/base/Conversions.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/FileSys.h>
#include <scpkit/base/FileTime.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpFileInfo.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

namespace {

constexpr uint32_t kDefaultPerms = 0644;
// A mode from the server never plants setuid, setgid or sticky bits.
constexpr uint32_t kPermBits = 0777;

}  // namespace

bool ClsScp::receiveFileInfo(unsigned channel, ScpFileInfo& info, SocketParams& sp, LogBase& log) {
    RecordRead how;
    return readRecord(channel, info, how, sp, log);
}

bool ClsScp::readRecord(unsigned channel, ScpFileInfo& info, RecordRead& how, SocketParams& sp,
                        LogBase& log) {
    LogContextExitor ctx(log, "receiveFileInfo");
    if (!ssh) return false;
    info.fileSize = 0;
    info.permissions = kDefaultPerms;
    info.isDirectory = false;
    info.isEndOfDir = false;
    info.haveTimes = false;

    StringBuffer line;
    if (!readLine(channel, line, how.framing, sp, log)) {
        log.LogDataLong("sshEof", sp.m_receivedEof ? 1 : 0);
        log.LogDataLong("sshChannelClosed", sp.m_receivedClose ? 1 : 0);
        return false;
    }
    const char* text = line.getString();
    if (log.m_verboseLogging) {
        log.LogData("fileInfo_responseLine", text[0] == '\x01' ? text + 1 : text);
    }

    StringBuffer timesLine;
    StringBuffer header;
    char first = text[0];
    if (first == 'E') {
        info.isEndOfDir = true;
        return true;
    } else if (first == 'T') {
        how.sawTimes = true;
        if (!how.timesAnsweredAhead) {
            if (log.m_verboseLogging) log.LogInfo("Sending 0 ready/continue byte..");
            if (!sendByte(channel, '\0', sp, log)) return false;
        }
        timesLine.append(line);
        if (!readLine(channel, header, how.framing, sp, log)) return false;
        if (log.m_verboseLogging) log.LogDataSb("T_responseLine", header);
    } else if (first == 'C' || first == 'D') {
        header.append(line);
    } else if (first == '\x01') {
        log.LogData("errorResponse", text + 1);
        return false;
    } else {
        log.LogError("Unrecognized response");
        log.LogDataSb("Err_responseLine", line);
        return false;
    }

    if (!parseHeader(header, info, log)) return false;
    if (timesLine.getSize() != 0) parseTimes(timesLine, info, log);
    return true;
}

bool ClsScp::parseHeader(StringBuffer& header, ScpFileInfo& info, LogBase& log) {
    if (header.lastChar() == '\n') header.shorten(1);
    const std::string& h = header.str();
    if (!h.empty() && h[0] == 'D') info.isDirectory = true;
    info.permissions = vq_valOctal(h.size() > 1 ? h.c_str() + 1 : "");

    size_t firstBlank = h.find(' ');
    if (firstBlank == std::string::npos) {
        log.LogError("Error parsing response line (1)");
        return false;
    }
    size_t secondBlank = h.find(' ', firstBlank + 1);
    if (secondBlank == std::string::npos) {
        log.LogError("Error parsing response line (2)");
        return false;
    }
    StringBuffer sizeField;
    sizeField.appendN(h.c_str() + firstBlank + 1, secondBlank - firstBlank - 1);
    info.fileSize = sizeField.toInt64();
    if (log.m_verboseLogging && !info.isDirectory) log.LogDataInt64("fileSize", info.fileSize);

    // The name runs to the end of the line, blanks included.
    info.filename.appendN(h.c_str() + secondBlank + 1, h.size() - secondBlank - 1);
    if (log.m_verboseLogging) {
        log.LogDataSb(info.isDirectory ? "remoteDir" : "remoteFilename", info.filename);
    }
    return true;
}

void ClsScp::parseTimes(const StringBuffer& timesLine, ScpFileInfo& info, LogBase& log) {
    unsigned modSeconds = 0;
    int modMicros = 0;
    unsigned accSeconds = 0;
    int accMicros = 0;
    int fields = _vqStdio::_vqSscanf4(timesLine.getString(), "T%u %d %u %d", &modSeconds,
                                      &modMicros, &accSeconds, &accMicros);
    // A record without times is still a record.
    if (fields != 4) {
        log.LogError("Failed to parse last-mod/last-access date/times");
        return;
    }
    if (log.m_verboseLogging) log.LogInfo("LastMod and LastAcc times parsed OK.");
    info.lastModTime.fromUnixTime32(modSeconds, 0);
    info.lastAccTime.fromUnixTime32(accSeconds, 0);
    info.haveTimes = true;
}

bool ClsScp::receiveFile(unsigned channel, _vqOutput& out, bool resetProgress, ScpFileInfo& info,
                         SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "receiveFile");
    if (!ssh) return false;
    if (!sendByte(channel, '\0', sp, log)) return false;
    if (!receiveFileInfo(channel, info, sp, log)) return false;
    if (!sendByte(channel, '\0', sp, log)) return false;
    if (resetProgress && sp.m_progressMonitor) {
        sp.m_progressMonitor->progressReset(info.fileSize, &log);
        out.m_reportsProgress = true;
    }
    return receiveFileData(channel, out, info, sp, log);
}

bool ClsScp::receiveFileData(unsigned channel, _vqOutput& out, ScpFileInfo& info, SocketParams& sp,
                             LogBase& log) {
    LogContextExitor ctx(log, "receiveFileData");
    if (!ssh) return false;
    int ch = static_cast<int>(channel);
    if (log.m_verboseLogging) log.LogDataInt64("fileSize", info.fileSize);

    if (info.fileSize != 0) {
        bool ok = false;
        // A negative size cannot be streamed; it fails like short data.
        if (info.fileSize > 0) {
            QuietLog quiet(log);
            ok = ssh->channelReadNToOutput(ch, info.fileSize, out, sp, log);
        }
        if (!ok) {
            log.LogError("Failed to stream file data from SSH server to local file.");
            return false;
        }
    }

    // The source's status byte goes to its own buffer, never into the file.
    DataBuffer status;
    OutputDataBuffer statusOut(&status);
    bool ok;
    {
        QuietLog quiet(log);
        ok = ssh->channelReadNToOutput(ch, 1, statusOut, sp, log);
    }
    if (!ok) return false;
    if (status.getSize() != 1) {
        log.LogError("Failed to read final 0 byte.");
        return false;
    }
    if (status.firstByte() != 0) {
        log.LogError("Unexpected final 0 byte.");
        return false;
    }
    return true;
}

bool ClsScp::streamScpDataToFile(unsigned channel, XString& localPath, ScpFileInfo& info,
                                 SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "streamScpDataToFile");
    if (!ssh) return false;
    if (log.m_verboseLogging) log.LogDataX("localFilePath", localPath);

    OutputFile* file = OutputFile::createFileUtf8(localPath.getUtf8(), log);
    if (!file) {
        log.LogError("Failed to open local file.");
        return false;
    }
    OutputOwner owner(file);
    file->m_reportsProgress = true;

    // On failure the partly written file stays for the caller to judge.
    if (!receiveFileData(channel, *file, info, sp, log)) return false;

    if (info.haveTimes) {
        file->setFileTimeUtc_3(info.lastModTime, info.lastAccTime, info.lastModTime, nullptr);
    }
    file->closeHandle();
    if (file->isRegularFile()) FileSys::setPerm(localPath, info.permissions & kPermBits, nullptr);
    if (log.m_verboseLogging) log.LogInfo("Successfully downloaded file.");
    return true;
}

bool ClsScp::abortRemainder(unsigned channel, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "abortRemainder");
    if (!ssh) return false;
    DataBuffer text;
    text.appendStr("abort\n");

    if (log.m_verboseLogging) log.LogInfo("Sending abort byte..");
    if (!sendByte(channel, '\x02', sp, log)) return false;
    if (sp.spAbortCheck(log)) return false;
    if (!sendScpData(static_cast<int>(channel), text, sp, log)) return false;
    return !sp.spAbortCheck(log);
}

}  // namespace scpkit
