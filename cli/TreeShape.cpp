#include "cli/TreeShape.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <cstdlib>
#include <unordered_map>
#include <utility>

#include "cli/LocalFiles.h"
#include "cli/Options.h"
#include "cli/RemoteShell.h"

namespace scpkit::cli {

namespace {

bool isSpaceChar(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

std::vector<std::string> patternList(const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t end = text.find(';', start);
        std::string piece = text.substr(start, end == std::string::npos ? end : end - start);
        size_t b = 0, e = piece.size();
        while (b < e && isSpaceChar(piece[b])) ++b;
        while (e > b && isSpaceChar(piece[e - 1])) --e;
        if (e > b) out.push_back(piece.substr(b, e - b));
        if (end == std::string::npos) return out;
        start = end + 1;
    }
}

bool matchesAny(const std::string& name, const std::vector<std::string>& patterns) {
    for (const std::string& p : patterns) {
        if (fnmatch(p.c_str(), name.c_str(), 0) == 0) return true;
    }
    return false;
}

bool keeps(const std::string& name, const std::vector<std::string>& match,
           const std::vector<std::string>& exclude) {
    if (!match.empty() && !matchesAny(name, match)) return false;
    return exclude.empty() || !matchesAny(name, exclude);
}

struct Identity {
    dev_t device;
    ino_t inode;
    bool operator==(const Identity& o) const { return device == o.device && inode == o.inode; }
};

// One directory of the local walk still to be read, with the directories
// of its path (itself last): their indices and what they are on disk.
struct PendingDir {
    std::vector<size_t> path;
    std::vector<Identity> onPath;
};

// Reads one directory: its kept files, and its subdirectories to visit.
void readLocalDirectory(TreeShape& shape, const std::string& root, PendingDir& at,
                        const NameFilters& filters, std::vector<PendingDir>& next) {
    const size_t index = at.path.back();
    std::string dirPath = joinPath(root, shape.dirs[index].path);
    DIR* dir = ::opendir(dirPath.c_str());
    if (!dir) return;  // the piece that copies it will say why
    while (dirent* e = ::readdir(dir)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        struct stat st {};
        bool examined = ::fstatat(::dirfd(dir), e->d_name, &st, 0) == 0;
        bool isDir = (e->d_type == DT_LNK || e->d_type == DT_UNKNOWN)
                         ? examined && S_ISDIR(st.st_mode)
                         : e->d_type == DT_DIR;
        if (!isDir) {
            if (!filters.keepsFile(name)) continue;
            TreeDirectory& d = shape.dirs[index];
            ++d.files;
            d.bytes += examined ? static_cast<int64_t>(st.st_size) : 0;
            d.fileNames.push_back(name);
            continue;
        }
        if (!filters.keepsDirectory(name)) continue;
        Identity id{st.st_dev, st.st_ino};
        size_t found = 0;
        while (examined && found < at.onPath.size() && !(at.onPath[found] == id)) ++found;
        if (examined && found < at.onPath.size()) {
            // A link back to a directory of the path is passed over, by a
            // piece too as long as that directory lies on the piece's path:
            // it is not cut below.
            shape.dirs[at.path[found]].keepWhole = true;
            continue;
        }
        TreeDirectory child;
        child.path = joinPath(shape.dirs[index].path, name);
        child.mode = st.st_mode & 07777;
        shape.dirs[index].children.push_back(shape.dirs.size());
        PendingDir pending{at.path, at.onPath};
        pending.path.push_back(shape.dirs.size());
        pending.onPath.push_back(id);
        shape.dirs.push_back(std::move(child));
        next.push_back(std::move(pending));
    }
    ::closedir(dir);
}

std::string lastName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

NameFilters::NameFilters(const TreeOptions& tree)
    : m_match(patternList(tree.match)),
      m_exclude(patternList(tree.exclude)),
      m_matchDir(patternList(tree.matchDir)),
      m_excludeDir(patternList(tree.excludeDir)) {}

bool NameFilters::keepsFile(const std::string& name) const {
    return keeps(name, m_match, m_exclude);
}

bool NameFilters::keepsDirectory(const std::string& name) const {
    return keeps(name, m_matchDir, m_excludeDir);
}

TreeShape localTreeShape(const std::string& root, const NameFilters& filters) {
    TreeShape shape;
    struct stat st {};
    TreeDirectory top;
    bool examined = ::stat(root.c_str(), &st) == 0;
    top.mode = examined ? st.st_mode & 07777 : 0;
    shape.dirs.push_back(top);
    std::vector<PendingDir> pending;
    pending.push_back({{0}, {}});
    // A root that cannot be examined has no place on the path; nothing can
    // lead back to it then.
    pending.back().onPath.push_back({examined ? st.st_dev : 0, examined ? st.st_ino : 0});
    // Depth first, each directory's children in the order they were read,
    // so that parents come before their children.
    while (!pending.empty()) {
        PendingDir at = std::move(pending.back());
        pending.pop_back();
        std::vector<PendingDir> next;
        readLocalDirectory(shape, root, at, filters, next);
        for (auto it = next.rbegin(); it != next.rend(); ++it) pending.push_back(std::move(*it));
    }
    return shape;
}

std::string remoteListingCommand(const std::string& remoteRoot) {
    std::string root = remoteRoot.empty() ? "." : remoteRoot;
    if (root[0] == '-') root = "./" + root;  // not an option of find
    // Type (and, for a link, what it leads to), mode, size and path below
    // the root of every entry, NUL-terminated; links below the root are
    // not followed, so a linked directory shows as one entry.
    std::string find = "find -H " + shellQuotePath(root) + " -printf '%y%Y %m %s %P\\0'";
    return "sh -c " + shellQuotePath(find);
}

bool parseRemoteListing(const std::string& listing, const NameFilters& filters, TreeShape& shape) {
    shape = TreeShape();
    std::unordered_map<std::string, size_t> dirIndex;
    size_t start = 0;
    for (size_t end; (end = listing.find('\0', start)) != std::string::npos; start = end + 1) {
        std::string record = listing.substr(start, end - start);
        size_t s1 = record.find(' ');
        size_t s2 = s1 == std::string::npos ? s1 : record.find(' ', s1 + 1);
        size_t s3 = s2 == std::string::npos ? s2 : record.find(' ', s2 + 1);
        if (s1 != 2 || s3 == std::string::npos) return false;
        const bool isDir = record[1] == 'd', isLink = record[0] == 'l';
        unsigned mode = static_cast<unsigned>(std::strtoul(record.c_str() + 3, nullptr, 8));
        int64_t size = std::strtoll(record.c_str() + s2 + 1, nullptr, 10);
        std::string path = record.substr(s3 + 1);
        if (shape.dirs.empty()) {
            if (!isDir || !path.empty()) return false;
            shape.dirs.push_back(TreeDirectory());
            shape.dirs[0].mode = mode & 07777;
            dirIndex[""] = 0;
            continue;
        }
        if (path.empty()) return false;
        size_t slash = path.find_last_of('/');
        auto parent = dirIndex.find(slash == std::string::npos ? "" : path.substr(0, slash));
        if (parent == dirIndex.end()) continue;  // below a directory the filters leave out
        const std::string name = lastName(path);
        if (!isDir) {
            if (!filters.keepsFile(name)) continue;
            ++shape.dirs[parent->second].files;
            shape.dirs[parent->second].bytes += size;
            continue;
        }
        if (!filters.keepsDirectory(name)) continue;
        TreeDirectory d;
        d.path = path;
        d.mode = mode & 07777;
        d.keepWhole = isLink;  // what lies below was not listed
        shape.dirs[parent->second].children.push_back(shape.dirs.size());
        dirIndex[path] = shape.dirs.size();
        shape.dirs.push_back(std::move(d));
    }
    return !shape.dirs.empty();
}

}  // namespace scpkit::cli
