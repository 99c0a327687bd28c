// Single transfers against a scripted peer: the exact bytes of uploads with
// and without lines in flight, how every kind of acknowledgement is judged,
// remote command lines and environment requests, and downloads from servers
// that lie or break the protocol.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <string>
#include <utility>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

const std::string kZero(1, '\0');
const std::string kTimes = "T1700000000 0 1700000000 0\n";
// A remote "scp -t" that accepts one file: its ready byte and the answers to
// the T line, the C line and the data, sent at once (a sink answers in
// order, so a client with lines in flight reads them as they come).
const std::string kSinkAccepts(4, '\0');

// Uploads of a 5-byte file: every byte sent, for each mode and each answer
// the sink may give at each step. A failed upload never sends data whose C
// line was not accepted, also when its lines went out together.
TEST(ScpProtocol, UploadBytesModesAndAcknowledgements) {
    const std::string refused = "\x01scp: /up/x.txt: Permission denied\n";
    const struct {
        unsigned localMode;
        const char *override, *mode;
        std::string acks = kSinkAccepts;
        bool ok = true;
        const char* logged = "Success.";
    } rows[] = {
        {0755, "", "0755"},
        {04755, "", "0755"},
        {0644, "0600", "0600"},
        {0640, "4755", "0755"},
        {0644, "", "0644", kZero + kZero + kZero + "\x01scp: /up/x.txt: set times: Not permitted\n",
         true, "Ignoring error that date/time could not be set..."},
        {0644, "", "0644", kZero + kZero + refused, false, "scpError: scp: /up/x.txt: Permission"},
        {0644, "", "0644", kZero + refused, false, "Reading the SCP error message..."},
        {0644, "", "0644", "\x02", false, "statusByte: 2"},
        {0644, "", "0644", "bash: scp: command not found\n", false,
         "serverMessage: bash: scp: command not found"},
        {0644, "", "0644", kZero, false, "Failed to read SCP ready-to-receive response."},
    };
    ScratchDir dir;
    std::string local = dir.file("up.txt");
    ASSERT_TRUE(writeFile(local, "hello"));
    for (const auto& row : rows) {
        for (const char* options : {"", "Pipelined"}) {
            SCOPED_TRACE(row.acks + " " + row.mode + " " + options);
            ASSERT_EQ(::chmod(local.c_str(), row.localMode), 0);
            struct utimbuf times = {1700000001, 1700000000};  // access, modification
            ASSERT_EQ(::utime(local.c_str(), &times), 0);  // reading the file moves its access time
            ScpRig rig({{}, options});
            XString override(row.override), localPath(local.c_str()), remote("/up/x.txt");
            rig.scp.put_UnixPermOverride(override);
            rig.peer().send(row.acks).closeOnClientClose();
            EXPECT_EQ(rig.scp.UploadFile(localPath, remote), row.ok) << rig.log();
            EXPECT_EQ(rig.peer().execCommand, "scp -t /up/");
            const std::string all =
                "T1700000000 0 1700000001 0\nC" + std::string(row.mode) + " 5 x.txt\nhello" + kZero;
            const std::string& sent = rig.peer().written;
            EXPECT_EQ(all.compare(0, sent.size(), sent), 0);
            EXPECT_EQ(sent.size() == all.size(), row.ok);
            EXPECT_EQ(sent.find("hello") != std::string::npos, row.ok) << sent;
            EXPECT_TRUE(rig.peer().clientSentClose || !row.ok);
            expectLog(rig.log(), {"remoteFilename: x.txt", row.logged});
        }
    }
}

// The remote path is split into the directory given to "scp -t" and the
// name carried by the C line, for file and in-memory uploads alike.
TEST(ScpProtocol, RemotePathSplitAndQuoting) {
    const struct {
        const char* remote;
        bool filenameOnly;
        const char *command, *name, *remoteAfter;
    } rows[] = {
        {"x.txt", false, "scp -t .", "x.txt", "."},
        {"/tmp/", false, "scp -t /tmp/", "", "/tmp/"},
        {"/data/my dir/f.bin", false, "scp -t \"/data/my dir/\"", "f.bin", "/data/my dir/"},
        {"/data/my dir/f.bin", true, "scp -t \"f.bin\"", "f.bin", "/data/my dir/"},
        {"/data/dir/my f.bin", true, "scp -t my f.bin", "my f.bin", "/data/dir/"},
        {"dír/ünïcødé.txt", false, "scp -t dír/", "ünïcødé.txt", "dír/"},
        {"C:\\dir\\x.txt", false, "scp -t .", "C:\\dir\\x.txt", "."},
    };
    ScratchDir dir;
    std::string local = dir.file("four.txt");
    ASSERT_TRUE(writeFile(local, "four"));
    for (bool fromFile : {true, false}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(std::string(fromFile ? "UploadFile " : "UploadString ") + row.remote);
            ScpRig rig({{}, row.filenameOnly ? "x,filenameonly" : ""});
            rig.peer().send(kSinkAccepts).closeOnClientClose();
            XString remote(row.remote), localPath(local.c_str()), text("four"), charset("utf-8");
            EXPECT_TRUE(fromFile ? rig.scp.UploadFile(localPath, remote)
                                 : rig.scp.UploadString(remote, text, charset));
            EXPECT_EQ(rig.peer().execCommand, row.command);
            EXPECT_STREQ(remote.getUtf8(), row.remoteAfter);
            expectLog(rig.peer().written, {std::string("\nC0644 4 ") + row.name + "\n"});
            expectLog(rig.log(),
                      {fromFile && row.remote[0] == 'C' ? "Warning: Remote directory" : ""});
        }
    }
}

TEST(ScpProtocol, EnvironmentRequests) {
    const struct {
        const char* sendEnv;
        bool ok;
        std::vector<std::pair<std::string, std::string>> sent;
    } rows[] = {
        {"", true, {}},
        {"{\"LANG\":\"C\",\"   \":\"x\"}", true, {{"LANG", "C"}}},
        {"LANG=C", true, {}},  // not JSON: nothing to send
        {"{\" LC_ALL \":\" x y \"}", true, {{"LC_ALL", " x y "}}},
        {"{\"A\":\"1\",\"REFUSED\":\"2\",\"C\":\"3\"}", false, {{"A", "1"}, {"REFUSED", "2"}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.sendEnv);
        ScpRig rig;
        rig.peer().refuseEnv("REFUSED");
        rig.peer().send(kSinkAccepts).closeOnClientClose();
        XString env(row.sendEnv), remote("/r/x"), text("x"), charset("utf-8");
        rig.scp.put_SendEnv(env);
        EXPECT_EQ(rig.scp.UploadString(remote, text, charset), row.ok);
        EXPECT_EQ(rig.peer().envRequests, row.sent);
        // A refused variable fails the call before the command is sent.
        EXPECT_EQ(rig.peer().execCommand, row.ok ? "scp -t /r/" : "");
        EXPECT_EQ(rig.log().find("setEnvironmentVars:") != std::string::npos, *row.sendEnv != 0);
    }
}

// Servers that lie or break the protocol, each piece released by one more
// byte from the client as a remote scp answers in lock-step. A download
// keeps exactly the announced bytes, the received times and the mode's
// permission bits, fails with the message the code gives, sends its final
// 0x00 only after a whole file, and leaves no file when it fails.
TEST(ScpProtocol, DownloadsFromLyingServers) {
    const std::string binary("\0\n\x01\xff", 4), stream = "Failed to stream file data";
    const struct {
        std::vector<std::string> pieces;  // EOF and CLOSE follow, unless `hang`
        const char* logged;
        bool ok = false;
        std::string content = {};  // the file's bytes when ok
        unsigned mode = 0644;
        bool hang = false;
    } rows[] = {
        // The source goes on talking after the file.
        {{"C0644 4 b\n", binary + kZero + "more"}, "", true, binary},
        {{"C0600 0 e\n", kZero}, "", true, "", 0600},
        {{kTimes, "C4755 3 f\n", "abc" + kZero}, "", true, "abc", 0755},
        // CVE-2019-6111 style: more records than asked for.
        {{"C0644 3 f\n", "abc" + kZero + "C0644 4 evil\nevil" + kZero + "D0755 0 d\nE\n"},
         "",
         true,
         "abc"},
        {{"T1 2\n", "C0644 3 f\n", "abc" + kZero}, "Failed to parse last-mod/", true, "abc"},
        {{"C0644 2 x\n", "hi" + kZero}, "", false, "", 0644, true},  // the channel never closes
        {{"C0644 -5 f\n", kZero}, stream.c_str()},
        {{"C0644 9223372036854775808 f\n", "abc" + kZero}, stream.c_str()},
        {{"C0644 many f\n", "xyz" + kZero}, "Unexpected final 0 byte."},
        {{"C0644 3 f\n", "abcdef" + kZero}, "Unexpected final 0 byte."},
        {{"C0644 10 f\n", "abc"}, stream.c_str()},
        {{"C0644 3 f\n", "abc"}, "receiveFileData"},  // no status byte
        {{"C0644 3 f\n", "abc\x01"}, "Unexpected final 0 byte."},
        {{"C0644\n"}, "Error parsing response line (1)"},
        {{"C0644 12\n"}, "Error parsing response line (2)"},
        {{"C0644 3 f"}, "sshChannelClosed: 1"},  // no line feed
        {{"\x02scp: cannot go on\n"}, "Err_responseLine: \x02scp: cannot go on"},
        {{"\x01scp: /srv/f: No such file\n"}, "errorResponse: scp: /srv/f: No such file"},
        {{"\x01scp: \x1b[2J\x1b]0;owned\x07/x\n"}, "errorResponse: scp: \x1b[2J\x1b]0;owned\x07/x"},
        // Only the limit ends it: no EOF follows.
        {{std::string(64 * 1024 + 1, 'C')},
         "Control line from the server is too long.",
         false,
         "",
         0644,
         true},
    };
    for (const auto& row : rows) {
        for (bool toFile : {true, false}) {
            SCOPED_TRACE(row.pieces[0].substr(0, 40) + row.logged +
                         (toFile ? " / file" : " / memory"));
            ScratchDir dir;
            ScpRig rig;
            rig.peer().sendStderr("scp: a note\n");
            for (const auto& piece : row.pieces) rig.peer().awaitBytes(1).send(piece);
            if (!row.hang) rig.peer().eof().close();
            XString remote("/srv/f"), local(dir.file("out").c_str());
            DataBuffer out;
            EXPECT_EQ(
                toFile ? rig.scp.DownloadFile(remote, local) : rig.scp.DownloadBinary(remote, out),
                row.ok);
            expectLog(rig.log(),
                      {row.logged, "scp_errors1: scp: a note", row.ok ? "Success." : "Failed."});
            const std::string got =
                toFile ? readFile(dir.file("out"))
                       : std::string(reinterpret_cast<const char*>(out.getData2()), out.getSize());
            if (row.ok) {
                EXPECT_EQ(got, row.content);
            }
            if (toFile) {
                EXPECT_EQ(countEntries(dir.path()), row.ok ? 1 : 0);
                EXPECT_EQ(fileMode(dir.file("out")), row.ok ? row.mode : 0);
                if (row.ok && row.pieces[0] == kTimes) {
                    EXPECT_EQ(fileMtime(dir.file("out")), 1700000000);
                }
            }
            // Only 0x00 answers, and the last only after a whole file.
            const std::string& w = rig.peer().written;
            EXPECT_EQ(w.find_first_not_of('\0'), std::string::npos);
            const bool whole = row.ok || (row.hang && row.pieces.size() == 2);
            EXPECT_EQ(w.size(), row.pieces.size() + whole);
        }
    }
}

}  // namespace
}  // namespace scpkit::test
