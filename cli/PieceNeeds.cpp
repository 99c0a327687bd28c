#include "cli/PieceNeeds.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "cli/LocalFiles.h"

namespace scpkit::cli {

namespace {

// The remote scp sends times as whole seconds that the library reads into
// 32 unsigned bits; outside that range what it compares is not known here.
bool timeFits(int64_t seconds) {
    return seconds >= 0 && seconds <= static_cast<int64_t>(UINT32_MAX);
}

// The directories a piece walks: its own, and with `recurse` all below.
std::vector<size_t> piecesDirectories(const TreeShape& shape, const TreePiece& piece) {
    std::vector<size_t> out{piece.dir};
    for (size_t i = 0; piece.recurse && i < out.size(); ++i) {
        const std::vector<size_t>& children = shape.dirs[out[i]].children;
        out.insert(out.end(), children.begin(), children.end());
    }
    return out;
}

// What is at a local path: false when it cannot be told (a stat failing for
// another reason than absence, something neither file nor directory).
enum class LocalKind { Missing, File, Directory };
bool localKind(const std::string& path, LocalKind& kind, struct stat& st) {
    if (::stat(path.c_str(), &st) != 0) {
        kind = LocalKind::Missing;
        return errno == ENOENT;
    }
    kind = S_ISREG(st.st_mode) ? LocalKind::File : LocalKind::Directory;
    return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode);
}

std::string pathBelow(const std::string& dir, const std::string& name) {
    return dir.empty() ? name : dir + "/" + name;
}

}  // namespace

bool downloadTakes(int mode, const FileFigures& local, int64_t remoteSize, int64_t remoteTime) {
    if (mode == 0) return true;
    if (mode == 1) return !local.exists;
    if (!local.exists) return mode == 2 || mode == 5 || mode == 6;
    if (mode == 5) return local.size != remoteSize;
    if (remoteTime > local.time) return true;  // equal times are not newer
    return mode == 6 && local.size != remoteSize;
}

bool uploadSends(int mode, const FileFigures& remote, int64_t localSize, int64_t localTime) {
    if (mode == 0) return true;
    if (!remote.exists) return mode == 1 || mode == 2 || mode == 4 || mode == 5;
    if (mode == 1) return false;
    if (mode == 4) return remote.size != localSize;
    if (localTime > remote.time) return true;
    return mode == 5 && remote.size != localSize;
}

bool downloadPieceNeeded(const TreeShape& remote, const TreePiece& piece,
                         const std::string& localRoot, int mode) {
    if (mode == 0 || !piece.onlyNames.empty()) return true;
    for (size_t index : piecesDirectories(remote, piece)) {
        const TreeDirectory& d = remote.dirs[index];
        if (!d.known) return true;
        const std::string dirPath = d.path.empty() ? localRoot : joinPath(localRoot, d.path);
        struct stat st {};
        LocalKind kind;
        // A missing directory is made, whatever the files.
        if (!localKind(dirPath, kind, st) || kind != LocalKind::Directory) return true;
        for (size_t f = 0; f < d.fileNames.size(); ++f) {
            if (!timeFits(d.fileTimes[f])) return true;
            if (!localKind(joinPath(dirPath, d.fileNames[f]), kind, st)) return true;
            if (kind == LocalKind::Directory) return true;
            FileFigures local{kind == LocalKind::File, static_cast<int64_t>(st.st_size),
                              static_cast<int64_t>(st.st_mtim.tv_sec)};
            if (downloadTakes(mode, local, d.fileSizes[f], d.fileTimes[f])) return true;
        }
    }
    return false;
}

bool uploadPieceNeeded(const TreeShape& local, const TreePiece& piece,
                       const std::unordered_map<std::string, ListedEntry>& remote, int mode) {
    if (mode == 0 || !piece.onlyNames.empty()) return true;
    for (size_t index : piecesDirectories(local, piece)) {
        const TreeDirectory& d = local.dirs[index];
        if (!d.known) return true;
        // Every directory below the piece's own is sent as a "D" line: the
        // remote scp makes it, or gives an existing one that mode.
        if (index != piece.dir) {
            auto there = remote.find(d.path);
            if (there == remote.end() || !there->second.isDirectory || there->second.isLink ||
                there->second.mode != (d.mode & 0777)) {
                return true;
            }
        }
        for (size_t f = 0; f < d.fileNames.size(); ++f) {
            auto there = remote.find(pathBelow(d.path, d.fileNames[f]));
            FileFigures figures;
            if (there != remote.end()) {
                const ListedEntry& e = there->second;
                if (!e.isPlainFile || !e.readable || !timeFits(e.time)) return true;
                figures = {true, e.size, e.time};
            }
            if (uploadSends(mode, figures, d.fileSizes[f], d.fileTimes[f])) return true;
        }
    }
    return false;
}

}  // namespace scpkit::cli
