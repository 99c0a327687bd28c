// Reading what the remote scp answers: one control line, or one
// acknowledgement byte judged by the protocol's rules.
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

namespace {

// A control line is a few hundred bytes; a peer that sends this much
// without a line feed is not speaking the protocol.
constexpr size_t kMaxControlLine = 64 * 1024;

bool isTextByte(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '\r' || c == '\n';
}

}  // namespace

bool ClsScp::readScpResponse(unsigned channel, StringBuffer& line, SocketParams& sp, LogBase& log) {
    return readLine(channel, line, Framing::AllReceived, sp, log);
}

bool ClsScp::readLine(unsigned channel, StringBuffer& line, Framing framing, SocketParams& sp,
                      LogBase& log) {
    LogContextExitor ctx(log, "readScpResponse");
    if (!ssh) return false;
    int ch = static_cast<int>(channel);
    line.clear();

    // What arrives without a line feed is moved out of the channel's buffer
    // as it comes, so that its length can be bounded.
    DataBuffer received;
    bool complete = false;
    bool tooLong = false;
    auto takeLine = [&]() {
        if (framing == Framing::ThroughLineFeed) {
            ssh->getReceivedDataThrough(ch, '\n', received, log);
        } else {
            ssh->getReceivedData(ch, received, log);
        }
        complete = true;
    };
    {
        QuietLog quiet(log);
        if (ssh->receivedDataContainsChar(ch, '\n')) {
            takeLine();
        } else {
            for (;;) {
                int n = ssh->channelRead(ch, sp, log);
                if (n >= 1) {
                    if (ssh->receivedDataContainsChar(ch, '\n')) {
                        takeLine();
                        break;
                    }
                    ssh->getReceivedData(ch, received, log);
                    if (received.getSize() > kMaxControlLine) {
                        tooLong = true;
                        break;
                    }
                }
                if (sp.spAbortCheck(log) || n < 0 || sp.m_receivedEof || sp.m_receivedClose) {
                    break;
                }
            }
        }
    }
    if (tooLong) log.LogError("Control line from the server is too long.");
    bool appended = line.append(received.getData2(), received.getSize());
    return complete && appended;
}

bool ClsScp::waitForGo(DataBuffer& buf, OutputDataBuffer& out, unsigned channel, SocketParams& sp,
                       LogBase& log) {
    return readAck(buf, out, channel, Framing::AllReceived, sp, log);
}

bool ClsScp::readAck(DataBuffer& buf, OutputDataBuffer& out, unsigned channel, Framing framing,
                     SocketParams& sp, LogBase& log) {
    if (!ssh) return false;
    int ch = static_cast<int>(channel);
    out.resetOutput(log);
    bool ok;
    {
        QuietLog quiet(log);
        ok = ssh->channelReadNToOutput(ch, 1, out, sp, log);
    }
    if (!ok || buf.getSize() != 1) {
        log.LogError("Failed to read SCP ready-to-receive response.");
        buf.clear();
        return false;
    }
    unsigned char status = buf.firstByte();
    if (log.m_verboseLogging) log.LogDataLong("statusByte", status);

    if (isTextByte(status)) {
        // A shell or usage message instead of an acknowledgement.
        if (ssh->channelRead(ch, sp, log) >= 1) {
            DataBuffer rest;
            ssh->getReceivedData(ch, rest, log);
            StringBuffer message;
            message.appendChar(static_cast<char>(status));
            message.append(rest.getData2(), rest.getSize());
            log.LogDataSb("serverMessage", message);
        }
    }
    buf.clear();

    if (status == 0) return true;
    if (status == 1) {
        log.LogError("Reading the SCP error message...");
        StringBuffer text;
        readLine(channel, text, framing, sp, log);
        text.trim2();
        log.LogDataSb("scpError", text);
        if (text.containsSubstring("set times:")) {
            log.LogInfo("Ignoring error that date/time could not be set...");
            return true;
        }
        return false;
    }
    // 2 (fatal) and anything else: the text, if any, is not read.
    log.LogError("Received unexpected byte for SCP ready-to-receive.");
    log.LogDataLong("statusByte", status);
    return false;
}

}  // namespace scpkit
