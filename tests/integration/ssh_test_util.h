// What the SSH integration tests share: the loopback sshd (or a skip) and
// the output of a command run on a channel of its own.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/SshdFixture.h"
#include "tests/support/TestKit.h"

#define REQUIRE_SSHD(sshd)                     \
    SshdFixture& sshd = SshdFixture::shared(); \
    if (!sshd.ok()) GTEST_SKIP() << "no test sshd: " << sshd.error()

namespace scpkit::test {

inline std::string text(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

// Runs the command on a new channel (or waits on channel `ch`, which runs
// one already) until the server closes it; its standard output, or
// "<failed>" and the log.
inline std::string execOutput(ClsSsh& ssh, const std::string& command, int ch = -1) {
    _vqLogger log;
    SocketParams sp(nullptr);
    SshReadParams rp;
    XString cmd(command.c_str());
    DataBuffer out;
    bool ok = ch >= 0 ||
              ((ch = ssh.openSessionChannel(sp, log)) >= 0 && ssh.sendReqExec(ch, cmd, sp, log));
    if (!ok || !ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log))
        return "<failed> " + renderedLog(log);
    ssh.getReceivedData(ch, out, log);
    return text(out);
}

// Connects with the known_hosts file and the policy (a short timeout).
inline bool connect(ClsSsh& ssh, const std::string& host, int port, const std::string& knownHosts,
                    const char* policy = "yes", const char* ciphers = "") {
    XString kh(knownHosts.c_str()), pol(policy), ciph(ciphers), h(host.c_str());
    ssh.put_KnownHostsPath(kh);
    ssh.put_StrictHostKeyChecking(pol);
    ssh.put_Ciphers(ciph);
    ssh.put_ConnectTimeoutMs(1000);
    return ssh.Connect(h, port);
}

// Sets (or, given nothing, removes) an environment variable until scope exit.
struct ScopedEnv {
    std::string name;
    std::optional<std::string> old;
    ScopedEnv(const char* n, const std::optional<std::string>& value) : name(n) {
        if (const char* o = getenv(n)) old = o;
        value ? setenv(n, value->c_str(), 1) : unsetenv(n);
    }
    ~ScopedEnv() { old ? setenv(name.c_str(), old->c_str(), 1) : unsetenv(name.c_str()); }
};

}  // namespace scpkit::test
