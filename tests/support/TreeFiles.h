// Local directory trees for the tests that copy them: files with chosen
// content, modes and times, and a snapshot of a whole tree that two trees
// are compared by. Whole-file reads and writes, pathExists and ScratchDir
// come from ScpTestHelpers.h.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/ScpTestHelpers.h"

namespace scpkit::test {

// A scratch directory under /tmp, removed with its content at scope end.
struct TreeDir : ScratchDir {
    std::string sub(const std::string& rel) const { return file(rel); }
};

inline std::string readFile(const std::string& path) {
    return readWholeFile(path);
}

// Writes a file, its parents created, with that mode and, when mtime is not
// negative, that modification and access time.
void writeFile(const std::string& path, const std::string& content, int64_t mtime = -1,
               unsigned mode = 0644);
void makeDir(const std::string& path, unsigned mode = 0755);

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

// Every entry below root (the root excluded; links are not followed).
TreeSnapshot snapshotTree(const std::string& root);
// The relative paths below root (only the files when filesOnly), sorted.
std::vector<std::string> listTree(const std::string& root, bool filesOnly = false);
// The non-empty lines of a text, sorted.
std::vector<std::string> sortedLines(const std::string& text);

}  // namespace scpkit::test
