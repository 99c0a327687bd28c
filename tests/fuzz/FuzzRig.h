// Shared by the protocol fuzz targets: a ClsScp whose remote scp is the
// scripted peer playing the fuzzer's bytes, and a scratch directory whose
// contents are checked after every run.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/fuzz/FuzzCheck.h"
#include "tests/support/ScriptedTransport.h"

namespace scpkit::test {

// The server's data stream, cut into pieces; each piece after the first is
// released by the client's next write. Cut after every LF, pieces follow
// the lock-step of a real remote scp; cut at 0xFF bytes (dropped; a byte no
// protocol line or UTF-8 name holds), the fuzzer chooses where a server
// that does not wait delivers what. EOF and CLOSE follow the last piece.
struct ScriptedScp {
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    ClsSsh ssh;
    ClsScp scp;  // released before ssh

    ScriptedScp(const std::string& serverBytes, bool cutAtLineEnds) {
        ScriptedPeer& peer = transport->peer(0);
        const char cut = cutAtLineEnds ? '\n' : '\xff';
        size_t start = 0;
        bool first = true;
        while (start < serverBytes.size()) {
            size_t at = serverBytes.find(cut, start);
            size_t end = at == std::string::npos ? serverBytes.size() : at;
            size_t next = at == std::string::npos ? end : at + 1;
            if (cutAtLineEnds) end = next;  // the LF stays in its line
            if (!first) peer.awaitWrites(1);
            peer.send(serverBytes.substr(start, end - start));
            first = false;
            start = next;
        }
        peer.eof().close();
        ssh.useTransport(transport);
        // Every byte the script holds is released by the client's own writes,
        // so a read that waits at all waits for nothing: a desynchronised
        // script costs a millisecond, not a hang.
        ssh.put_StallTimeoutMs(1);
        scp.UseSsh(ssh);
    }
    const std::string& clientBytes() { return transport->peer(0).written; }
};

// /tmp/scpkit-fuzz-XXXXXX/outer/root: the local root of every run. Anything
// that appears in the sandbox outside root is a write outside the target.
class Sandbox {
  public:
    Sandbox() {
        std::string pattern = "/tmp/scpkit-fuzz-XXXXXX";
        FUZZ_CHECK(mkdtemp(&pattern[0]) != nullptr);
        m_top = pattern;
        m_root = m_top + "/outer/root";
        std::filesystem::create_directories(m_root);
    }
    ~Sandbox() {
        std::error_code ec;
        std::filesystem::remove_all(m_top, ec);
    }
    const std::string& root() const { return m_root; }
    const std::string& top() const { return m_top; }

    // Leaves an empty root (recreated with its usual mode).
    void reset() {
        std::error_code ec;
        std::filesystem::remove_all(m_top + "/outer", ec);
        std::filesystem::create_directories(m_root);
    }
    // Every entry of the sandbox other than outer, root and what root holds.
    std::vector<std::string> strays() const {
        std::vector<std::string> out;
        std::error_code ec;
        for (auto it = std::filesystem::recursive_directory_iterator(m_top, ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
            const std::string p = it->path().string();
            if (p == m_top + "/outer" || p == m_root || p.rfind(m_root + "/", 0) == 0) continue;
            out.push_back(p);
        }
        return out;
    }
    // Entries below root: {directories, regular files, anything else}.
    void countUnderRoot(unsigned& dirs, unsigned& files, unsigned& others) const {
        dirs = files = others = 0;
        std::error_code ec;
        for (auto it = std::filesystem::recursive_directory_iterator(m_root, ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
            const auto status = it->symlink_status(ec);
            if (std::filesystem::is_directory(status))
                ++dirs;
            else if (std::filesystem::is_regular_file(status))
                ++files;
            else
                ++others;
        }
    }

  private:
    std::string m_top;
    std::string m_root;
};

// A relative path that stays inside its root: no empty, "." or ".."
// component, no leading '/', no NUL.
inline bool isContainedRelativePath(const std::string& path) {
    if (path.empty() || path.find('\0') != std::string::npos) return false;
    size_t start = 0;
    for (;;) {
        size_t slash = path.find('/', start);
        std::string part =
            path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (part.empty() || part == "." || part == "..") return false;
        if (slash == std::string::npos) return true;
        start = slash + 1;
    }
}

}  // namespace scpkit::test
