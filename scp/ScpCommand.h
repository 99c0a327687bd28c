// The channel of one remote scp, the closings the transfers share, and the
// split of an upload's remote path.
#pragma once

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Output.h>
#include <scpkit/scp/ClsScp.h>

namespace scpkit {

class ClsSsh;
class LogBase;
class SocketParams;
class XString;

// The channel a call runs its remote scp on. When the call's scope ends the
// SSH object is told that the call is done with it (whatever the outcome),
// so that it may be reclaimed; a channel still in use is never taken.
class ClsScp::ScpChannel {
  public:
    explicit ScpChannel(ClsSsh* ssh) : m_ssh(ssh) {}
    ~ScpChannel();
    ScpChannel(const ScpChannel&) = delete;
    ScpChannel& operator=(const ScpChannel&) = delete;

    int id() const { return m_id; }
    unsigned number() const { return static_cast<unsigned>(m_id); }
    ClsSsh& ssh() const { return *m_ssh; }

  private:
    friend class ClsScp;
    ClsSsh* m_ssh;
    int m_id = -1;
};

// The answers a remote sink still owes, read in order. A sink that cannot
// make a directory stays where it was, so after a "D" nothing more goes out
// until its answer has been read.
struct ClsScp::PendingAcks {
    explicit PendingAcks(int initiallyOwed) : owed(initiallyOwed) {}
    int owed;
    bool drainFirst = false;
    DataBuffer buf;
    OutputDataBuffer out{&buf};
};

// Splits an upload's remote path in place: `filename` receives the final
// name part and the path keeps its directory part with the trailing
// separator ("." when nothing remains; unchanged when the path ends with '/').
void splitRemoteFilePath(XString& remotePath, XString& filename);

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
