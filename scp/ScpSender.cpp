// The sending side of the protocol: the records of a local file and the
// lock-step exchange that hands one file to a remote "scp -t".
#include <scpkit/base/Conversions.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/DataSource.h>
#include <scpkit/base/FileTime.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/scp/ScpFileInfo.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

namespace {
constexpr uint32_t kDefaultPerms = 0644;
constexpr uint32_t kPermBits = 0777;
}  // namespace

bool ClsScp::sendScpData(int channel, DataBuffer& data, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "receiveFile");
    if (!ssh) return false;
    QuietLog quiet(log);
    return ssh->channelSendData(static_cast<unsigned>(channel), data, sp, log);
}

bool ClsScp::sendByte(unsigned channel, char byte, SocketParams& sp, LogBase& log) {
    DataBuffer data;
    data.appendChar(byte);
    return sendScpData(static_cast<int>(channel), data, sp, log);
}

bool ClsScp::sendFileTimes(int channel, ScpFileInfo& info, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "sendFileTimes");
    if (!ssh) return false;
    StringBuffer line;
    line.appendChar('T');
    line.append(static_cast<unsigned>(info.lastModTime.toUnixTime32()));
    line.append(" 0 ");
    line.append(static_cast<unsigned>(info.lastAccTime.toUnixTime32()));
    line.append(" 0");
    if (log.m_verboseLogging) log.LogDataSb("T_message", line);
    line.appendChar('\n');
    DataBuffer data;
    data.append(line);
    return sendScpData(channel, data, sp, log);
}

bool ClsScp::sendFileInfo(int channel, ScpFileInfo& info, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "sendFileInfo");
    if (!ssh) return false;
    // setuid, setgid and sticky never travel; the record keeps the masked mode.
    info.permissions &= kPermBits;
    char octal[12];
    vq_0o(info.permissions, 4, octal);
    StringBuffer line;
    line.appendChar('C');
    line.append(octal);
    line.appendChar(' ');
    line.appendInt64(info.fileSize);
    line.appendChar(' ');
    line.append(info.filename);
    if (log.m_verboseLogging) log.LogDataSb("C_message", line);
    line.appendChar('\n');
    DataBuffer data;
    data.append(line);
    return sendScpData(channel, data, sp, log);
}

bool ClsScp::sendDirInfo(int channel, int permissions, XString& dirName, SocketParams& sp,
                         LogBase& log) {
    LogContextExitor ctx(log, "sendDirInfo");
    if (!ssh) return false;
    char octal[12];
    vq_0o(static_cast<unsigned>(permissions) & kPermBits, 4, octal);
    StringBuffer line;
    line.appendChar('D');
    line.append(octal);
    line.append(" 0 ");
    line.append(dirName.getUtf8Sb());
    if (log.m_verboseLogging) log.LogDataSb("D_message", line);
    line.appendChar('\n');
    DataBuffer data;
    data.append(line);
    return sendScpData(channel, data, sp, log);
}

bool ClsScp::sendFile(int channel, _vqDataSource& source, bool /*unused*/, ScpFileInfo& info,
                      SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "sendFile");
    if (!ssh) return false;
    unsigned ch = static_cast<unsigned>(channel);
    DataBuffer ack;
    OutputDataBuffer ackOut(&ack);

    // The remote sends 0 when it starts.
    if (log.m_verboseLogging) log.LogInfo("Waiting for the initial ready response...");
    if (!waitForGo(ack, ackOut, ch, sp, log)) return false;

    if (log.m_verboseLogging) log.LogInfo("Sending file times...");
    if (!sendFileTimes(channel, info, sp, log)) return false;
    if (log.m_verboseLogging) log.LogInfo("Waiting for the next ready response...");
    if (!waitForGo(ack, ackOut, ch, sp, log)) return false;

    if (log.m_verboseLogging) log.LogInfo("Sending file info...");
    if (!sendFileInfo(channel, info, sp, log)) return false;
    if (log.m_verboseLogging) log.LogInfo("Waiting for the next ready response...");
    if (!waitForGo(ack, ackOut, ch, sp, log)) return false;

    // End of data; its acknowledgement is read by the caller.
    return sendFileData(channel, source, info, sp, log);
}

bool ClsScp::sendFileData(int channel, _vqDataSource& source, ScpFileInfo& info, SocketParams& sp,
                          LogBase& log) {
    if (log.m_verboseLogging) log.LogInfo("Sending file data...");
    bool sent;
    {
        QuietLog quiet(log);
        sent = ssh->channelSendNFromSource(channel, source, info.fileSize, sp, log);
    }
    if (!sent) return false;
    if (!sendByte(static_cast<unsigned>(channel), '\0', sp, log)) {
        log.LogError("Failed to send the final 0 byte.");
        return false;
    }
    return true;
}

bool ClsScp::drainAcks(unsigned channel, PendingAcks& acks, SocketParams& sp, LogBase& log) {
    for (; acks.owed > 0; --acks.owed) {
        if (!readAck(acks.buf, acks.out, channel, Framing::ThroughLineFeed, sp, log)) return false;
    }
    acks.drainFirst = false;
    return true;
}

bool ClsScp::sendFileAhead(int channel, _vqDataSource& source, ScpFileInfo& info, PendingAcks& acks,
                           SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "sendFile");
    if (!ssh) return false;
    unsigned ch = static_cast<unsigned>(channel);
    if (acks.drainFirst && !drainAcks(ch, acks, sp, log)) return false;

    if (log.m_verboseLogging) log.LogInfo("Sending file times...");
    if (!sendFileTimes(channel, info, sp, log)) return false;
    ++acks.owed;
    if (log.m_verboseLogging) log.LogInfo("Sending file info...");
    if (!sendFileInfo(channel, info, sp, log)) return false;
    ++acks.owed;
    // A sink that cannot create the file reads no data: it would take the
    // bytes for records.
    if (log.m_verboseLogging) log.LogInfo("Waiting for the next ready response...");
    if (!drainAcks(ch, acks, sp, log)) return false;

    if (!sendFileData(channel, source, info, sp, log)) return false;
    ++acks.owed;
    return true;
}

bool ClsScp::openLocalFile(XString& localPath, const char* name, _vqFileDataSource& source,
                           ScpFileInfo& info, LogBase& log) {
    LogContextExitor ctx(log, "openLocalFile");
    if (!source.openDataSourceFile(localPath, log)) return false;

    info.fileSize = source.getFileSize64(&log);
    if (info.fileSize < 0) return false;

    info.filename.append(name);

    VostrelFileTime creation;
    if (!source.getFileTime(creation, info.lastAccTime, info.lastModTime)) return false;
    info.haveTimes = true;

    if (useOverride) {
        info.permissions = overridePerms;
    } else {
        unsigned perms = kDefaultPerms;
        source.getUnixModePerms(perms, log);
        info.permissions = perms & kPermBits;
    }
    return true;
}

}  // namespace scpkit
