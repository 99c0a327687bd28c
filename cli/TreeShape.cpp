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
    if (!dir) {
        shape.dirs[index].known = false;  // the piece that copies it will say why
        return;
    }
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
            d.fileSizes.push_back(examined ? static_cast<int64_t>(st.st_size) : -1);
            d.fileTimes.push_back(examined ? static_cast<int64_t>(st.st_mtim.tv_sec) : 0);
            d.known = d.known && examined && S_ISREG(st.st_mode);
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

// One entry of find's listing: "TTR MODE SIZE TIME PATH", R telling
// whether it can be read.
struct Record {
    ListedEntry entry;
    std::string path;
};

template <class Visit>
bool forEachRecord(const std::string& listing, Visit visit) {
    size_t start = 0;
    for (size_t end; (end = listing.find('\0', start)) != std::string::npos; start = end + 1) {
        std::string text = listing.substr(start, end - start);
        size_t at[4] = {std::string::npos, 0, 0, 0};
        at[0] = text.find(' ');
        for (int i = 1; i < 4 && at[i - 1] != std::string::npos; ++i)
            at[i] = text.find(' ', at[i - 1] + 1);
        if (at[0] != 3 || at[3] == std::string::npos) return false;
        Record r;
        r.entry.isLink = text[0] == 'l';
        r.entry.readable = text[2] == 'r';
        r.entry.isDirectory = text[1] == 'd';
        r.entry.isPlainFile = text[0] == 'f' && text[1] == 'f';
        r.entry.mode = static_cast<unsigned>(std::strtoul(text.c_str() + 4, nullptr, 8)) & 07777;
        r.entry.size = std::strtoll(text.c_str() + at[1] + 1, nullptr, 10);
        r.entry.time = std::strtoll(text.c_str() + at[2] + 1, nullptr, 10);  // whole seconds
        r.path = text.substr(at[3] + 1);
        if (!visit(r)) return false;
    }
    return true;
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

std::string findCommand(const std::string& quotedRoot) {
    // Type (and, for a link, what it leads to), whether it can be read,
    // mode, size, time and path below the root of every entry,
    // NUL-terminated; links below the root are not followed, so a linked
    // directory shows as one entry.
    return "find -H " + quotedRoot +
           " -printf '%y%Y' \\( -readable -printf r -o -printf u \\)"
           " -printf ' %m %s %T@ %P\\0'";
}

std::string remoteListingCommand(const std::string& remoteRoot) {
    std::string root = remoteRoot.empty() ? "." : remoteRoot;
    if (root[0] == '-') root = "./" + root;  // not an option of find
    return "sh -c " + shellQuotePath(findCommand(shellQuotePath(root)));
}

bool parseListing(const std::string& listing, std::unordered_map<std::string, ListedEntry>& out) {
    out.clear();
    bool parsed = forEachRecord(listing, [&out](const Record& r) {
        out[r.path] = r.entry;
        return true;
    });
    auto root = out.find("");
    return parsed && root != out.end() && root->second.isDirectory;
}

bool parseRemoteListing(const std::string& listing, const NameFilters& filters, TreeShape& shape) {
    shape = TreeShape();
    std::unordered_map<std::string, size_t> dirIndex;
    bool parsed = forEachRecord(listing, [&](const Record& r) {
        if (shape.dirs.empty()) {  // the root comes first
            if (!r.entry.isDirectory || !r.path.empty()) return false;
            shape.dirs.push_back(TreeDirectory());
            shape.dirs[0].mode = r.entry.mode;
            dirIndex[""] = 0;
            return true;
        }
        if (r.path.empty()) return false;
        size_t slash = r.path.find_last_of('/');
        auto parent = dirIndex.find(slash == std::string::npos ? "" : r.path.substr(0, slash));
        if (parent == dirIndex.end()) return true;  // below a directory the filters leave out
        const std::string name = lastName(r.path);
        TreeDirectory& in = shape.dirs[parent->second];
        if (!r.entry.isDirectory) {
            if (!filters.keepsFile(name)) return true;
            ++in.files;
            in.bytes += r.entry.size;
            in.fileNames.push_back(name);
            in.fileSizes.push_back(r.entry.size);
            in.fileTimes.push_back(r.entry.time);
            in.known = in.known && r.entry.isPlainFile && r.entry.readable;
            return true;
        }
        if (!filters.keepsDirectory(name)) return true;
        TreeDirectory d;
        d.path = r.path;
        d.mode = r.entry.mode;
        d.keepWhole = r.entry.isLink;  // what lies below was not listed
        d.known = !r.entry.isLink && r.entry.readable;
        in.children.push_back(shape.dirs.size());
        dirIndex[r.path] = shape.dirs.size();
        shape.dirs.push_back(std::move(d));
        return true;
    });
    return parsed && !shape.dirs.empty();
}

}  // namespace scpkit::cli
