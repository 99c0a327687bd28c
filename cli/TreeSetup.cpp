#include "cli/TreeSetup.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "cli/LocalFiles.h"
#include "cli/RemoteShell.h"

namespace scpkit::cli {

namespace {

// One script stays well below what a server takes as a command line.
constexpr size_t kLongestScript = 16 * 1024;
constexpr unsigned kOwnerWriteSearch = 0300;

enum class Purpose { Make, Look, FinishModes };

std::string octal(unsigned mode) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%o", mode & 0777);
    return buf;
}

// The mode a directory gets before its pieces run, and whether it must be
// given its own afterwards.
unsigned modeDuringCopy(unsigned mode) {
    return (mode & 0777) | kOwnerWriteSearch;
}
bool modeHeldBack(unsigned mode) {
    return (mode & kOwnerWriteSearch) != kOwnerWriteSearch;
}

// The script for dirs[from, to): prints the index of each missing one (from
// 0), then "ok"; "noroot" when looking at a root that does not exist.
std::string script(Purpose purpose, const std::string& root,
                   const std::vector<SetupDirectory>& dirs, size_t from, size_t to) {
    std::string r = shellQuotePath(root.empty() ? "." : root), words;
    std::map<unsigned, std::string> byMode;
    for (size_t i = from; i < to; ++i) {
        std::string w = " " + shellWord(dirs[i].path.empty() ? "." : dirs[i].path);
        words += w;
        if (dirs[i].path.empty()) continue;  // the root keeps its mode, as with one channel
        if (purpose == Purpose::Make) byMode[modeDuringCopy(dirs[i].mode)] += w;
        if (purpose == Purpose::FinishModes) byMode[dirs[i].mode & 0777] += w;
    }
    std::string chmods;
    for (const auto& [mode, list] : byMode) chmods += " && chmod " + octal(mode) + " --" + list;
    std::string lookup =
        "i=0 && for d in" + words + "; do [ -d \"$d\" ] || echo $i; i=$((i+1)); done";
    switch (purpose) {
        case Purpose::Make:
            return "mkdir -p -- " + r + " && cd -- " + r + " && " + lookup + " && mkdir -p --" +
                   words + chmods + " && echo ok";
        case Purpose::Look:
            return "if [ -d " + r + " ]; then cd -- " + r + " && " + lookup +
                   " && echo ok; else echo noroot; fi";
        case Purpose::FinishModes:
            break;
    }
    return "cd -- " + r + chmods + " && echo ok";
}

bool runScripts(ClsSsh& ssh, Purpose purpose, const std::string& root,
                const std::vector<SetupDirectory>& dirs, RemoteSetup& result) {
    std::vector<bool>& missing = result.missing;
    std::string& error = result.error;
    missing.assign(dirs.size(), false);
    for (size_t from = 0; from < dirs.size();) {
        size_t to = from, length = 0;
        while (to < dirs.size() && (to == from || length < kLongestScript))
            length += 3 * dirs[to++].path.size() + 16;
        RemoteRun run = runRemote(ssh, "prepareTreeDirectories",
                                  "sh -c " + shellQuotePath(script(purpose, root, dirs, from, to)));
        if (from == 0) {
            result.execSeconds = run.execSeconds;
            result.seconds = run.seconds;
        }
        if (run.out == "noroot\n") {
            missing.assign(dirs.size(), true);
            result.rootMissing = true;
            return true;
        }
        size_t tail = run.out.size() >= 3 ? run.out.size() - 3 : 0;
        if (!run.ran || run.out.compare(tail, std::string::npos, "ok\n") != 0) {
            error = !run.err.empty() ? run.err : "the server's shell did not run the commands";
            while (!error.empty() && error.back() == '\n') error.pop_back();
            return false;
        }
        for (size_t at = 0, end; (end = run.out.find('\n', at)) < tail; at = end + 1) {
            size_t i = from + std::strtoul(run.out.c_str() + at, nullptr, 10);
            if (i < to) missing[i] = true;
        }
        from = to;
    }
    return true;
}

// mkdir -p for a local directory; true when it exists afterwards.
bool makeLocalPath(const std::string& path, std::string& error) {
    if (isDirectory(path)) return true;
    size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !makeLocalPath(path.substr(0, slash), error))
        return false;
    if (::mkdir(path.c_str(), 0777) == 0 || (errno == EEXIST && isDirectory(path))) return true;
    error = "cannot make the local directory " + path + ": " + std::strerror(errno);
    return false;
}

}  // namespace

bool makeRemoteDirectories(ClsSsh& ssh, const std::string& root,
                           const std::vector<SetupDirectory>& dirs, RemoteSetup& result) {
    return runScripts(ssh, Purpose::Make, root, dirs, result);
}

bool findRemoteDirectories(ClsSsh& ssh, const std::string& root,
                           const std::vector<SetupDirectory>& dirs, RemoteSetup& result) {
    return runScripts(ssh, Purpose::Look, root, dirs, result);
}

bool finishRemoteModes(ClsSsh& ssh, const std::string& root,
                       const std::vector<SetupDirectory>& dirs, std::string& error) {
    std::vector<SetupDirectory> held;
    for (const SetupDirectory& d : dirs)
        if (!d.path.empty() && modeHeldBack(d.mode)) held.push_back(d);
    RemoteSetup result;
    if (held.empty() || runScripts(ssh, Purpose::FinishModes, root, held, result)) return true;
    error = result.error;
    return false;
}

bool makeLocalDirectories(const std::string& root, const std::vector<SetupDirectory>& dirs,
                          ExistingModes existing, std::vector<bool>& missing, std::string& error) {
    missing.assign(dirs.size(), false);
    for (size_t i = 0; i < dirs.size(); ++i) {
        std::string path = dirs[i].path.empty() ? root : joinPath(root, dirs[i].path);
        missing[i] = !isDirectory(path);
        if (!makeLocalPath(path, error)) return false;
        if (missing[i] || existing == ExistingModes::Set)
            ::chmod(path.c_str(), dirs[i].mode & 0777);
    }
    return true;
}

}  // namespace scpkit::cli
