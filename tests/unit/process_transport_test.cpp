// The local-process transport that other tests run a real or fake remote
// scp on: the command runs in the work directory with the requested
// environment, its error stream stays apart, EOF comes when its stdout
// closes and CLOSE once it has exited, and children still running when the
// transport goes are killed.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/ProcessTransport.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

TEST(ProcessTransport, ChildGetsItsDirectoryAndEnvironmentAndEofComesBeforeClose) {
    ScratchDir dir("scpkit-proc");
    ClsSsh ssh;
    ssh.useTransport(std::make_shared<ProcessTransport>(dir.path()));
    _vqLogger log;
    SocketParams sp(nullptr);
    int ch = ssh.openSessionChannel(sp, log);
    XString name("SCPKIT_TEST_VAR"), value("two words");
    XString cmd("printf '%s|' \"$SCPKIT_TEST_VAR\"; pwd -P; exec >&-; sleep 0.3; echo err >&2");
    ASSERT_TRUE(ssh.sendReqSetEnv(ch, name, value, sp, log) && ssh.sendReqExec(ch, cmd, sp, log));
    for (int n = 1; n > 0;) n = ssh.channelRead(ch, sp, log);
    EXPECT_TRUE(sp.m_receivedEof && !sp.m_receivedClose);  // the child holds its error stream
    SshReadParams rp;
    ASSERT_TRUE(ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log)) << renderedLog(log);
    DataBuffer out;
    ssh.getReceivedData(ch, out, log);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.getData2()), out.getSize()),
              "two words|" + std::filesystem::canonical(dir.path()).string() + "\n");
    XString err;
    ssh.getReceivedStderrText(ch, "utf-8", err, log);
    EXPECT_STREQ(err.getUtf8(), "err\n");
}

TEST(ProcessTransport, ChildrenStillRunningAreKilledAndReaped) {
    pid_t pid = -1;
    {
        ProcessTransport t;
        LogNull log;
        int ch = t.openChannel(log);
        ASSERT_TRUE(t.exec(ch, "echo $$; exec sleep 30", log));
        unsigned char buf[64] = {};
        DataBuffer err;
        ASSERT_GT(t.read(ch, buf, sizeof buf - 1, err, 5000, log), 0);
        pid = static_cast<pid_t>(std::atol(reinterpret_cast<char*>(buf)));
        ASSERT_EQ(::kill(pid, 0), 0);  // running
    }
    EXPECT_EQ(::kill(pid, 0), -1);  // gone and reaped, not left a zombie
}

}  // namespace
}  // namespace scpkit::test
