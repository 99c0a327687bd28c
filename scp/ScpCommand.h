// Remote scp command lines and the closing of a finished command channel.
#pragma once

namespace scpkit {

class ClsSsh;
class LogBase;
class SocketParams;
class XString;

// prefix + argument, the argument enclosed in double quotes when `quote`
// is true (nothing inside it is escaped).
void buildScpCommand(const char* prefix, const XString& argument, bool quote, XString& command);

// True when the text contains a blank (0x20), the one character that makes
// a command argument quoted.
bool containsBlank(const XString& text);

// The closing used after a tree exchange: logs "receivedEof" and
// "receivedClose"; when the peer has not closed, sends CLOSE and waits for
// the peer's. The outcome does not change the operation's result.
void finishTreeChannel(ClsSsh& ssh, int channel, SocketParams& sp, LogBase& log);

}  // namespace scpkit
