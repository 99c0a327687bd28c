#include "tests/support/TestKit.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <system_error>

#include "tests/support/SshdFixture.h"

namespace fs = std::filesystem;

namespace scpkit::test {

std::string lastErrorText(ClsBase& obj) {
    XString text;
    obj.get_LastErrorText(text);
    return text.getUtf8();
}

std::string renderedLog(const _vqLogger& log) {
    std::string out;
    log.renderText(out);
    return out;
}

void expectLog(const std::string& log, std::initializer_list<std::string> present,
               std::initializer_list<std::string> absent) {
    for (const auto& p : present)
        EXPECT_NE(log.find(p), std::string::npos) << "missing: " << p << "\n" << log;
    for (const auto& a : absent)
        EXPECT_TRUE(a.empty() || log.find(a) == std::string::npos) << "unexpected: " << a << "\n"
                                                                   << log;
}

ScratchDir::ScratchDir(const char* tag) : m_path(std::string("/tmp/") + tag + "-XXXXXX") {
    if (!::mkdtemp(&m_path[0])) m_path.clear();
}

ScratchDir::~ScratchDir() {
    std::error_code ec;
    if (!m_path.empty()) fs::remove_all(m_path, ec);
}

std::string readFile(const std::string& path) {
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

bool writeFile(const std::string& path, const std::string& content, int64_t mtime, unsigned mode) {
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << content)) return false;
    const timespec times[2] = {{static_cast<time_t>(mtime), 0}, {static_cast<time_t>(mtime), 0}};
    return ::chmod(path.c_str(), mode) == 0 &&
           (mtime < 0 || ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0);
}

void makeDir(const std::string& path, unsigned mode) {
    std::error_code ec;
    fs::create_directories(path, ec);
    ::chmod(path.c_str(), mode);
}

bool pathExists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

unsigned fileMode(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<unsigned>(st.st_mode & 07777) : 0;
}

int64_t fileMtime(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_mtime) : -1;
}

long countEntries(const std::string& dir) {
    std::error_code ec;
    fs::directory_iterator it(dir, ec);
    return ec ? -1 : static_cast<long>(std::distance(it, fs::directory_iterator()));
}

std::string randomBytes(size_t size, uint32_t seed) {
    std::mt19937 gen(seed);
    std::string out(size, '\0');
    for (auto& c : out) c = static_cast<char>(gen() & 0xFF);
    return out;
}

std::vector<std::string> sortedLines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) out.push_back(line);
    }
    std::sort(out.begin(), out.end());
    return out;
}

TreeSnapshot snapshotTree(const std::string& root) {
    TreeSnapshot out;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        struct stat st;
        if (::lstat(it->path().c_str(), &st) != 0) continue;
        TreeEntry& entry = out[it->path().lexically_relative(root).string()];
        if (S_ISDIR(st.st_mode))
            entry = {true, st.st_mode & 07777u};
        else if (S_ISREG(st.st_mode))
            entry = {false, st.st_mode & 07777u, st.st_mtime, readFile(it->path())};
    }
    return out;
}

std::vector<std::string> listTree(const std::string& root, bool filesOnly) {
    std::vector<std::string> out;
    for (const auto& [path, entry] : snapshotTree(root))
        if (!filesOnly || !entry.isDir) out.push_back(path);
    return out;
}

void ProgressLog::OnPercent(int percent, bool& abort) {
    percents.push_back(percent);
    if (abortAtPercent >= 0 && percent >= abortAtPercent) fired = true;
    abort = abort || fired;
}

void ProgressLog::OnNamedEvent(const char* name, const char* value) {
    events.push_back(std::string(name) + " " + value);
    if (!abortAtEvent.empty() && abortAtEvent == name) fired = true;
}

size_t ProgressLog::count(const std::string& name) const {
    return std::count_if(events.begin(), events.end(),
                         [&](const std::string& e) { return e.rfind(name + " ", 0) == 0; });
}

void ScpSettings::applyTo(ClsScp& scp) const {
    XString text;
    scp.put_SyncMustMatch(text = XString(filters[0].c_str()));
    scp.put_SyncMustNotMatch(text = XString(filters[1].c_str()));
    scp.put_SyncMustMatchDir(text = XString(filters[2].c_str()));
    scp.put_SyncMustNotMatchDir(text = XString(filters[3].c_str()));
    scp.put_UncommonOptions(text = XString(options.c_str()));
}

std::vector<std::string> syncedFiles(ClsScp& scp) {
    XString text;
    scp.get_SyncedFiles(text);
    return sortedLines(text.getUtf8());
}

ScpRig::ScpRig(const ScpSettings& settings, int stallMs) {
    ssh.useTransport(transport);
    ssh.put_StallTimeoutMs(stallMs);
    scp.UseSsh(ssh);
    settings.applyTo(scp);
}

SshRig::SshRig(int stallMs, SshdFixture* sshd) {
    connected = (sshd ? *sshd : SshdFixture::shared()).connectAndLogin(ssh);
    ssh.put_StallTimeoutMs(stallMs);
    scp.UseSsh(ssh);
}

std::string installFakeScp(const std::string& dir) {
    // What the fake reads and throws away goes to files beside it.
    static const char* const kScript = R"SH(#!/bin/sh
here=$(dirname "$0")
ack() { head -c 1 >>"$here/taken"; }
case "${SCPKIT_FAKE:-real}" in
killed-mid-download)  # announces 1 MiB, sends 64 KiB, dies
    ack; printf 'C0644 1048576 f\n'; ack; head -c 65536 /dev/zero; kill -9 $$ ;;
killed-mid-upload)    # takes the times, the header and 64 KiB, dies
    printf '\000'; IFS= read -r _; printf '\000'; IFS= read -r _; printf '\000'
    head -c 65536 >>"$here/taken"; kill -9 $$ ;;
*)  exec sh -c "$SSH_ORIGINAL_COMMAND" ;;
esac
)SH";
    const std::string path = dir + "/fake-scp";
    writeFile(path, kScript, -1, 0755);
    return path;
}

bool longTests() {
    const char* v = std::getenv("SCPKIT_LONG_TESTS");
    return v && std::string(v) == "1";
}

}  // namespace scpkit::test
