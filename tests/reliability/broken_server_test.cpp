// Remote programs that break off: killed, stalled, talking without end.
// Each transfer must return false within the stall timeout, never hang,
// and a failed download must leave no local file.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <set>
#include <string>

#include <scpkit/base/DataBuffer.h>
#include "tests/reliability/ReliabilityRig.h"

namespace scpkit::test {
namespace {

enum class Op { DownloadFile, DownloadBinary, UploadFile, UploadBinary, TreeDownload, TreeUpload };

struct Breakage {
    const char* fake;
    Op op;
    const char* logged;
};

// Runs one transfer against the fake; returns its result.
bool runOp(ProcessRig& rig, Op op, const TempDir& local) {
    XString remote("/remote/f");
    switch (op) {
        case Op::DownloadFile: {
            XString path((local / "f").c_str());
            return rig.scp.DownloadFile(remote, path, nullptr);
        }
        case Op::DownloadBinary: {
            DataBuffer out;
            return rig.scp.DownloadBinary(remote, out, nullptr);
        }
        case Op::UploadFile: {
            writeFile(local / "big", patternBytes(4 << 20, 1));
            XString path((local / "big").c_str());
            return rig.scp.UploadFile(path, remote, nullptr);
        }
        case Op::UploadBinary: {
            DataBuffer bytes;
            const std::string data = patternBytes(4 << 20, 2);
            bytes.append(data.data(), data.size());
            return rig.scp.UploadBinary(remote, bytes, nullptr);
        }
        case Op::TreeDownload: {
            XString root((local / "tree").c_str());
            XString remoteRoot("/remote");
            std::filesystem::create_directories(local / "tree");
            return rig.scp.SyncTreeDownload(remoteRoot, root, 0, true, nullptr);
        }
        case Op::TreeUpload: {
            makeTree(local / "up", {{"a.bin", patternBytes(4 << 20, 3)}});
            XString root((local / "up").c_str());
            XString remoteRoot("/remote");
            return rig.scp.SyncTreeUpload(root, remoteRoot, 0, true, nullptr);
        }
    }
    return false;
}

TEST(BrokenServer, TransfersFailWithinTheStallTimeout) {
    const Breakage rows[] = {
        {"killed-mid-download", Op::DownloadFile,
         "Failed to stream file data from SSH server to local file."},
        {"killed-mid-download", Op::DownloadBinary,
         "Failed to stream file data from SSH server to local file."},
        {"stalled-download", Op::DownloadFile, "No data received within the stall timeout."},
        {"stalled-download", Op::DownloadBinary, "No data received within the stall timeout."},
        {"stalled-tree", Op::TreeDownload, "No data received within the stall timeout."},
        {"endless-line", Op::DownloadFile, "Control line from the server is too long."},
        {"endless-line", Op::TreeDownload, "Control line from the server is too long."},
        {"killed-mid-upload", Op::UploadFile, "Failed to send data on the channel."},
        {"killed-mid-upload", Op::UploadBinary, "Failed to send data on the channel."},
        {"killed-mid-upload", Op::TreeUpload, "Failed to send data on the channel."},
        {"stalled-upload", Op::UploadFile, "No data could be sent within the stall timeout."},
        {"stalled-upload", Op::TreeUpload, "No data could be sent within the stall timeout."},
        {"stalled-upload", Op::UploadBinary, "No data could be sent within the stall timeout."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.fake) + " / op " + std::to_string(static_cast<int>(row.op)));
        TempDir local;
        ProcessRig rig(400);
        rig.fake(row.fake);
        EXPECT_FALSE(runOp(rig, row.op, local));
        const std::string log = lastError(rig.scp);
        EXPECT_NE(log.find(row.logged), std::string::npos) << log;
        EXPECT_FALSE(exists(local / "f"));
        if (row.op == Op::TreeDownload) {
            EXPECT_TRUE(snapshot(local / "tree").empty());
        }
    }
}

// Remote error text reaches the log unchanged, control characters and all:
// stripping them is for whoever prints it to a terminal.
TEST(BrokenServer, ErrorTextWithEscapeSequencesIsLoggedIntact) {
    TempDir local;
    ProcessRig rig;
    rig.fake("escapes");
    XString remote("/remote/f"), path((local / "f").c_str());
    EXPECT_FALSE(rig.scp.DownloadFile(remote, path, nullptr));
    const std::string log = lastError(rig.scp);
    EXPECT_NE(log.find("errorResponse: scp: \x1b[31mred\x1b[0m \x1b]0;owned\x07/x: denied"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("scp: \x1b[2Jcleared"), std::string::npos) << log;
    EXPECT_FALSE(exists(local / "f"));
}

// After a broken transfer the same connection runs the next one.
TEST(BrokenServer, ConnectionServesTheNextTransfer) {
    TempDir local;
    ProcessRig rig(400);
    for (const char* fake : {"stalled-download", "killed-mid-upload", "endless-line"}) {
        SCOPED_TRACE(fake);
        rig.fake(fake);
        DataBuffer junk;
        XString remote((local / "x").c_str());
        EXPECT_FALSE(rig.scp.DownloadBinary(remote, junk, nullptr));

        rig.fake("real");
        const std::string data = patternBytes(100000, 7);
        DataBuffer bytes, back;
        bytes.append(data.data(), data.size());
        XString target((local / "roundtrip").c_str());
        ASSERT_TRUE(rig.scp.UploadBinary(target, bytes, nullptr)) << lastError(rig.scp);
        XString source((local / "roundtrip").c_str());
        ASSERT_TRUE(rig.scp.DownloadBinary(source, back, nullptr)) << lastError(rig.scp);
        EXPECT_TRUE(back.equals(data.data(), data.size()));
    }
}

// ---------------------------------------------------------------------------
// Over a real sshd whose session processes are killed or frozen mid-transfer

// Every process below `root` (the sshd that serves one test's connection).
std::set<pid_t> descendants(pid_t root) {
    std::map<pid_t, pid_t> parent;
    if (DIR* proc = ::opendir("/proc")) {
        while (dirent* e = ::readdir(proc)) {
            const pid_t pid = static_cast<pid_t>(std::atoi(e->d_name));
            if (pid <= 0) continue;
            std::ifstream stat(std::string("/proc/") + e->d_name + "/stat");
            std::string text((std::istreambuf_iterator<char>(stat)), {});
            const size_t close = text.rfind(')');
            if (close == std::string::npos) continue;
            std::istringstream rest(text.substr(close + 1));
            char state;
            pid_t ppid = 0;
            rest >> state >> ppid;
            parent[pid] = ppid;
        }
        ::closedir(proc);
    }
    std::set<pid_t> out;
    for (bool grew = true; grew;) {
        grew = false;
        for (const auto& [pid, ppid] : parent)
            if ((ppid == root || out.count(ppid)) && out.insert(pid).second) grew = true;
    }
    return out;
}

void signalSession(pid_t sshd, int sig) {
    for (pid_t pid : descendants(sshd)) ::kill(pid, sig);
}

// Sends a signal to the session's processes once the transfer passes 10 %.
class SignalMidway : public ProgressEvent {
  public:
    SignalMidway(pid_t sshd, int sig) : m_sshd(sshd), m_sig(sig) {}
    void OnPercent(int percent, bool&) override {
        if (percent >= 10 && !sent) {
            signalSession(m_sshd, m_sig);
            sent = true;
        }
    }
    bool sent = false;

  private:
    pid_t m_sshd;
    int m_sig;
};

TEST(BrokenServer, SshdSessionKilledOrFrozenMidTransfer) {
    TempDir dir("sshd");
    const std::string fake = installFakeScp(dir.path());
    SshdOptions options;
    options.extraConfig = "ForceCommand " + fake + "\nAcceptEnv SCPKIT_FAKE\n";
    SshdFixture sshd(options);
    if (!sshd.ok()) GTEST_SKIP() << sshd.error();
    const std::string big = patternBytes(longTests() ? (256u << 20) : (32u << 20), 21);
    writeFile(dir / "big.bin", big);

    const struct {
        const char* name;
        int sig;  // 0: the fake scp dies by itself
        bool upload;
        const char* logged;
    } rows[] = {
        {"remote scp killed", 0, false, "Failed to stream file data"},
        {"session killed during a download", SIGKILL, false, "sshError: Socket error"},
        {"session killed during an upload", SIGKILL, true, "sshError: Socket error"},
        {"session frozen during a download", SIGSTOP, false,
         "No data received within the stall timeout."},
        {"session frozen during an upload", SIGSTOP, true,
         "No data could be sent within the stall timeout."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ClsSsh ssh;
        ClsScp scp;
        ASSERT_TRUE(sshd.connectAndLogin(ssh)) << lastError(ssh);
        ssh.put_StallTimeoutMs(1500);
        scp.UseSsh(ssh);
        XString env(row.sig == 0 ? "{\"SCPKIT_FAKE\":\"killed-mid-download\"}"
                                 : "{\"SCPKIT_FAKE\":\"real\"}");
        scp.put_SendEnv(env);
        SignalMidway midway(sshd.pid(), row.sig);
        bool ok;
        if (row.upload) {
            XString local((dir / "big.bin").c_str()), remote((dir / "up.bin").c_str());
            ok = scp.UploadFile(local, remote, row.sig ? &midway : nullptr);
        } else {
            XString remote((dir / "big.bin").c_str()), local((dir / "down.bin").c_str());
            ok = scp.DownloadFile(remote, local, row.sig ? &midway : nullptr);
            EXPECT_FALSE(exists(dir / "down.bin"));
        }
        EXPECT_FALSE(ok);
        EXPECT_NE(lastError(scp).find(row.logged), std::string::npos) << lastError(scp);
        if (row.sig) {
            EXPECT_TRUE(midway.sent);
        }
        if (row.sig == SIGSTOP) {
            signalSession(sshd.pid(), SIGCONT);
            signalSession(sshd.pid(), SIGKILL);
        }
    }
}

}  // namespace
}  // namespace scpkit::test
