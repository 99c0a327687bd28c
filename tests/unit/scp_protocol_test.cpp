// The SCP exchange against a scripted peer: acknowledgements, control-line
// parsing, the status byte after file data, the exact bytes of uploads and
// downloads, remote command lines and environment requests.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/ClsBinData.h"
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

using test::lastErrorText;
using test::renderedLog;
using A = ClsScpTestAccess;

const std::string kZero(1, '\0');

// A component bound to an SSH object whose peer is scripted. Stall timeouts
// are short so that a peer that stays silent ends a read quickly.
struct Rig {
    std::shared_ptr<test::ScriptedTransport> transport =
        std::make_shared<test::ScriptedTransport>();
    ClsSsh ssh;
    ClsScp scp;

    Rig() {
        ssh.useTransport(transport);
        ssh.put_StallTimeoutMs(300);
        scp.UseSsh(ssh);
    }
    test::ScriptedPeer& peer(int index = 0) { return transport->peer(index); }
    int openChannel(SocketParams& sp, LogBase& log) { return ssh.openSessionChannel(sp, log); }
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

void expectAll(const std::string& log, const std::vector<std::string>& present,
               const std::vector<std::string>& absent) {
    for (const auto& p : present) EXPECT_TRUE(contains(log, p)) << "missing: " << p << "\n" << log;
    for (const auto& a : absent)
        EXPECT_FALSE(contains(log, a)) << "unexpected: " << a << "\n" << log;
}

// ---------------------------------------------------------------------------
// Acknowledgements

TEST(ScpProtocol, AcknowledgementRules) {
    struct Row {
        const char* name;
        std::string peerBytes;
        bool ok;
        std::vector<std::string> present;
        std::vector<std::string> absent;
        std::string leftUnread;  // what a following line read must still find
    };
    const Row rows[] = {
        {"ready", kZero, true, {}, {"scpError", "statusByte", "Failed"}, ""},
        {"times not set",
         "\x01scp: /x/f: set times: Operation not permitted\n",
         true,
         {"Reading the SCP error message...",
          "scpError: scp: /x/f: set times: Operation not permitted",
          "Ignoring error that date/time could not be set..."},
         {},
         ""},
        {"remote error",
         "\x01scp: /x: No such file or directory\n",
         false,
         {"Reading the SCP error message...", "scpError: scp: /x: No such file or directory"},
         {"Ignoring error"},
         ""},
        {"fatal byte",
         "\x02scp: fatal\n",
         false,
         {"Received unexpected byte for SCP ready-to-receive.", "statusByte: 2"},
         {"scpError", "Reading the SCP error message..."},
         "scp: fatal\n"},
        {"shell text",
         "bash: scp: command not found\n",
         false,
         {"serverMessage: bash: scp: command not found",
          "Received unexpected byte for SCP ready-to-receive.", "statusByte: 98"},
         {},
         ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Rig rig;
        rig.peer().send(row.peerBytes);
        if (!row.leftUnread.empty()) rig.peer().eof();
        _vqLogger log;
        LogContextExitor top(log, "test");  // a transfer's context, as in real use
        SocketParams sp(nullptr);
        int ch = rig.openChannel(sp, log);
        ASSERT_GE(ch, 0);
        DataBuffer buf;
        OutputDataBuffer out(&buf);
        EXPECT_EQ(A::waitForGo(rig.scp, buf, out, ch, sp, log), row.ok);
        EXPECT_EQ(buf.getSize(), 0u);
        expectAll(renderedLog(log), row.present, row.absent);
        if (!row.leftUnread.empty()) {
            StringBuffer line;
            EXPECT_TRUE(A::readScpResponse(rig.scp, ch, line, sp, log));
            EXPECT_EQ(line.str(), row.leftUnread);
        }
    }
}

TEST(ScpProtocol, AcknowledgementMissingWhenPeerCloses) {
    Rig rig;
    rig.peer().eof().close();
    _vqLogger log;
    SocketParams sp(nullptr);
    int ch = rig.openChannel(sp, log);
    DataBuffer buf;
    OutputDataBuffer out(&buf);
    EXPECT_FALSE(A::waitForGo(rig.scp, buf, out, ch, sp, log));
    expectAll(renderedLog(log), {"Failed to read SCP ready-to-receive response."}, {});
}

// ---------------------------------------------------------------------------
// Reading control lines

TEST(ScpProtocol, ControlLineReads) {
    struct Row {
        const char* name;
        std::string peerBytes;
        bool eof;
        bool ok;
        std::string line;
        std::vector<std::string> present;
    };
    const std::string huge(70 * 1024, 'x');
    const Row rows[] = {
        {"complete", "C0644 3 a\n", false, true, "C0644 3 a\n", {}},
        {"ends without line feed", "C0644 3", true, false, "C0644 3", {}},
        {"unbounded", huge, false, false, huge, {"Control line from the server is too long."}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Rig rig;
        rig.peer().send(row.peerBytes);
        if (row.eof) rig.peer().eof();
        _vqLogger log;
        SocketParams sp(nullptr);
        int ch = rig.openChannel(sp, log);
        StringBuffer line;
        EXPECT_EQ(A::readScpResponse(rig.scp, ch, line, sp, log), row.ok);
        EXPECT_EQ(line.str(), row.line);
        expectAll(renderedLog(log), row.present, {});
    }
}

// ---------------------------------------------------------------------------
// Parsing headers

TEST(ScpProtocol, HeaderParsing) {
    struct Row {
        const char* name;
        std::string first;   // sent at once
        std::string second;  // sent after the client's next byte (after a T line)
        bool verbose;
        bool ok;
        bool isDir, isEnd, haveTimes;
        uint32_t perms;
        int64_t size;
        std::string filename;
        uint32_t mtime, atime;
        std::string written;
        std::vector<std::string> present;
        std::vector<std::string> absent;
    };
    const Row rows[] = {
        {"name with blanks",
         "C0644 12 my file.txt\n",
         "",
         false,
         true,
         false,
         false,
         false,
         0644,
         12,
         "my file.txt",
         0,
         0,
         "",
         {},
         {}},
        {"directory",
         "D0755 0 docs\n",
         "",
         true,
         true,
         true,
         false,
         false,
         0755,
         0,
         "docs",
         0,
         0,
         "",
         {"remoteDir: docs"},
         {"fileSize"}},
        {"end of directory",
         "E\n",
         "",
         false,
         true,
         false,
         true,
         false,
         0644,
         0,
         "",
         0,
         0,
         "",
         {},
         {}},
        {"no first blank",
         "C0644\n",
         "",
         false,
         false,
         false,
         false,
         false,
         0644,
         0,
         "",
         0,
         0,
         "",
         {"Error parsing response line (1)"},
         {}},
        {"no second blank",
         "C0644 12\n",
         "",
         false,
         false,
         false,
         false,
         false,
         0644,
         0,
         "",
         0,
         0,
         "",
         {"Error parsing response line (2)"},
         {"(1)"}},
        {"times then file",
         "T1700000000 0 1700000001 0\n",
         "C0600 5 a\n",
         true,
         true,
         false,
         false,
         true,
         0600,
         5,
         "a",
         1700000000u,
         1700000001u,
         kZero,
         {"fileInfo_responseLine: T1700000000 0 1700000001 0", "T_responseLine: C0600 5 a",
          "Sending 0 ready/continue byte..", "LastMod and LastAcc times parsed OK.", "fileSize: 5",
          "remoteFilename: a"},
         {}},
        {"bad times line",
         "T17000 x\n",
         "C0644 3 b\n",
         false,
         true,
         false,
         false,
         false,
         0644,
         3,
         "b",
         0,
         0,
         kZero,
         {"Failed to parse last-mod/last-access date/times"},
         {}},
        {"remote error",
         "\x01scp: /nope: No such file or directory\n",
         "",
         true,
         false,
         false,
         false,
         false,
         0644,
         0,
         "",
         0,
         0,
         "",
         {"errorResponse: scp: /nope: No such file or directory",
          "fileInfo_responseLine: scp: /nope"},
         {"Unrecognized response"}},
        {"fatal byte",
         "\x02"
         "boom\n",
         "",
         false,
         false,
         false,
         false,
         false,
         0644,
         0,
         "",
         0,
         0,
         "",
         {"Unrecognized response",
          "Err_responseLine: \x02"
          "boom"},
         {"errorResponse"}},
        {"unknown letter",
         "Xhello\n",
         "",
         false,
         false,
         false,
         false,
         false,
         0644,
         0,
         "",
         0,
         0,
         "",
         {"Unrecognized response", "Err_responseLine: Xhello"},
         {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Rig rig;
        rig.peer().send(row.first);
        if (!row.second.empty()) rig.peer().awaitBytes(1).send(row.second);
        _vqLogger log;
        log.m_verboseLogging = row.verbose;
        SocketParams sp(nullptr);
        int ch = rig.openChannel(sp, log);
        ScpFileInfo info;
        info.permissions = 0777;  // reset by the read
        info.fileSize = 99;
        EXPECT_EQ(A::receiveFileInfo(rig.scp, ch, info, sp, log), row.ok);
        std::string text = renderedLog(log);
        expectAll(text, row.present, row.absent);
        EXPECT_EQ(rig.peer().written, row.written);
        EXPECT_EQ(log.m_verboseLogging, row.verbose);  // restored after the quiet reads
        if (!row.ok) continue;
        EXPECT_EQ(info.isDirectory, row.isDir);
        EXPECT_EQ(info.isEndOfDir, row.isEnd);
        EXPECT_EQ(info.haveTimes, row.haveTimes);
        EXPECT_EQ(info.permissions, row.perms);
        EXPECT_EQ(info.fileSize, row.size);
        EXPECT_EQ(info.filename.str(), row.filename);
        if (row.haveTimes) {
            EXPECT_EQ(info.lastModTime.toUnixTime32(), row.mtime);
            EXPECT_EQ(info.lastAccTime.toUnixTime32(), row.atime);
        }
    }
}

TEST(ScpProtocol, HeaderReadFailsWhenPeerEnds) {
    Rig rig;
    rig.peer().eof().close();
    _vqLogger log;
    SocketParams sp(nullptr);
    int ch = rig.openChannel(sp, log);
    ScpFileInfo info;
    EXPECT_FALSE(A::receiveFileInfo(rig.scp, ch, info, sp, log));
    expectAll(renderedLog(log), {"sshEof: 1"}, {});
}

// ---------------------------------------------------------------------------
// One file received into memory: data, then the source's status byte

TEST(ScpProtocol, ReceivedDataAndStatusByte) {
    struct Row {
        const char* name;
        std::string header;
        std::string data;  // data and status byte as the source sends them
        bool close;
        bool ok;
        std::string out;
        std::vector<std::string> present;
        std::vector<std::string> absent;
    };
    const Row rows[] = {
        {"three bytes", "C0644 3 abc\n", "abc" + kZero, false, true, "abc", {}, {}},
        {"empty file", "C0644 0 e\n", kZero, false, true, "", {}, {}},
        {"binary data",
         "C0644 4 b\n",
         std::string("\0\n\x01\xff", 4) + kZero,
         false,
         true,
         std::string("\0\n\x01\xff", 4),
         {},
         {}},
        {"empty file without status",
         "C0644 0 e\n",
         "",
         true,
         false,
         "",
         {},
         {"Failed to read final 0 byte.", "Failed to stream"}},
        {"error status after data",
         "C0644 3 abc\n",
         "abc\x01",
         false,
         false,
         "abc",
         {"Unexpected final 0 byte."},
         {}},
        {"short data",
         "C0644 5 abcde\n",
         "ab",
         true,
         false,
         "ab",
         {"Failed to stream file data from SSH server to local file."},
         {}},
        {"negative size",
         "C0644 -5 neg\n",
         kZero,
         false,
         false,
         "",
         {"Failed to stream file data from SSH server to local file."},
         {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Rig rig;
        rig.peer().awaitBytes(1).send(row.header).awaitBytes(1).send(row.data);
        if (row.close) rig.peer().eof().close();
        _vqLogger log;
        ProgressMonitor pm(nullptr, 0, 100, 0);
        SocketParams sp(&pm);
        int ch = rig.openChannel(sp, log);
        DataBuffer received;
        OutputDataBuffer out(&received);
        ScpFileInfo info;
        EXPECT_EQ(A::receiveFile(rig.scp, ch, out, true, info, sp, log), row.ok);
        EXPECT_EQ(
            std::string(reinterpret_cast<const char*>(received.getData2()), received.getSize()),
            row.out);
        EXPECT_EQ(rig.peer().written, kZero + kZero);  // ready, then header acknowledged
        expectAll(renderedLog(log), row.present, row.absent);
        if (row.ok) {
            EXPECT_EQ(pm.total(), info.fileSize);  // progress restarted at the file's size
            EXPECT_EQ(pm.done(), info.fileSize);
        }
    }
}

TEST(ScpProtocol, AbortSendsSevenBytesInTwoWrites) {
    Rig rig;
    _vqLogger log;
    SocketParams sp(nullptr);
    int ch = rig.openChannel(sp, log);
    EXPECT_TRUE(A::abortRemainder(rig.scp, ch, sp, log));
    EXPECT_EQ(rig.peer().writes, (std::vector<std::string>{"\x02", "abort\n"}));
    EXPECT_EQ(rig.peer().written.size(), 7u);
}

// ---------------------------------------------------------------------------
// Uploads: the exact bytes on the wire

// Plays a remote "scp -t" that accepts one file of `dataSize` bytes.
void scriptSink(test::ScriptedPeer& peer, size_t dataSize) {
    peer.send(kZero)
        .awaitWrites(1)  // T line
        .send(kZero)
        .awaitWrites(1)  // C line
        .send(kZero)
        .awaitBytes(dataSize + 1)  // data and the end-of-data byte
        .send(kZero)
        .closeOnClientClose();
}

TEST(ScpProtocol, UploadFileBytesAndModes) {
    struct Row {
        unsigned localMode;
        const char* override;
        const char* modeDigits;
    };
    const Row rows[] = {
        {0755, "", "0755"},
        {04755, "", "0755"},     // setuid never travels
        {0644, "0600", "0600"},  // the override wins over the local mode
        {0640, "4755", "0755"},  // an override's high bits are masked on the wire
    };
    test::ScratchDir dir;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.modeDigits);
        std::string local = dir.file("up.txt");
        ASSERT_TRUE(test::writeWholeFile(local, "hello"));
        ASSERT_EQ(::chmod(local.c_str(), row.localMode), 0);
        struct utimbuf times = {1700000001, 1700000000};  // access, modification
        ASSERT_EQ(::utime(local.c_str(), &times), 0);

        Rig rig;
        XString override(row.override);
        rig.scp.put_UnixPermOverride(override);
        scriptSink(rig.peer(), 5);
        XString localPath(local.c_str()), remote("/up/x.txt");
        EXPECT_TRUE(rig.scp.UploadFile(localPath, remote)) << lastErrorText(rig.scp);
        EXPECT_EQ(rig.peer().execCommand, "scp -t /up/");
        EXPECT_EQ(rig.peer().written, std::string("T1700000000 0 1700000001 0\nC") +
                                          row.modeDigits + " 5 x.txt\nhello" + kZero);
        EXPECT_TRUE(rig.peer().clientSentClose);
        expectAll(lastErrorText(rig.scp),
                  {"UploadFile:", "remoteDir: /up/", "remoteFilename: x.txt",
                   std::string("UnixPermOverride: ") + row.override, "Success."},
                  {"Failed."});
    }
}

TEST(ScpProtocol, UploadBinaryOfNothingAndOfZeros) {
    const std::string payloads[] = {"", std::string("\0\0a\0", 4)};
    for (const std::string& payload : payloads) {
        Rig rig;
        scriptSink(rig.peer(), payload.size());
        XString remote("n.bin");
        DataBuffer bytes;
        bytes.append(payload.data(), payload.size());
        EXPECT_TRUE(rig.scp.UploadBinary(remote, bytes)) << lastErrorText(rig.scp);
        std::string written = rig.peer().written;
        size_t cLine = written.find("\nC0644 ");
        ASSERT_NE(cLine, std::string::npos) << written;
        EXPECT_EQ(written.substr(cLine + 1),
                  "C0644 " + std::to_string(payload.size()) + " n.bin\n" + payload + kZero);
    }
}

TEST(ScpProtocol, UploadStopsAtARefusedAcknowledgement) {
    Rig rig;
    rig.peer().send(kZero).awaitWrites(1).send(kZero).awaitWrites(1).send(
        "\x01scp: /ro/x: Permission denied\n");
    XString remote("/ro/x"), text("abc"), charset("utf-8");
    EXPECT_FALSE(rig.scp.UploadString(remote, text, charset));
    // T and C lines went out; no data follows a refused header.
    EXPECT_EQ(rig.peer().writes.size(), 2u);
    expectAll(lastErrorText(rig.scp), {"scpError: scp: /ro/x: Permission denied", "sendFile:"},
              {"Success."});
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
        {"/data/dir/my f.bin", false, "scp -t /data/dir/", "my f.bin", "/data/dir/"},
        {"/data/dir/my f.bin", true, "scp -t my f.bin", "my f.bin", "/data/dir/"},
        {"dír/ünïcødé.txt", false, "scp -t dír/", "ünïcødé.txt", "dír/"},
    };
    test::ScratchDir dir;
    std::string local = dir.file("four.txt");
    ASSERT_TRUE(test::writeWholeFile(local, "four"));
    ASSERT_EQ(::chmod(local.c_str(), 0644), 0);
    for (bool fromFile : {true, false}) {
        for (const Row& row : rows) {
            SCOPED_TRACE(std::string(fromFile ? "UploadFile " : "UploadString ") + row.remote +
                         (row.filenameOnly ? " FilenameOnly" : ""));
            Rig rig;
            if (row.filenameOnly) {
                XString options("Other,filenameonly");  // the keyword ignores case
                rig.scp.put_UncommonOptions(options);
            }
            scriptSink(rig.peer(), 4);
            XString remote(row.remote);
            bool ok;
            if (fromFile) {
                XString localPath(local.c_str());
                ok = rig.scp.UploadFile(localPath, remote);
            } else {
                XString text("four"), charset("utf-8");
                ok = rig.scp.UploadString(remote, text, charset);
            }
            EXPECT_TRUE(ok) << lastErrorText(rig.scp);
            EXPECT_EQ(rig.peer().execCommand, row.command);
            EXPECT_STREQ(remote.getUtf8(), row.remoteAfter);
            EXPECT_TRUE(contains(rig.peer().written, std::string("\nC0644 4 ") + row.name + "\n"))
                << rig.peer().written;
        }
    }
}

TEST(ScpProtocol, BackslashWarningDoesNotStopTheUpload) {
    Rig rig;
    scriptSink(rig.peer(), 1);
    test::ScratchDir dir;
    std::string local = dir.file("one");
    ASSERT_TRUE(test::writeWholeFile(local, "1"));
    XString localPath(local.c_str()), remote("C:\\dir\\x.txt");
    EXPECT_TRUE(rig.scp.UploadFile(localPath, remote));
    EXPECT_EQ(rig.peer().execCommand, "scp -t .");
    expectAll(lastErrorText(rig.scp),
              {"Warning: Remote directory paths should typically use forward slash characters "
               "and not backslashes."},
              {});
}

TEST(ScpProtocol, UploadFileOfMissingLocalFileOpensNoChannel) {
    Rig rig;
    XString localPath("/nonexistent/dir/file"), remote("/r/x");
    EXPECT_FALSE(rig.scp.UploadFile(localPath, remote));
    EXPECT_EQ(rig.transport->channelsOpened(), 0);
    expectAll(lastErrorText(rig.scp), {"openLocalFile:", "Failed."}, {});
}

// ---------------------------------------------------------------------------
// Downloads on the scripted source

// Plays a remote "scp -pf" sending one file, then whatever `after` holds.
void scriptSource(test::ScriptedPeer& peer, const std::string& times, const std::string& header,
                  const std::string& dataAndStatus, const std::string& after, bool close) {
    peer.awaitBytes(1);
    if (!times.empty()) peer.send(times).awaitBytes(1);
    peer.send(header).awaitBytes(1).send(dataAndStatus);
    if (!after.empty()) peer.awaitBytes(1).send(after);
    if (close) peer.eof().close();
}

TEST(ScpProtocol, DownloadFileAppliesMaskedModeAndTimesAndIgnoresMore) {
    test::ScratchDir dir;
    Rig rig;
    // After the file, a hostile source announces another one.
    scriptSource(rig.peer(), "T1600000000 0 1600000001 0\n", "C4755 5 other-name\n",
                 "hello" + kZero, "C0644 4 evil\nevil" + kZero, true);
    std::string local = dir.file("got.txt");
    XString remote("/r/my file"), localPath(local.c_str());
    EXPECT_TRUE(rig.scp.DownloadFile(remote, localPath)) << lastErrorText(rig.scp);
    EXPECT_EQ(rig.peer().execCommand, "scp -pf \"/r/my file\"");
    EXPECT_EQ(rig.peer().written, kZero + kZero + kZero + kZero);
    EXPECT_EQ(test::readWholeFile(local), "hello");
    EXPECT_EQ(test::fileMode(local), 0755u);
    EXPECT_EQ(test::fileMtime(local), 1600000000);
    EXPECT_FALSE(test::pathExists(dir.file("evil")));
    EXPECT_FALSE(test::pathExists(dir.file("other-name")));
    expectAll(lastErrorText(rig.scp),
              {"DownloadFile:", "remotePath: /r/my file", "localPath: " + local, "Success."}, {});
}

TEST(ScpProtocol, FailedDownloadsLeaveNoLocalFile) {
    struct Row {
        const char* name;
        std::string header;
        std::string data;
        std::string stderrText;
        bool close;
        bool refuseExec;
        std::string written;
        std::vector<std::string> present;
    };
    const Row rows[] = {
        {"missing remote file",
         "\x01scp: /r/x: No such file or directory\n",
         "",
         "scp: /r/x: No such file or directory\n",
         true,
         false,
         kZero,
         {"errorResponse: scp: /r/x: No such file or directory",
          "scp_errors1: scp: /r/x: No such file or directory", "scp_errors2:"}},
        {"bad status byte",
         "C0644 2 x\n",
         "hi\x01",
         "",
         true,
         false,
         kZero + kZero,
         {"Unexpected final 0 byte."}},
        {"no channel close",
         "C0644 2 x\n",
         "hi" + kZero,
         "",
         false,
         false,
         kZero + kZero + kZero,
         {}},
        {"exec refused", "", "", "", false, true, "", {"remotePath: /r/x"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        test::ScratchDir dir;
        Rig rig;
        if (row.refuseExec) {
            rig.peer().refuseExec();
        } else {
            rig.peer().awaitBytes(1).sendStderr(row.stderrText).send(row.header);
            if (!row.data.empty()) rig.peer().awaitBytes(1).send(row.data);
            if (row.close) rig.peer().eof().close();
        }
        std::string local = dir.file("out.bin");
        XString remote("/r/x"), localPath(local.c_str());
        EXPECT_FALSE(rig.scp.DownloadFile(remote, localPath));
        EXPECT_FALSE(test::pathExists(local));
        EXPECT_EQ(rig.peer().written, row.written);
        std::string log = lastErrorText(rig.scp);
        expectAll(log, row.present, {"Success."});
        EXPECT_TRUE(contains(log, "Failed.")) << log;
    }
}

TEST(ScpProtocol, DownloadToMissingDirectoryFailsBeforeAnyChannel) {
    Rig rig;
    XString remote("/r/x"), localPath("/nonexistent-dir/sub/out.bin");
    EXPECT_FALSE(rig.scp.DownloadFile(remote, localPath));
    EXPECT_EQ(rig.transport->channelsOpened(), 0);
}

TEST(ScpProtocol, MemoryDownloadsReplaceOrAppend) {
    Rig rig;
    scriptSource(rig.peer(0), "", "C0644 3 a\n", "new" + kZero, "", true);
    scriptSource(rig.peer(1), "", "C0644 3 a\n", "new" + kZero, "", true);
    XString remote("a");
    DataBuffer bytes;
    bytes.appendStr("old");
    EXPECT_TRUE(rig.scp.DownloadBinary(remote, bytes));
    EXPECT_TRUE(bytes.equals("new", 3));
    ClsBinData bd;
    bd.getDataBuffer().appendStr("old");
    EXPECT_TRUE(rig.scp.DownloadBd(remote, bd));
    EXPECT_TRUE(bd.getDataBuffer().equals("oldnew", 6));
    expectAll(lastErrorText(rig.scp), {"DownloadBd:", "downloadData:", "remotePath: a"}, {});
}

TEST(ScpProtocol, MemoryDownloadOfMissingFileSendsNoFinalByte) {
    Rig rig;
    rig.peer().awaitBytes(1).send("\x01scp: b: No such file or directory\n").eof().close();
    XString remote("b"), charset("utf-8"), out("unchanged");
    EXPECT_FALSE(rig.scp.DownloadString(remote, charset, out));
    EXPECT_STREQ(out.getUtf8(), "unchanged");
    EXPECT_EQ(rig.peer().written, kZero);
    expectAll(lastErrorText(rig.scp),
              {"errorResponse: scp: b: No such file or directory", "receiveFile returned failure."},
              {"Success."});
}

// ---------------------------------------------------------------------------
// Environment requests

TEST(ScpProtocol, EnvironmentRequests) {
    using Env = std::vector<std::pair<std::string, std::string>>;
    struct Row {
        const char* name;
        const char* sendEnv;
        const char* refuse;
        bool ok;
        Env requests;
        bool contextLogged;
    };
    const Row rows[] = {
        {"empty", "", "", true, {}, false},
        {"blank name skipped", "{\"LANG\":\"C\",\"   \":\"x\"}", "", true, {{"LANG", "C"}}, true},
        {"not JSON", "LANG=C", "", true, {}, true},
        {"name trimmed, value not",
         "{\" LC_ALL \":\" x y \"}",
         "",
         true,
         {{"LC_ALL", " x y "}},
         true},
        {"refusal stops",
         "{\"A\":\"1\",\"B\":\"2\",\"C\":\"3\"}",
         "B",
         false,
         {{"A", "1"}, {"B", "2"}},
         true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Rig rig;
        if (*row.refuse) rig.peer().refuseEnv(row.refuse);
        XString env(row.sendEnv);
        rig.scp.put_SendEnv(env);
        _vqLogger log;
        SocketParams sp(nullptr);
        LogContextExitor top(log, "test");
        int ch = rig.openChannel(sp, log);
        EXPECT_EQ(A::setEnvironmentVars(rig.scp, ch, sp, log), row.ok);
        EXPECT_EQ(rig.peer().envRequests, row.requests);
        EXPECT_EQ(contains(renderedLog(log), "setEnvironmentVars:"), row.contextLogged);
    }
}

TEST(ScpProtocol, RefusedEnvironmentStopsTheTransferBeforeTheCommand) {
    Rig rig;
    rig.peer().refuseEnv("LANG");
    XString env("{\"LANG\":\"C\"}");
    rig.scp.put_SendEnv(env);
    XString remote("x"), text("t"), charset("utf-8");
    EXPECT_FALSE(rig.scp.UploadString(remote, text, charset));
    EXPECT_EQ(rig.peer().execCommand, "");
    EXPECT_TRUE(contains(lastErrorText(rig.scp), "Failed."));
}

}  // namespace
}  // namespace scpkit
