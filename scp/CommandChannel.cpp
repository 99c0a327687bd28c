// The command channel: environment requests, remote command lines, and the
// closings that the transfers share.
#include <cstring>

#include <scpkit/base/ClsJsonObject.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/FilePath.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/ssh/ClsSsh.h>
#include <scpkit/ssh/SshReadParams.h>

namespace scpkit {

namespace {
constexpr unsigned kUntilChannelClose = 1;
}

bool ClsScp::setEnvironmentVars(int channel, SocketParams& sp, LogBase& log) {
    if (sendEnv.isEmpty()) return true;
    LogContextExitor ctx(log, "setEnvironmentVars");
    if (!ssh) {
        log.LogError("No SSH connection.");
        return false;
    }
    _clsBaseHolder<ClsJsonObject> holder(ClsJsonObject::createNewCls());
    ClsJsonObject* json = holder.get();
    if (!json) return false;

    DataBuffer utf8;
    utf8.append(sendEnv.getUtf8Sb());
    // Text that is not a JSON object leaves no members: nothing is sent.
    json->loadJson(utf8, log);

    int size = json->get_Size();
    for (int i = 0; i < size; ++i) {
        XString name;
        XString value;
        json->NameAt(i, name);
        json->StringAt(i, value);
        name.trim2();
        if (name.isEmpty()) continue;
        if (!ssh->sendReqSetEnv(channel, name, value, sp, log)) return false;
    }
    return true;
}

ClsScp::ScpChannel::~ScpChannel() {
    if (m_ssh && m_id >= 0) m_ssh->channelFinished(m_id);
}

ClsScp::Quoting ClsScp::quotingFor(const XString& text) {
    return text.getUtf8Sb().containsChar(' ') ? Quoting::Quoted : Quoting::Bare;
}

bool ClsScp::openScpChannel(ScpChannel& channel, SocketParams& sp, LogBase& log) {
    channel.m_id = channel.m_ssh->openSessionChannel(sp, log);
    // A refused environment leaves the channel to the SSH object, as does a
    // refused exec.
    if (channel.m_id < 0 || !setEnvironmentVars(channel.m_id, sp, log)) {
        logSuccessFailure(false);
        return false;
    }
    return true;
}

bool ClsScp::execRemoteScp(ScpChannel& channel, const char* prefix, const XString& argument,
                           Quoting quoting, SocketParams& sp, LogBase& log) {
    // Nothing inside the argument is escaped; quotes only keep a blank in it.
    const char* quote = quoting == Quoting::Quoted ? "\"" : "";
    XString command;
    command.setFromUtf8(prefix);
    command.appendUtf8(quote);
    command.appendX(argument);
    command.appendUtf8(quote);
    if (!channel.m_ssh->sendReqExec(channel.m_id, command, sp, log)) {
        logSuccessFailure(false);
        return false;
    }
    return true;
}

bool ClsScp::startRemoteScp(ScpChannel& channel, const char* prefix, const XString& argument,
                            Quoting quoting, SocketParams& sp, LogBase& log) {
    return openScpChannel(channel, sp, log) &&
           execRemoteScp(channel, prefix, argument, quoting, sp, log);
}

void splitRemoteFilePath(XString& remotePath, XString& filename) {
    _vqFilePath::GetFinalFilenamePart(remotePath, filename);
    int n = filename.getNumChars();
    if (n > 0) remotePath.shortenNumChars(n);
    if (remotePath.isEmpty()) remotePath.setFromUtf8(".");
}

bool awaitChannelClose(ClsSsh& ssh, int channel, SocketParams& sp, LogBase& log) {
    if (ssh.channelReceivedClose(channel, log)) {
        log.LogInfo("Already received the channel CLOSE message.");
        return true;
    }
    SshReadParams rp;
    return ssh.channelReceiveUntilCondition(channel, kUntilChannelClose, rp, sp, log);
}

void finishTreeChannel(ClsSsh& ssh, int channel, SocketParams& sp, LogBase& log) {
    bool receivedClose = ssh.channelReceivedClose(channel, log);
    bool receivedEof = ssh.channelReceivedEof(channel, log);
    log.LogDataLong("receivedEof", receivedEof ? 1 : 0);
    log.LogDataLong("receivedClose", receivedClose ? 1 : 0);
    if (receivedClose) return;
    if (ssh.channelSendClose(channel, sp, log)) {
        SshReadParams rp;
        ssh.channelReceiveUntilCondition(channel, kUntilChannelClose, rp, sp, log);
    }
}

void logRemoteStderr(ClsSsh& ssh, int channel, const char* tag, LogBase& log) {
    XString text;
    ssh.getReceivedStderrText(channel, "utf-8", text, log);
    if (!text.isEmpty()) log.LogDataX(tag, text);
}

}  // namespace scpkit
