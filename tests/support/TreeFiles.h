// Local directory trees for the tree-synchronisation tests: files with
// chosen content, modes and times, and a printable snapshot of a whole tree
// that two trees are compared by. Scratch directories, whole-file reads and
// the rest come from ScpTestHelpers.h.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/ScpTestHelpers.h"

namespace scpkit::test {

// Writes a file, its parents created, with that mode and, when mtime is not
// negative, that modification and access time.
void writeFile(const std::string& path, const std::string& content, int64_t mtime = -1,
               unsigned mode = 0644);
void makeDir(const std::string& path, unsigned mode = 0755);

// Every entry below root (links not followed) by its relative path:
// "dir <mode>" for a directory, "<mode> <mtime> <content>" for anything else.
using TreeSnapshot = std::map<std::string, std::string>;
TreeSnapshot snapshotTree(const std::string& root);
// The relative paths below root (only the files when filesOnly), sorted.
std::vector<std::string> listTree(const std::string& root, bool filesOnly = false);
// The non-empty lines of a text, sorted.
std::vector<std::string> sortedLines(const std::string& text);

}  // namespace scpkit::test
