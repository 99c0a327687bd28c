// The primitive channel calls under ClsSsh. The libssh transport is the
// real one; tests plug in a local-process transport and a scripted peer.
#pragma once

#include <cstddef>

namespace scpkit {

class DataBuffer;
class LogBase;

class SshTransport {
public:
    virtual ~SshTransport() = default;

    virtual bool isConnected() = 0;
    // Writes a description of the server (banner, key type, ciphers) to the log.
    virtual void describeServer(LogBase& log) = 0;

    // Opens a session channel; its id (>= 0), or -1 on failure.
    virtual int openChannel(LogBase& log) = 0;
    // True when the peer accepted the variable.
    virtual bool setEnv(int ch, const char* name, const char* value, LogBase& log) = 0;
    virtual bool exec(int ch, const char* command, LogBase& log) = 0;

    // Sends up to numBytes, waiting at most timeoutMs for the peer's window.
    // Returns the count sent (> 0), 0 when nothing could be sent in time,
    // negative on error.
    virtual long write(int ch, const unsigned char* data, size_t numBytes, int timeoutMs,
                       LogBase& log) = 0;
    // Waits at most timeoutMs for data-stream bytes and reads up to cap of
    // them into buf. Error-stream bytes that arrived meanwhile are appended
    // to stderrOut. Returns the count read (> 0), 0 when none arrived (time
    // out, or the peer's EOF: see receivedEof), negative on error.
    virtual long read(int ch, unsigned char* buf, size_t cap, DataBuffer& stderrOut,
                      int timeoutMs, LogBase& log) = 0;

    virtual bool sendEof(int ch, LogBase& log) = 0;
    virtual bool sendClose(int ch, LogBase& log) = 0;
    virtual bool receivedEof(int ch) = 0;
    virtual bool receivedClose(int ch) = 0;
    // Frees what the transport holds for the channel (closing it if needed).
    virtual void releaseChannel(int ch) = 0;
};

}  // namespace scpkit
