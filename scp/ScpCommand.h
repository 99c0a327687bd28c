// Remote scp command lines and the closing of a finished command channel.
#pragma once

namespace scpkit {

class ClsSsh;
class LogBase;
class SocketParams;
class XString;

// Tells the SSH object, when the transfer's scope ends, that the transfer is
// done with its channel (whatever the outcome), so that the channel may be
// reclaimed; a channel still in use is never taken from its transfer.
class ChannelFinisher {
  public:
    ChannelFinisher(ClsSsh* ssh, int channel) : m_ssh(ssh), m_channel(channel) {}
    ~ChannelFinisher();
    ChannelFinisher(const ChannelFinisher&) = delete;
    ChannelFinisher& operator=(const ChannelFinisher&) = delete;

  private:
    ClsSsh* m_ssh;
    int m_channel;
};

// prefix + argument, the argument enclosed in double quotes when `quote`
// is true (nothing inside it is escaped).
void buildScpCommand(const char* prefix, const XString& argument, bool quote, XString& command);

// Splits an upload's remote path in place: `filename` receives the final
// name part and the path keeps its directory part with the trailing
// separator ("." when nothing remains; unchanged when the path ends with '/').
void splitRemoteFilePath(XString& remotePath, XString& filename);

// True when the text contains a blank (0x20), the one character that makes
// a command argument quoted.
bool containsBlank(const XString& text);

// The closing used after a tree exchange: logs "receivedEof" and
// "receivedClose"; when the peer has not closed, sends CLOSE and waits for
// the peer's. The outcome does not change the operation's result.
void finishTreeChannel(ClsSsh& ssh, int channel, SocketParams& sp, LogBase& log);

// Waits for the peer's CLOSE unless it has already arrived ("Already
// received the channel CLOSE message." is logged then). False when the
// wait fails.
bool awaitChannelClose(ClsSsh& ssh, int channel, SocketParams& sp, LogBase& log);

// Logs the remote's error-stream text received so far under `tag`, when
// there is any.
void logRemoteStderr(ClsSsh& ssh, int channel, const char* tag, LogBase& log);

}  // namespace scpkit
