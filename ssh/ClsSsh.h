// An SSH client connection: connects, authenticates, verifies the host key,
// and offers the session-channel operations that file transfers drive.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/VostrelObject.h>
#include <scpkit/base/XString.h>
#include <scpkit/ssh/SshReadParams.h>

namespace scpkit {

class SshTransport;
class SocketParams;
class _vqDataSource;
class _vqOutput;

class ClsSsh : public ClsBase, public RefCountedObject {
  public:
    // A new object with a reference count of 1 (release with decRefCount);
    // null on allocation failure.
    static ClsSsh* createNewCls();
    ClsSsh();
    ~ClsSsh() override;

    // ---- connecting ----
    bool Connect(XString& hostname, int port);
    void Disconnect();
    bool get_IsConnected();
    bool LoginWithPassword(XString& user, XString& password);
    // OpenSSH or PEM private key file; empty passphrase for none.
    bool LoginWithKeyFile(XString& user, XString& privateKeyPath, XString& passphrase);
    bool LoginWithAgent(XString& user);
    // The agent, then the user's default keys, as ssh does.
    bool LoginAuto(XString& user);

    // Default: ~/.ssh/known_hosts.
    void put_KnownHostsPath(XString& path);
    void get_KnownHostsPath(XString& path);
    // "yes" (default), "accept-new" or "no"; other values are ignored.
    void put_StrictHostKeyChecking(XString& policy);
    void get_StrictHostKeyChecking(XString& policy);
    // "SHA256:" and the unpadded base64 of the server key's SHA-256.
    void get_ServerKeySha256(XString& fingerprint);
    void put_ConnectTimeoutMs(int ms);  // default 30000
    int get_ConnectTimeoutMs();
    // Longest wait without progress in any channel operation; 0 waits forever.
    void put_StallTimeoutMs(int ms);  // default 60000
    int get_StallTimeoutMs();
    // When true, Connect applies ~/.ssh/config for the host.
    void put_UseSshConfig(bool use);
    bool get_UseSshConfig();
    // Preferred ciphers, comma-separated (empty: the library's fast default,
    // AES-GCM first).
    void put_Ciphers(XString& ciphers);
    // The user name in effect after Connect (from ~/.ssh/config when used).
    void get_ConfigUser(XString& user);

    // Replaces the connection's transport (used by tests and by Connect).
    void useTransport(std::shared_ptr<SshTransport> transport);

    // ---- channel operations driven by file transfers ----
    void put_StderrToStdout(bool merge);
    bool get_StderrToStdout();
    void logServerInfo(LogBase& log);
    int openSessionChannel(SocketParams& sp, LogBase& log);
    bool sendReqSetEnv(int channel, XString& name, XString& value, SocketParams& sp, LogBase& log);
    bool sendReqExec(int channel, XString& command, SocketParams& sp, LogBase& log);
    bool channelSendData(unsigned channel, DataBuffer& data, SocketParams& sp, LogBase& log);
    bool channelSendNFromSource(int channel, _vqDataSource& source, long long numBytes,
                                SocketParams& sp, LogBase& log);
    bool channelReadNToOutput(int channel, long long numBytes, _vqOutput& out, SocketParams& sp,
                              LogBase& log);
    // > 0: bytes arrived; 0: none (EOF/CLOSE may have arrived: see sp);
    // < 0: error, abort, or no data within the stall timeout.
    int channelRead(int channel, SocketParams& sp, LogBase& log);
    bool receivedDataContainsChar(int channel, char c);
    void getReceivedData(int channel, DataBuffer& out, LogBase& log);
    // Moves the received bytes up to and including the first `delimiter`
    // into out (appending) and leaves what follows buffered. False, moving
    // nothing, when no delimiter has been received.
    bool getReceivedDataThrough(int channel, char delimiter, DataBuffer& out, LogBase& log);
    void getReceivedStderrText(int channel, const char* charset, XString& out, LogBase& log);
    bool channelReceivedEof(int channel, LogBase& log);
    bool channelReceivedClose(int channel, LogBase& log);
    bool channelSendClose(int channel, SocketParams& sp, LogBase& log);
    // Condition 1: until the channel's CLOSE has been received.
    bool channelReceiveUntilCondition(int channel, unsigned condition, SshReadParams& rp,
                                      SocketParams& sp, LogBase& log);
    // The transfer that opened the channel has ended (whatever its outcome):
    // the channel may now be closed and reclaimed. Channels not yet marked
    // belong to a running transfer.
    void channelFinished(int channel);

    // Size of the chunks moved by the bulk operations.
    static constexpr size_t kChunkSize = 256 * 1024;

  private:
    struct Channel;
    Channel* findChannel(int channel);
    // The channel, or null with "Unknown channel." logged.
    Channel* findChannelLogged(int channel, LogBase& log);
    // Reads once (up to cap bytes into buf, or into the channel's buffer when
    // buf is null) waiting at most the stall timeout, in slices that check
    // abort. Updates the EOF/CLOSE flags of the channel and of sp.
    long readSome(int channel, Channel& ch, unsigned char* buf, size_t cap, int idleTimeoutMs,
                  SocketParams& sp, LogBase& log);
    bool writeAll(int channel, const unsigned char* data, size_t numBytes, SocketParams& sp,
                  LogBase& log);
    // One transport read of at most sliceMs: routes error-stream bytes, and
    // after a read of 0 takes over the transport's EOF/CLOSE state. `moved`
    // tells whether anything at all arrived.
    long pollTransport(int channel, Channel& ch, unsigned char* buf, size_t cap, int sliceMs,
                       bool& moved, LogBase& log);
    unsigned char* scratch();
    // Answers the server's CLOSE on the channels this thread is done with,
    // and frees those closed both ways.
    void releaseFinishedChannels();
    // True when the channel belongs to no running transfer: the calling
    // thread used it last (and is now opening another), or nothing has
    // touched it for a second.
    bool isDoneWith(const Channel& ch) const;
    // Closes the channels no operation has touched for a while (those of
    // transfers that failed) and waits, bounded, for the server to confirm.
    // True when at least one was closed.
    bool reclaimIdleChannels(SocketParams& sp, LogBase& log);

    std::recursive_mutex m_ioMutex;  // serialises use of the transport
    std::shared_ptr<SshTransport> m_transport;
    std::map<int, std::unique_ptr<Channel>> m_channels;
    std::vector<unsigned char> m_scratch;  // kChunkSize bytes once a bulk operation ran

    XString m_knownHostsPath;
    XString m_hostKeyPolicy;
    XString m_serverKeySha256;
    XString m_ciphers;
    XString m_configUser;
    int m_connectTimeoutMs = 30000;
    int m_stallTimeoutMs = 60000;
    bool m_useSshConfig = false;
    bool m_stderrToStdout = false;
};

}  // namespace scpkit
