// Shared by the reliability suites: a component over a scripted peer, over
// local processes (the real scp, or a fake one that misbehaves on purpose),
// scratch trees, file helpers, and a progress callback that aborts on cue.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/ProcessTransport.h"
#include "tests/support/ScriptedTransport.h"
#include "tests/support/SshdFixture.h"

namespace scpkit::test {

inline bool longTests() {
    const char* v = std::getenv("SCPKIT_LONG_TESTS");
    return v && std::string(v) == "1";
}

inline std::string lastError(ClsBase& obj) {
    XString text;
    obj.get_LastErrorText(text);
    return text.getUtf8();
}

// ---------------------------------------------------------------------------
// Files

class TempDir {
  public:
    explicit TempDir(const char* tag = "rel") {
        std::string pattern = std::string("/tmp/scpkit-") + tag + "-XXXXXX";
        if (::mkdtemp(&pattern[0])) m_path = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        if (!m_path.empty()) std::filesystem::remove_all(m_path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& rel) const { return m_path + "/" + rel; }

  private:
    std::string m_path;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

// Polls a condition every 20 ms for at most `ms`; its last answer. For
// what a remote program finishes after the call that fed it has returned.
inline bool eventually(const std::function<bool()>& condition, int ms = 5000) {
    for (int waited = 0;; waited += 20) {
        if (condition() || waited >= ms) return condition();
        ::usleep(20 * 1000);
    }
}

// Deterministic bytes of every value, different for every seed.
inline std::string patternBytes(size_t size, uint32_t seed) {
    std::mt19937 gen(seed);
    std::string out(size, '\0');
    for (auto& c : out) c = static_cast<char>(gen() & 0xFF);
    return out;
}

// Every entry below root as "relative/path" -> "d" for a directory, the
// content for a regular file, "?" for anything else.
inline std::map<std::string, std::string> snapshot(const std::string& root) {
    std::map<std::string, std::string> out;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        const std::string rel = std::filesystem::relative(it->path(), root).string();
        const auto st = it->symlink_status();
        if (std::filesystem::is_directory(st))
            out[rel] = "d";
        else if (std::filesystem::is_regular_file(st))
            out[rel] = readFile(it->path().string());
        else
            out[rel] = "?";
    }
    return out;
}

// Writes a tree: "a/b.txt" -> content, "a/sub/" (trailing slash) -> a directory.
inline void makeTree(const std::string& root, const std::map<std::string, std::string>& entries) {
    std::filesystem::create_directories(root);
    for (const auto& [rel, content] : entries) {
        if (!rel.empty() && rel.back() == '/')
            std::filesystem::create_directories(root + "/" + rel);
        else
            writeFile(root + "/" + rel, content);
    }
}

// ---------------------------------------------------------------------------
// Rigs

// A component bound to an SSH object whose peer plays scripted bytes.
struct ScriptedRig {
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    ClsSsh ssh;
    ClsScp scp;  // released before ssh

    explicit ScriptedRig(int stallMs = 300) {
        ssh.useTransport(transport);
        ssh.put_StallTimeoutMs(stallMs);
        scp.UseSsh(ssh);
    }
    ScriptedPeer& peer(int index = 0) { return transport->peer(index); }
    // Each piece is released by one more byte from the client, as a remote
    // scp answers in lock-step; EOF and CLOSE follow the last piece.
    void lockStep(const std::vector<std::string>& pieces, int index = 0) {
        ScriptedPeer& p = peer(index);
        for (const auto& piece : pieces) p.awaitBytes(1).send(piece);
        p.eof().close();
    }
};

// A remote scp that misbehaves on purpose, chosen by SCPKIT_FAKE; without
// it (or with "real") it runs the real scp. It finds its arguments in
// SSH_ORIGINAL_COMMAND when run as an sshd ForceCommand.
inline const char* fakeScpScript() {
    return R"SH(#!/bin/sh
ack() { head -c 1 >/dev/null; }
line() { IFS= read -r _ || exit 1; }
if [ -n "$SSH_ORIGINAL_COMMAND" ] && [ "$#" -eq 0 ]; then
    set -- $SSH_ORIGINAL_COMMAND
    shift
fi
case "${SCPKIT_FAKE:-real}" in
endless-line)         # a control line that never ends
    ack; exec tr '\000' A </dev/zero ;;
killed-mid-download)  # announces 1 MiB, sends 64 KiB, dies
    ack; printf 'C0644 1048576 f\n'; ack; head -c 65536 /dev/zero; kill -9 $$ ;;
stalled-download)     # announces 1 MiB, sends 64 KiB, then nothing
    ack; printf 'C0644 1048576 f\n'; ack; head -c 65536 /dev/zero; exec cat >/dev/null ;;
stalled-tree)         # enters a directory, then nothing
    ack; printf 'D0755 0 root\n'; ack; exec cat >/dev/null ;;
killed-mid-upload)    # takes the times, the header and 64 KiB, dies
    printf '\000'; line; printf '\000'; line; printf '\000'; head -c 65536 >/dev/null
    kill -9 $$ ;;
stalled-upload)       # takes the times and the header, then reads nothing
    printf '\000'; line; printf '\000'; line; printf '\000'; exec sleep 30 ;;
escapes)              # an error whose text carries terminal control sequences
    ack; printf 'scp: \033[2Jcleared\n' >&2; sleep 0.2  # the error stream first
    printf '\001scp: \033[31mred\033[0m \033]0;owned\007/x: denied\n'; exit 1 ;;
*)  exec /usr/bin/scp "$@" ;;
esac
)SH";
}

// Installs the fake as "scp" in dir (made executable); returns its path.
inline std::string installFakeScp(const std::string& dir) {
    const std::string path = dir + "/scp";
    writeFile(path, fakeScpScript());
    ::chmod(path.c_str(), 0755);
    return path;
}

// A component whose channels run local processes: the exec'd "scp ..."
// finds the fake first in its PATH, which plays the real scp unless told
// otherwise with fake(mode).
struct ProcessRig {
    TempDir dir{"proc"};
    std::shared_ptr<ProcessTransport> transport;
    ClsSsh ssh;
    ClsScp scp;

    explicit ProcessRig(int stallMs = 2000) {
        std::filesystem::create_directories(dir / "bin");
        installFakeScp(dir / "bin");
        transport = std::make_shared<ProcessTransport>(dir.path());
        ssh.useTransport(transport);
        ssh.put_StallTimeoutMs(stallMs);
        scp.UseSsh(ssh);
        fake("real");
    }
    void fake(const std::string& mode) {
        XString env(
            ("{\"PATH\":\"" + dir.path() + "/bin:/usr/bin:/bin\",\"SCPKIT_FAKE\":\"" + mode + "\"}")
                .c_str());
        scp.put_SendEnv(env);
    }
};

// A component over a real connection to the shared loopback sshd; remote
// paths are local paths of the same machine.
struct SshRig {
    ClsSsh ssh;
    ClsScp scp;
    bool connected = false;

    explicit SshRig(int stallMs = 5000) {
        connected = SshdFixture::shared().connectAndLogin(ssh);
        ssh.put_StallTimeoutMs(stallMs);
        scp.UseSsh(ssh);
    }
};

// ---------------------------------------------------------------------------
// Progress

// Records named events and asks to abort once its trigger fires: a named
// event (the abort is requested at the next poll, since named events carry
// no abort flag), or a percentage reached.
class AbortOnCue : public ProgressEvent {
  public:
    std::string abortAtEvent;  // empty: none
    int abortAtPercent = -1;   // negative: none
    bool fired = false;
    std::vector<std::pair<std::string, std::string>> events;

    void OnPercent(int percent, bool& abort) override {
        if (abortAtPercent >= 0 && percent >= abortAtPercent) fired = true;
        if (fired) abort = true;
    }
    void OnPoll(bool& abort) override {
        if (fired) abort = true;
    }
    void OnNamedEvent(const char* name, const char* value) override {
        events.emplace_back(name, value);
        if (!abortAtEvent.empty() && abortAtEvent == name) fired = true;
    }
    size_t count(const std::string& name) const {
        size_t n = 0;
        for (const auto& e : events) n += e.first == name;
        return n;
    }
};

}  // namespace scpkit::test
