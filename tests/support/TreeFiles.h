// Local directory trees for the tree-synchronisation tests: a scratch
// directory removed at scope end, files with chosen sizes, modes and times,
// and a snapshot of a tree that two trees can be compared by.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace scpkit::test {

// A fresh directory under /tmp (or under `parent`), removed with everything
// in it when the object goes.
class TreeDir {
  public:
    explicit TreeDir(const std::string& parent = "/tmp");
    ~TreeDir();
    TreeDir(const TreeDir&) = delete;
    TreeDir& operator=(const TreeDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string sub(const std::string& rel) const { return m_path + "/" + rel; }

  private:
    std::string m_path;
};

// Writes a file (parents created) with the content, the mode and, when
// mtime is not negative, that modification and access time.
void writeFile(const std::string& path, const std::string& content, int64_t mtime = -1,
               unsigned mode = 0644);
void makeDir(const std::string& path, unsigned mode = 0755);
void setMtime(const std::string& path, int64_t mtime);
std::string readFile(const std::string& path);
bool pathExists(const std::string& path);
void removeTree(const std::string& path);

// One entry of a tree, keyed in a snapshot by its path relative to the root.
struct TreeEntry {
    bool isDir = false;
    unsigned mode = 0;  // permission bits (07777)
    int64_t mtime = 0;  // files only
    std::string content;
    bool operator==(const TreeEntry& o) const {
        return isDir == o.isDir && mode == o.mode && mtime == o.mtime && content == o.content;
    }
};
using TreeSnapshot = std::map<std::string, TreeEntry>;

// Every entry below root (the root itself excluded); links are not followed.
TreeSnapshot snapshotTree(const std::string& root);
// Relative paths of every entry below root, sorted.
std::vector<std::string> listTree(const std::string& root);
// The lines of a text, without empty ones, sorted.
std::vector<std::string> sortedLines(const std::string& text);

}  // namespace scpkit::test
