// What the SSH integration tests share: the loopback sshd (or a skip) and
// the output of a command run on a channel of its own.
#pragma once

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

}  // namespace scpkit::test
