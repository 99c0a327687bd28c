// The directories of a tree that push or pull copies, as the library's walk
// meets them: the same name filters applied, each directory with the files
// it holds directly. push reads it from the local disk, pull from one
// listing command run on the server.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace scpkit::cli {

struct TreeOptions;

// The wildcard filters of push and pull as the library applies them: bare
// names against ';'-separated lists, each pattern trimmed, empty ones
// dropped; a name is kept when it matches a must-match pattern (if there
// are any) and no must-not-match one.
class NameFilters {
  public:
    explicit NameFilters(const TreeOptions& tree);
    bool keepsFile(const std::string& name) const;
    bool keepsDirectory(const std::string& name) const;
    bool filtersDirectories() const { return !m_matchDir.empty() || !m_excludeDir.empty(); }

  private:
    std::vector<std::string> m_match, m_exclude, m_matchDir, m_excludeDir;
};

struct TreeDirectory {
    std::string path;   // below the root, no leading '/'; "" for the root
    unsigned mode = 0;  // its permission bits
    // The files directly in it that the file filters keep: their number,
    // bytes, names, sizes and modification times (whole seconds).
    int64_t files = 0;
    int64_t bytes = 0;
    std::vector<std::string> fileNames;
    std::vector<int64_t> fileSizes, fileTimes;
    std::vector<size_t> children;  // indices in TreeShape::dirs
    // Copied only by one piece together with everything below it: what lies
    // below is not fully known, or a walk starting lower would differ.
    bool keepWhole = false;
    // Its entries are plain files and directories whose figures are known:
    // what a copy would do with them can be told beforehand.
    bool known = true;
};

struct TreeShape {
    std::vector<TreeDirectory> dirs;  // [0] is the root; every parent before its children
};

// push: walks `root` as the library does: links to directories followed,
// a directory already on the path not entered again, the filters applied
// below the root.
TreeShape localTreeShape(const std::string& root, const NameFilters& filters);

// The command that lists a remote tree: every entry's type, mode, size,
// time and path below `quotedRoot` (a word for the shell).
std::string findCommand(const std::string& quotedRoot);
// The same through sh, for `remoteRoot` as the user gave it.
std::string remoteListingCommand(const std::string& remoteRoot);

// One entry of the listing.
struct ListedEntry {
    bool isDirectory = false;  // or a link to one
    bool isPlainFile = false;  // a regular file, not a link to one
    bool isLink = false;
    bool readable = true;  // by the user the server runs the command as
    unsigned mode = 0;
    int64_t size = 0, time = 0;
};
// Every entry below the root, by path (the root as ""); false when the
// output is not a listing of a directory.
bool parseListing(const std::string& listing, std::unordered_map<std::string, ListedEntry>& out);

// pull: the tree read from the listing, the filters applied.
bool parseRemoteListing(const std::string& listing, const NameFilters& filters, TreeShape& shape);

}  // namespace scpkit::cli
