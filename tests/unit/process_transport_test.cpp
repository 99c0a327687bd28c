// ClsSsh's channel operations over local child processes: real pipes, real
// programs, EOF when stdout closes, CLOSE when the child has gone.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <string>

#include "base/DataSource.h"
#include "base/Logger.h"
#include "base/Output.h"
#include "base/Progress.h"
#include "ssh/ClsSsh.h"
#include "tests/support/ProcessTransport.h"

namespace scpkit::test {
namespace {

std::string str(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

class ProcessChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/scpkit-proc-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir = tmpl;
        transport = std::make_shared<ProcessTransport>(dir);
        ssh = ClsSsh::createNewCls();
        ssh->useTransport(transport);
        ssh->put_StallTimeoutMs(10000);
    }
    void TearDown() override {
        ssh->decRefCount();
        transport.reset();
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }

    // Opens a channel, applies the variables and runs the command.
    int run(const char* command,
            std::initializer_list<std::pair<const char*, const char*>> env = {}) {
        int ch = ssh->openSessionChannel(sp, log);
        EXPECT_GE(ch, 0);
        for (auto& kv : env) {
            XString name(kv.first), value(kv.second);
            EXPECT_TRUE(ssh->sendReqSetEnv(ch, name, value, sp, log));
        }
        XString cmd(command);
        EXPECT_TRUE(ssh->sendReqExec(ch, cmd, sp, log));
        return ch;
    }
    bool waitClose(int ch) {
        SshReadParams rp;
        return ssh->channelReceiveUntilCondition(ch, 1, rp, sp, log);
    }
    std::string received(int ch) {
        DataBuffer db;
        ssh->getReceivedData(ch, db, log);
        return str(db);
    }
    std::string stderrText(int ch) {
        XString text;
        ssh->getReceivedStderrText(ch, "utf-8", text, log);
        return text.getUtf8();
    }
    std::string logText() {
        std::string s;
        log.renderText(s);
        return s;
    }

    std::string dir;
    std::shared_ptr<ProcessTransport> transport;
    ClsSsh* ssh = nullptr;
    _vqLogger log;
    SocketParams sp{nullptr};
};

TEST_F(ProcessChannelTest, TenMebibytesRoundTripThroughCatByteForByte) {
    const size_t size = 10 * 1024 * 1024 + 123;
    DataBuffer original;
    original.reserve(size);
    unsigned x = 42;
    for (size_t i = 0; i < size; ++i) {
        x = x * 1664525u + 1013904223u;
        original.appendChar(static_cast<char>(x >> 24));
    }

    // Up: cat writes what the channel sends into a file.
    int up = run("cat > data.bin");
    {
        DataBuffer copy;
        copy.append(original);
        _vqMemoryDataSource source;
        source.takeDataBuffer(copy);
        ASSERT_TRUE(ssh->channelSendNFromSource(up, source, static_cast<long long>(size), sp, log))
            << logText();
    }
    ASSERT_TRUE(ssh->channelSendClose(up, sp, log));
    ASSERT_TRUE(waitClose(up)) << logText();
    EXPECT_EQ(transport->lastCommand(), "cat > data.bin");

    // Down: cat sends the file back, read as exactly its size plus one line.
    int down = run("cat data.bin; echo done");
    DataBuffer back;
    OutputDataBuffer out(&back);
    ASSERT_TRUE(ssh->channelReadNToOutput(down, static_cast<long long>(size), out, sp, log))
        << logText();
    EXPECT_EQ(back.getSize(), size);
    EXPECT_TRUE(back.equals(original.getData2(), original.getSize()));
    ASSERT_TRUE(waitClose(down));
    EXPECT_EQ(received(down), "done\n");
    EXPECT_TRUE(sp.m_receivedEof);
}

TEST_F(ProcessChannelTest, ErrorStreamStaysApartAndEofAndCloseFollowTheChild) {
    // stdout closes first; the child lingers a little before it exits.
    int ch = run("printf out; echo err >&2; exec >&-; sleep 0.3; echo late >&2");
    int total = 0, n;
    while ((n = ssh->channelRead(ch, sp, log)) > 0) total += n;
    EXPECT_EQ(n, 0);
    EXPECT_EQ(total, 3);
    EXPECT_TRUE(sp.m_receivedEof);
    EXPECT_FALSE(sp.m_receivedClose);  // the child still holds its error stream
    EXPECT_TRUE(ssh->channelReceivedEof(ch, log));
    EXPECT_FALSE(ssh->channelReceivedClose(ch, log));
    ASSERT_TRUE(waitClose(ch)) << logText();
    EXPECT_TRUE(ssh->channelReceivedClose(ch, log));
    EXPECT_EQ(received(ch), "out");
    EXPECT_EQ(stderrText(ch), "err\nlate\n");
}

TEST_F(ProcessChannelTest, EnvironmentRequestsReachTheChild) {
    int ch = run("printf '%s|%s' \"$SCPKIT_TEST_VAR\" \"$LANG\"",
                 {{"SCPKIT_TEST_VAR", "two words"}, {"LANG", "C"}});
    ASSERT_TRUE(waitClose(ch));
    EXPECT_EQ(received(ch), "two words|C");

    int pwd = run("pwd -P");
    ASSERT_TRUE(waitClose(pwd));
    char real[4096];
    ASSERT_NE(::realpath(dir.c_str(), real), nullptr);
    EXPECT_EQ(received(pwd), std::string(real) + "\n");
}

TEST_F(ProcessChannelTest, WriteToAChildThatNeverReadsStalls) {
    ssh->put_StallTimeoutMs(200);
    int ch = run("sleep 30");
    DataBuffer big;
    big.append(std::string(1024 * 1024, 'a').data(), 1024 * 1024);
    EXPECT_FALSE(ssh->channelSendData(static_cast<unsigned>(ch), big, sp, log));
    EXPECT_NE(logText().find("No data could be sent within the stall timeout."), std::string::npos)
        << logText();
}

TEST(ProcessTransportTest, DestructionKillsAndReapsRunningChildren) {
    LogNull log;
    pid_t pid = -1;
    {
        ProcessTransport t;
        int ch = t.openChannel(log);
        ASSERT_TRUE(t.exec(ch, "echo $$; exec sleep 30", log));
        std::string line;
        unsigned char buf[64];
        DataBuffer err;
        for (int i = 0; i < 50 && line.find('\n') == std::string::npos; ++i) {
            long n = t.read(ch, buf, sizeof buf, err, 100, log);
            ASSERT_GE(n, 0);
            line.append(reinterpret_cast<char*>(buf), static_cast<size_t>(n));
        }
        pid = static_cast<pid_t>(std::stol(line));
        ASSERT_GT(pid, 0);
        ASSERT_EQ(::kill(pid, 0), 0);  // running
        EXPECT_FALSE(t.receivedEof(ch));
        EXPECT_FALSE(t.receivedClose(ch));
    }
    errno = 0;
    EXPECT_EQ(::kill(pid, 0), -1);  // gone and reaped, not left a zombie
    EXPECT_EQ(errno, ESRCH);
}

}  // namespace
}  // namespace scpkit::test
