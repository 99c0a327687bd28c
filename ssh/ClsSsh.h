// An SSH client connection: connects, authenticates, verifies the host key,
// and offers the session-channel operations that file transfers drive.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/VostrelObject.h>
#include <scpkit/base/XString.h>
#include <scpkit/ssh/SshReadParams.h>

namespace scpkit {

class ChannelTable;
class LibsshTransport;
class SshChannel;
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
    void get_Ciphers(XString& ciphers);
    // The user name in effect after Connect (from ~/.ssh/config when used).
    void get_ConfigUser(XString& user);

    // Replaces the connection's transport (tests plug in their own).
    void useTransport(std::shared_ptr<SshTransport> transport);

    // ---- channel operations driven by file transfers ----
    // Any thread may run them; threads on different channels of one
    // connection wait at the same time, each for its own channel.
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
    // the channel is closed and freed. Channels not yet marked belong to a
    // running transfer and are never taken from it.
    void channelFinished(int channel);

    // The most a bulk send reads from its source at a time.
    static constexpr size_t kChunkSize = 256 * 1024;

  private:
    bool connectTo(const std::string& host, int port);
    // Sends every byte, waiting for the peer's window as needed.
    bool writeAll(int channel, const unsigned char* data, size_t numBytes, SocketParams& sp,
                  LogBase& log);
    // What Connect learned: the server key's fingerprint, the user in effect.
    void setConnectionFacts(const char* serverKeySha256, const char* configUser);
    bool readIntoOutput(SshChannel& ch, long long numBytes, _vqOutput& out, SocketParams& sp,
                        LogBase& log);

    std::unique_ptr<ChannelTable> m_table;
    // The connection Connect made, for logging in; null with a test transport.
    // Changed and used under m_critSec.
    std::shared_ptr<LibsshTransport> m_session;

    // Property values: read and written under m_propertyLock only, held just
    // long enough to copy a value in or out (ClsSshProperties.cpp).
    std::mutex m_propertyLock;
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
