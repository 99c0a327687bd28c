// The primitive channel calls under ClsSsh. The libssh transport is the
// real one; tests plug in a local-process transport and a scripted peer.
//
// What arrives is pushed: a transport delivers each channel's bytes, EOF and
// CLOSE into the ChannelInbox given when the channel was opened, from inside
// pump() and from any other call that reads the connection meanwhile. Every
// call is thread safe; a transport serialises its own use of the connection.
// Calls into an inbox come with the transport's lock held, so an inbox never
// calls back into its transport.
#pragma once

#include <cstddef>
#include <string>

namespace scpkit {

class LogBase;

class ChannelInbox {
  public:
    virtual ~ChannelInbox() = default;
    // Bytes of the data stream (or of the error stream) and, for the data
    // stream, how many more the transport holds behind them. Returns how many
    // it took; the transport keeps the rest for a later pump() or redeliver().
    virtual size_t onData(const unsigned char* data, size_t numBytes, bool isStderr,
                          size_t heldBehind) = 0;
    // How many data-stream bytes onData would take now.
    virtual size_t freeSpace() = 0;
    virtual void onEof() = 0;
    virtual void onClose() = 0;
    // The peer's window has room again after a write that sent nothing.
    virtual void onWritable() = 0;
};

class SshTransport {
  public:
    virtual ~SshTransport() = default;

    virtual bool isConnected() = 0;
    // Writes a description of the server (banner, key type, ciphers) to the log.
    virtual void describeServer(LogBase& log) = 0;

    // Opens a session channel that delivers into inbox until releaseChannel.
    // Its id (>= 0), or -1 with the reason in lastError().
    virtual int openChannel(ChannelInbox& inbox) = 0;
    // True when the peer accepted the variable.
    virtual bool setEnv(int ch, const char* name, const char* value) = 0;
    virtual bool exec(int ch, const char* command) = 0;
    // Sends as much as the peer's window takes now, without waiting: the
    // count sent, 0 when the window is closed (onWritable follows when it
    // opens), negative on error.
    virtual long write(int ch, const unsigned char* data, size_t numBytes) = 0;
    // Waits at most timeoutMs for traffic and delivers what came. False once
    // the connection is lost.
    virtual bool pump(int timeoutMs) = 0;
    // Makes a pump() that waits in another thread return soon.
    virtual void wakePump() = 0;
    // Offers the channel's inbox the data-stream bytes it declined before.
    virtual void redeliver(int ch) = 0;
    virtual bool sendClose(int ch) = 0;
    // Stops the deliveries to the channel's inbox and frees the channel,
    // sending its CLOSE if that is still due.
    virtual void releaseChannel(int ch) = 0;
    // What the connection said about the last failure ("" when nothing).
    virtual std::string lastError() = 0;
};

}  // namespace scpkit
