// The SCP exchange against a scripted peer: acknowledgements, control-line
// parsing, the status byte after file data, the exact bytes of uploads and
// downloads, remote command lines and environment requests.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/DataBuffer.h"
#include "base/Logger.h"
#include "base/Output.h"
#include "base/Progress.h"
#include "scp/ClsScp.h"
#include "scp/ScpFileInfo.h"
#include "ssh/ClsSsh.h"
#include "tests/support/ClsScpTestAccess.h"
#include "tests/support/ScpTestHelpers.h"
#include "tests/support/ScriptedTransport.h"

namespace scpkit {
namespace {

using A = ClsScpTestAccess;
using test::expectLog;
using test::lastErrorText;

const std::string kZero(1, '\0');

// A component bound to an SSH object whose peer is scripted. Stall timeouts
// are short so that a silent peer ends a read quickly. open() starts the
// channel that the private steps run on, inside a context as a transfer does.
struct Rig {
    std::shared_ptr<test::ScriptedTransport> transport =
        std::make_shared<test::ScriptedTransport>();
    ClsSsh ssh;
    ClsScp scp;
    _vqLogger log;
    std::unique_ptr<LogContextExitor> top;
    SocketParams sp{nullptr};
    int ch = -1;

    Rig() {
        ssh.useTransport(transport);
        ssh.put_StallTimeoutMs(300);
        scp.UseSsh(ssh);
    }
    test::ScriptedPeer& peer(int index = 0) { return transport->peer(index); }
    int open() {
        top = std::make_unique<LogContextExitor>(log, "test");
        return ch = ssh.openSessionChannel(sp, log);
    }
    std::string text() { return test::renderedLog(log); }
};

TEST(ScpProtocol, AcknowledgementRules) {
    struct Row {
        std::string peerBytes;
        bool ok;
        const char* logged;
        const char* notLogged;
    };
    const Row rows[] = {
        {kZero, true, "", "statusByte"},
        {"\x01scp: /x/f: set times: Operation not permitted\n", true,
         "scpError: scp: /x/f: set times: Operation not permitted\n"
         "    Ignoring error that date/time could not be set...",
         "Failed"},
        {"\x01scp: /x: No such file or directory\n", false, "Reading the SCP error message...",
         "Ignoring"},
        {"\x02scp: fatal\n", false,
         "Received unexpected byte for SCP ready-to-receive.\n    statusByte: 2", "scpError"},
        {"bash: scp: command not found\n", false, "serverMessage: bash: scp: command not found",
         ""},
        {"", false, "Failed to read SCP ready-to-receive response.", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.logged);
        Rig rig;
        rig.peer().send(row.peerBytes).eof();
        DataBuffer buf;
        OutputDataBuffer out(&buf);
        EXPECT_EQ(A::waitForGo(rig.scp, buf, out, rig.open(), rig.sp, rig.log), row.ok);
        expectLog(rig.text(), {row.logged}, {row.notLogged});
        // The text after a fatal byte is left unread for the caller.
        if (row.peerBytes[0] == '\x02') {
            StringBuffer line;
            EXPECT_TRUE(A::readScpResponse(rig.scp, rig.ch, line, rig.sp, rig.log));
            EXPECT_EQ(line.str(), "scp: fatal\n");
        }
    }
}

TEST(ScpProtocol, ControlLinesEndAtALineFeedAndAreBounded) {
    const std::string huge(70 * 1024, 'x');
    Rig ok, noLf, unbounded;
    ok.peer().send("C0644 3 a\n");
    noLf.peer().send("C0644 3").eof();
    unbounded.peer().send(huge);  // neither a line feed nor an end
    StringBuffer line;
    EXPECT_TRUE(A::readScpResponse(ok.scp, ok.open(), line, ok.sp, ok.log));
    EXPECT_EQ(line.str(), "C0644 3 a\n");
    EXPECT_FALSE(A::readScpResponse(noLf.scp, noLf.open(), line, noLf.sp, noLf.log));
    EXPECT_EQ(line.str(), "C0644 3");
    EXPECT_FALSE(
        A::readScpResponse(unbounded.scp, unbounded.open(), line, unbounded.sp, unbounded.log));
    expectLog(unbounded.text(), {"Control line from the server is too long."});
}

// The record as one line: kind, mode, size, name, and the times when known.
std::string describe(const ScpFileInfo& i) {
    char head[64];
    std::snprintf(head, sizeof head, "%s %04o %lld ",
                  i.isEndOfDir ? "E" : (i.isDirectory ? "D" : "C"), i.permissions,
                  static_cast<long long>(i.fileSize));
    std::string s = head + i.filename.str();
    if (i.haveTimes) {
        s += " @" + std::to_string(i.lastModTime.toUnixTime32()) + "," +
             std::to_string(i.lastAccTime.toUnixTime32());
    }
    return s;
}

TEST(ScpProtocol, HeaderParsing) {
    struct Row {
        std::string first;
        std::string second;  // sent once the client acknowledged a T line
        bool ok;
        const char* record;
        const char* logged;
    };
    const Row rows[] = {
        {"C0644 12 my file.txt\n", "", true, "C 0644 12 my file.txt", "fileSize: 12"},
        {"D0755 0 docs\n", "", true, "D 0755 0 docs", "remoteDir: docs"},
        {"E\n", "", true, "E 0644 0 ", ""},
        {"C0644\n", "", false, "", "Error parsing response line (1)"},
        {"C0644 12\n", "", false, "", "Error parsing response line (2)"},
        {"T1700000000 0 1700000001 0\n", "C0600 5 a\n", true, "C 0600 5 a @1700000000,1700000001",
         "T_responseLine: C0600 5 a"},
        {"T17000 x\n", "C0644 3 b\n", true, "C 0644 3 b",
         "Failed to parse last-mod/last-access date/times"},
        {"\x01scp: /nope: No such file or directory\n", "", false, "",
         "errorResponse: scp: /nope: No such file or directory"},
        {"\x02"
         "boom\n",
         "", false, "", "Unrecognized response\n        Err_responseLine: \x02"},
        {"Xhello\n", "", false, "", "Err_responseLine: Xhello"},
        {"", "", false, "", "sshEof: 1\n        sshChannelClosed: 1"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.first);
        Rig rig;
        rig.peer().send(row.first);
        if (!row.second.empty()) rig.peer().awaitBytes(1).send(row.second);
        if (row.first.empty()) rig.peer().eof().close();
        rig.log.m_verboseLogging = true;
        ScpFileInfo info;
        info.permissions = 0777;  // reset by the read
        EXPECT_EQ(A::receiveFileInfo(rig.scp, rig.open(), info, rig.sp, rig.log), row.ok);
        expectLog(rig.text(), {row.logged});
        if (row.ok) {
            EXPECT_EQ(describe(info), row.record);
        }
        // A T line alone is acknowledged here; a header never is.
        EXPECT_EQ(rig.peer().written, row.second.empty() ? "" : kZero);
        EXPECT_TRUE(rig.log.m_verboseLogging);
    }
}

TEST(ScpProtocol, ReceivedDataAndStatusByte) {
    struct Row {
        std::string header;
        std::string sent;  // data and status byte as the source sends them, then its end
        bool ok;
        std::string received;
        const char* logged;
    };
    const std::string binary("\0\n\x01\xff", 4);
    const Row rows[] = {
        {"C0644 4 b\n", binary + kZero, true, binary, ""},
        {"C0644 0 e\n", kZero, true, "", ""},
        {"C0644 0 e\n", "", false, "", ""},  // no status byte at all
        {"C0644 3 abc\n", "abc\x01", false, "abc", "Unexpected final 0 byte."},
        {"C0644 5 abcde\n", "ab", false, "ab",
         "Failed to stream file data from SSH server to local file."},
        {"C0644 -5 n\n", kZero, false, "", "Failed to stream file data"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.header);
        Rig rig;
        rig.peer().awaitBytes(1).send(row.header).awaitBytes(1).send(row.sent).eof().close();
        ProgressMonitor pm(nullptr, 0, 100, 0);
        rig.sp.m_progressMonitor = &pm;
        DataBuffer got;
        OutputDataBuffer out(&got);
        ScpFileInfo info;
        EXPECT_EQ(A::receiveFile(rig.scp, rig.open(), out, true, info, rig.sp, rig.log), row.ok);
        EXPECT_TRUE(got.equals(row.received.data(), row.received.size()));
        EXPECT_EQ(rig.peer().written, kZero + kZero);  // ready, then the header acknowledged
        expectLog(rig.text(), {row.logged});
        if (row.ok) {
            EXPECT_EQ(pm.done(), info.fileSize);  // counted against the file's size
        }
    }
}

TEST(ScpProtocol, AbortSendsSevenBytesInTwoWrites) {
    Rig rig;
    EXPECT_TRUE(A::abortRemainder(rig.scp, rig.open(), rig.sp, rig.log));
    EXPECT_EQ(rig.peer().writes, (std::vector<std::string>{"\x02", "abort\n"}));
}

// Plays a remote "scp -t" that accepts one file of `size` bytes.
void scriptSink(test::ScriptedPeer& peer, size_t size) {
    peer.send(kZero).awaitWrites(1).send(kZero).awaitWrites(1).send(kZero);
    peer.awaitBytes(size + 1).send(kZero).closeOnClientClose();
}

TEST(ScpProtocol, UploadFileBytesAndModes) {
    struct Row {
        unsigned localMode;
        const char* override;
        const char* mode;
    };
    const Row rows[] = {
        {0755, "", "0755"}, {04755, "", "0755"}, {0644, "0600", "0600"}, {0640, "4755", "0755"}};
    test::ScratchDir dir;
    std::string local = dir.file("up.txt");
    ASSERT_TRUE(test::writeWholeFile(local, "hello"));
    for (const Row& row : rows) {
        SCOPED_TRACE(row.mode);
        ASSERT_EQ(::chmod(local.c_str(), row.localMode), 0);
        struct utimbuf times = {1700000001, 1700000000};  // access, modification
        ASSERT_EQ(::utime(local.c_str(), &times), 0);  // reading the file moves its access time
        Rig rig;
        XString override(row.override), localPath(local.c_str()), remote("/up/x.txt");
        rig.scp.put_UnixPermOverride(override);
        scriptSink(rig.peer(), 5);
        EXPECT_TRUE(rig.scp.UploadFile(localPath, remote)) << lastErrorText(rig.scp);
        EXPECT_EQ(rig.peer().execCommand, "scp -t /up/");
        EXPECT_EQ(rig.peer().written, std::string("T1700000000 0 1700000001 0\nC") + row.mode +
                                          " 5 x.txt\nhello" + kZero);
        EXPECT_TRUE(rig.peer().clientSentClose);
        expectLog(lastErrorText(rig.scp), {"remoteFilename: x.txt", "Success."});
    }
}

// The remote path is split into the directory given to "scp -t" and the
// name carried by the C line, for file and in-memory uploads alike.
TEST(ScpProtocol, RemotePathSplitAndQuoting) {
    struct Row {
        const char* remote;
        bool filenameOnly;
        const char* command;
        const char* name;
        const char* remoteAfter;
    };
    const Row rows[] = {
        {"x.txt", false, "scp -t .", "x.txt", "."},
        {"/tmp/", false, "scp -t /tmp/", "", "/tmp/"},
        {"/data/my dir/f.bin", false, "scp -t \"/data/my dir/\"", "f.bin", "/data/my dir/"},
        {"/data/my dir/f.bin", true, "scp -t \"f.bin\"", "f.bin", "/data/my dir/"},
        {"/data/dir/my f.bin", true, "scp -t my f.bin", "my f.bin", "/data/dir/"},
        {"dír/ünïcødé.txt", false, "scp -t dír/", "ünïcødé.txt", "dír/"},
        {"C:\\dir\\x.txt", false, "scp -t .", "C:\\dir\\x.txt", "."},
    };
    test::ScratchDir dir;
    std::string local = dir.file("four.txt");
    ASSERT_TRUE(test::writeWholeFile(local, "four"));
    ASSERT_EQ(::chmod(local.c_str(), 0644), 0);
    for (bool fromFile : {true, false}) {
        for (const Row& row : rows) {
            SCOPED_TRACE(std::string(fromFile ? "UploadFile " : "UploadString ") + row.remote);
            Rig rig;
            XString options(row.filenameOnly ? "x,filenameonly" : ""), remote(row.remote);
            rig.scp.put_UncommonOptions(options);
            scriptSink(rig.peer(), 4);
            XString localPath(local.c_str()), text("four"), charset("utf-8");
            EXPECT_TRUE(fromFile ? rig.scp.UploadFile(localPath, remote)
                                 : rig.scp.UploadString(remote, text, charset));
            EXPECT_EQ(rig.peer().execCommand, row.command);
            EXPECT_STREQ(remote.getUtf8(), row.remoteAfter);
            expectLog(rig.peer().written, {std::string("\nC0644 4 ") + row.name + "\n"});
        }
    }
}

// Plays a remote "scp -pf" sending one file (a T line, if any, acknowledged
// on its own), then `after`.
void scriptSource(test::ScriptedPeer& peer, const std::string& lines, const std::string& data,
                  const std::string& after) {
    size_t header = lines[0] == 'T' ? lines.find('\n') + 1 : 0;
    peer.awaitBytes(1);
    if (header > 0) peer.send(lines.substr(0, header)).awaitBytes(1);
    peer.send(lines.substr(header)).awaitBytes(1).send(data);
    if (!after.empty()) peer.awaitBytes(1).send(after).eof().close();
}

TEST(ScpProtocol, DownloadAppliesMaskedModeAndTimesAndIgnoresMoreFiles) {
    test::ScratchDir dir;
    Rig rig;
    // After the file a hostile source announces another one.
    scriptSource(rig.peer(), "T1600000000 0 1600000001 0\nC4755 5 other\n", "hello" + kZero,
                 "C0644 4 evil\nevil" + kZero);
    std::string local = dir.file("got.txt");
    XString remote("/r/my file"), localPath(local.c_str());
    EXPECT_TRUE(rig.scp.DownloadFile(remote, localPath)) << lastErrorText(rig.scp);
    EXPECT_EQ(rig.peer().execCommand, "scp -pf \"/r/my file\"");
    EXPECT_EQ(rig.peer().written, kZero + kZero + kZero + kZero);
    EXPECT_EQ(test::readWholeFile(local), "hello");
    EXPECT_EQ(test::fileMode(local), 0755u);
    EXPECT_EQ(test::fileMtime(local), 1600000000);
    EXPECT_EQ(test::countEntries(dir.path()), 1);
}

TEST(ScpProtocol, FailedDownloads) {
    struct Row {
        const char* name;
        std::string lines, data, after;
        std::string written;  // the final 0 byte only after a complete file
        const char* logged;
    };
    const Row rows[] = {
        {"remote error", "\x01scp: /r/x: No such file or directory\n", "", "", kZero,
         "scp_errors1: scp: /r/x: No such file or directory"},
        {"bad status byte", "C0644 2 x\n", "hi\x01", "", kZero + kZero, "Unexpected final 0"},
        {"no channel close", "C0644 2 x\n", "hi" + kZero, "", kZero + kZero + kZero, ""},
    };
    for (bool toFile : {true, false}) {
        for (const Row& row : rows) {
            SCOPED_TRACE(std::string(toFile ? "DownloadFile " : "DownloadString ") + row.name);
            test::ScratchDir dir;
            Rig rig;
            rig.peer().sendStderr(row.lines[0] == 1 ? row.lines.substr(1) : "");
            scriptSource(rig.peer(), row.lines, row.data, row.after);
            if (row.data.empty() || row.data.back() != '\0') rig.peer().eof().close();
            std::string local = dir.file("out.bin");
            XString remote("/r/x"), localPath(local.c_str()), charset("utf-8"), text("kept");
            EXPECT_FALSE(toFile ? rig.scp.DownloadFile(remote, localPath)
                                : rig.scp.DownloadString(remote, charset, text));
            EXPECT_FALSE(test::pathExists(local));
            EXPECT_STREQ(text.getUtf8(), "kept");
            EXPECT_EQ(rig.peer().written, row.written);
            expectLog(lastErrorText(rig.scp), {row.logged, "Failed."}, {"Success."});
        }
    }
}

TEST(ScpProtocol, EnvironmentRequests) {
    using Env = std::vector<std::pair<std::string, std::string>>;
    struct Row {
        const char* sendEnv;
        bool ok;
        Env sent;
    };
    const Row rows[] = {
        {"", true, {}},
        {"{\"LANG\":\"C\",\"   \":\"x\"}", true, {{"LANG", "C"}}},
        {"LANG=C", true, {}},  // not JSON: nothing to send
        {"{\" LC_ALL \":\" x y \"}", true, {{"LC_ALL", " x y "}}},
        {"{\"A\":\"1\",\"REFUSED\":\"2\",\"C\":\"3\"}", false, {{"A", "1"}, {"REFUSED", "2"}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.sendEnv);
        Rig rig;
        rig.peer().refuseEnv("REFUSED");
        XString env(row.sendEnv);
        rig.scp.put_SendEnv(env);
        EXPECT_EQ(A::setEnvironmentVars(rig.scp, rig.open(), rig.sp, rig.log), row.ok);
        EXPECT_EQ(rig.peer().envRequests, row.sent);
        EXPECT_EQ(rig.text().find("setEnvironmentVars:") != std::string::npos, *row.sendEnv != 0);
    }
}

}  // namespace
}  // namespace scpkit
