// Servers that lie or break the protocol, played byte for byte by the
// scripted peer: a single download must fail with the message the code
// gives, never hang, write nothing but the file it asked for, and leave no
// local file when it fails.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include "tests/reliability/ReliabilityRig.h"

namespace scpkit::test {
namespace {

const std::string kZero(1, '\0');
const std::string kTimes = "T1700000000 0 1700000000 0\n";

struct LyingServer {
    const char* name;
    std::vector<std::string> pieces;  // after each client byte, in lock-step
    bool ok;
    const char* logged;   // a text the log must hold
    std::string content;  // the file's bytes when ok
};

const std::vector<LyingServer>& lyingServers() {
    static const std::vector<LyingServer> rows = {
        // CVE-2019-6111 style: more records than asked for.
        {"second C record after the file",
         {kTimes, "C0644 3 f\n", "abc" + kZero + "C0644 4 evil\nevil" + kZero},
         true,
         "",
         "abc"},
        {"directory records after the file",
         {"C0644 3 f\n", "abc" + kZero + "D0755 0 d\nC0644 1 x\nx" + kZero + "E\n"},
         true,
         "",
         "abc"},
        {"negative size",
         {"C0644 -5 f\n", kZero},
         false,
         "Failed to stream file data from SSH server to local file.",
         ""},
        {"size beyond 2^63",
         {"C0644 99999999999999999999 f\n", "abc" + kZero},
         false,
         "Failed to stream file data from SSH server to local file.",
         ""},
        {"size of exactly 2^63",
         {"C0644 9223372036854775808 f\n", "abc" + kZero},
         false,
         "Failed to stream file data from SSH server to local file.",
         ""},
        {"size not a number",
         {"C0644 many f\n", "xyz" + kZero},
         false,
         "Unexpected final 0 byte.",
         ""},
        {"more data than announced",
         {"C0644 3 f\n", "abcdef" + kZero},
         false,
         "Unexpected final 0 byte.",
         ""},
        {"fewer bytes then EOF",
         {"C0644 10 f\n", "abc"},
         false,
         "Failed to stream file data from SSH server to local file.",
         ""},
        {"no status byte then EOF", {"C0644 3 f\n", "abc"}, false, "receiveFile", ""},
        {"error status after the data",
         {"C0644 3 f\n", "abc\x01"},
         false,
         "Unexpected final 0 byte.",
         ""},
        {"fatal line", {"\x02scp: cannot go on\n"}, false, "Unrecognized response", ""},
        {"header without blanks", {"C0644\n"}, false, "Error parsing response line (1)", ""},
        {"header without a name field",
         {"C0644 3\n"},
         false,
         "Error parsing response line (2)",
         ""},
        {"error text with terminal escapes",
         {"\x01scp: \x1b[2J\x1b]0;owned\x07/x: No such file\n"},
         false,
         "errorResponse: scp: \x1b[2J\x1b]0;owned\x07/x: No such file",
         ""},
        {"times line that does not scan",
         {"T1 2\n", "C0644 3 f\n", "abc" + kZero},
         true,
         "Failed to parse last-mod/last-access date/times",
         "abc"},
        {"silence then EOF", {}, false, "sshEof: 1", ""},
    };
    return rows;
}

TEST(HostileServer, SingleFileDownloadWritesOnlyTheRequestedFile) {
    for (const auto& row : lyingServers()) {
        SCOPED_TRACE(row.name);
        TempDir dir;
        ScriptedRig rig;
        rig.lockStep(row.pieces);
        XString remote("/srv/f"), local((dir / "out").c_str());
        EXPECT_EQ(rig.scp.DownloadFile(remote, local, nullptr), row.ok);
        const std::string log = lastError(rig.scp);
        EXPECT_NE(log.find(row.logged), std::string::npos) << log;

        std::map<std::string, std::string> expected;
        if (row.ok) expected["out"] = row.content;
        EXPECT_EQ(snapshot(dir.path()), expected);
        // The sink only ever answers with 0 bytes: nothing tells the server
        // to go on writing elsewhere.
        EXPECT_EQ(rig.peer().written.find_first_not_of('\0'), std::string::npos);
    }
}

TEST(HostileServer, InMemoryDownloadKeepsOnlyTheAnnouncedBytes) {
    for (const auto& row : lyingServers()) {
        SCOPED_TRACE(row.name);
        ScriptedRig rig;
        rig.lockStep(row.pieces);
        XString remote("/srv/f");
        DataBuffer out;
        EXPECT_EQ(rig.scp.DownloadBinary(remote, out, nullptr), row.ok);
        EXPECT_NE(lastError(rig.scp).find(row.logged), std::string::npos);
        if (row.ok)
            EXPECT_TRUE(out.equals(row.content.data(), row.content.size()));
        else
            EXPECT_LE(out.getSize(), 4u);  // at most the bytes the server sent as data
    }
}

// Modes from the server lose setuid, setgid and sticky bits.
TEST(HostileServer, DownloadedModesKeepOnlyPermissionBits) {
    const struct {
        const char* mode;
        unsigned expected;
    } rows[] = {{"4755", 0755}, {"2711", 0711}, {"1777", 0777}, {"7600", 0600}, {"0640", 0640}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode);
        TempDir dir;
        ScriptedRig rig;
        rig.lockStep({std::string("C") + row.mode + " 2 f\n", "hi" + kZero});
        XString remote("/srv/f"), local((dir / "f").c_str());
        ASSERT_TRUE(rig.scp.DownloadFile(remote, local, nullptr)) << lastError(rig.scp);
        struct stat st;
        ASSERT_EQ(::stat((dir / "f").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, row.expected);
    }
}

// A control line that never ends is refused once it passes 64 KiB.
TEST(HostileServer, OverlongControlLineIsRefused) {
    for (size_t size : {size_t(64 * 1024 + 1), size_t(8) << 20}) {
        SCOPED_TRACE(size);
        TempDir dir;
        ScriptedRig rig;
        rig.peer().awaitBytes(1).send(std::string(size, 'C'));  // no EOF: only the limit ends it
        XString remote("/srv/f"), local((dir / "out").c_str());
        EXPECT_FALSE(rig.scp.DownloadFile(remote, local, nullptr));
        EXPECT_NE(lastError(rig.scp).find("Control line from the server is too long."),
                  std::string::npos);
        EXPECT_FALSE(exists(dir / "out"));
    }
}

// Tree downloads from servers that do not wait for answers or lie about
// sizes (the names that escape the root are covered by the tree tests).
TEST(HostileServer, TreeDownloadFromAServerThatDoesNotWait) {
    TempDir dir;
    ScriptedRig rig;
    // Two lines in one piece, read as one: the directory's name is "x\n..",
    // and its file y would be listed as "x" and "../y" in SyncedFiles.
    rig.lockStep({"D0755 0 root\n", "D0755 0 x\n..\n", "C0644 1 y\n", "y" + kZero, "E\n", "E\n"});
    XString remote("/srv/root"), local(dir.path().c_str());
    EXPECT_FALSE(rig.scp.SyncTreeDownload(remote, local, 0, true, nullptr));
    EXPECT_NE(lastError(rig.scp).find("Refusing an unsafe file name from the server."),
              std::string::npos)
        << lastError(rig.scp);
    EXPECT_TRUE(snapshot(dir.path()).empty());
    XString synced;
    rig.scp.get_SyncedFiles(synced);
    EXPECT_STREQ(synced.getUtf8(), "");
}

TEST(HostileServer, TreeSizesBeyondAnyTotalSaturate) {
    const std::string max = "9223372036854775807";
    ScriptedRig rig;
    // The compute pass: two files of 2^63-1 bytes, each answered with a
    // skip (0x01, "skip\n").
    rig.peer(0)
        .awaitBytes(1)
        .send("D0755 0 root\n")
        .awaitBytes(1)
        .send("C0644 " + max + " a\n")
        .awaitBytes(6)
        .send("C0644 " + max + " b\n")
        .awaitBytes(6)
        .send("E\n")
        .awaitBytes(1)
        .eof()
        .close();
    rig.peer(1).eof().close();  // the download pass finds nothing
    AbortOnCue progress;        // never aborts; makes the compute pass run
    TempDir dir;
    XString remote("/srv/root"), local(dir.path().c_str());
    EXPECT_TRUE(rig.scp.SyncTreeDownload(remote, local, 0, true, &progress)) << lastError(rig.scp);
    EXPECT_NE(lastError(rig.scp).find("totalByteCount: " + max), std::string::npos)
        << lastError(rig.scp);
}

}  // namespace
}  // namespace scpkit::test
