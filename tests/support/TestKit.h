// What the tests share: the rendered log, scratch directories, files and
// trees on disk, reproducible random bytes, a progress callback that records
// and aborts on cue, a ClsScp over the scripted peer or the loopback sshd,
// and one fake remote scp.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/ScriptedTransport.h"

namespace scpkit::test {

// ---- the log ----
std::string lastErrorText(ClsBase& obj);
std::string renderedLog(const _vqLogger& log);
// Every `present` text occurs in the log, no non-empty `absent` one does.
void expectLog(const std::string& log, std::initializer_list<std::string> present,
               std::initializer_list<std::string> absent = {});

// ---- files ----
// A fresh directory under /tmp, removed with its content on destruction.
class ScratchDir {
  public:
    explicit ScratchDir(const char* tag = "scpkit");
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& rel) const { return m_path + "/" + rel; }

  private:
    std::string m_path;
};

std::string readFile(const std::string& path);
// Parents are created; the mode is set, and when mtime is not negative the
// modification and access times.
bool writeFile(const std::string& path, const std::string& content, int64_t mtime = -1,
               unsigned mode = 0644);
void makeDir(const std::string& path, unsigned mode = 0755);
bool pathExists(const std::string& path);  // links not followed
unsigned fileMode(const std::string& path);
int64_t fileMtime(const std::string& path);
long countEntries(const std::string& dir);  // -1 when it cannot be listed
// The same bytes for the same seed, every byte value likely.
std::string randomBytes(size_t size, uint32_t seed);
// The non-empty lines of a text, sorted.
std::vector<std::string> sortedLines(const std::string& text);

// One entry of a tree, keyed in a snapshot by its path below the root.
struct TreeEntry {
    bool isDir = false;
    unsigned mode = 0;  // permission bits (07777)
    int64_t mtime = 0;  // files only
    std::string content{};
    bool operator==(const TreeEntry& o) const {
        return std::tie(isDir, mode, mtime, content) ==
               std::tie(o.isDir, o.mode, o.mtime, o.content);
    }
};
using TreeSnapshot = std::map<std::string, TreeEntry>;
// Every entry below root (root excluded; links are listed, not followed,
// with mode 0 and no content).
TreeSnapshot snapshotTree(const std::string& root);
// The relative paths below root (only the files when filesOnly), sorted.
std::vector<std::string> listTree(const std::string& root, bool filesOnly = false);

// ---- progress ----
// Records named events and percentages; asks to abort once its trigger
// fires: a named event (at the next poll: events carry no abort flag) or a
// percentage reached.
struct ProgressLog : ProgressEvent {
    std::string abortAtEvent;  // empty: none
    int abortAtPercent = -1;   // negative: none
    bool fired = false;
    std::vector<std::string> events;  // "name value"
    std::vector<int> percents;

    void OnPercent(int percent, bool& abort) override;
    void OnPoll(bool& abort) override { abort = abort || fired; }
    void OnNamedEvent(const char* name, const char* value) override;
    size_t count(const std::string& name) const;
};

// ---- the component ----
// Settings every rig can take: the four filters (files, not files,
// directories, not directories) and the uncommon options.
struct ScpSettings {
    std::array<std::string, 4> filters{};
    std::string options = {};
    void applyTo(ClsScp& scp) const;
};
std::vector<std::string> syncedFiles(ClsScp& scp);  // SyncedFiles, sorted

// A component over the scripted peer (short stall timeout: a silent peer
// ends a read quickly).
struct ScpRig {
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    ClsSsh ssh;
    ClsScp scp;  // released before ssh
    explicit ScpRig(const ScpSettings& settings = {}, int stallMs = 300);
    ScriptedPeer& peer(int index = 0) { return transport->peer(index); }
    std::string log() { return lastErrorText(scp); }
};

// A component logged in to the shared loopback sshd (or to `sshd`); remote
// paths are local paths of this machine.
class SshdFixture;
struct SshRig {
    ClsSsh ssh;
    ClsScp scp;
    bool connected = false;
    explicit SshRig(int stallMs = 5000, SshdFixture* sshd = nullptr);
};

// ---- a fake remote scp ----
// A shell script for an sshd ForceCommand: with SCPKIT_FAKE unset or
// "real" it runs the client's command with the real scp; otherwise it plays
// the named misbehaviour (see the script). Installed executable as
// dir/fake-scp; returns its path.
std::string installFakeScp(const std::string& dir);

// SCPKIT_LONG_TESTS=1 asks for bigger data and more rounds.
bool longTests();

}  // namespace scpkit::test
