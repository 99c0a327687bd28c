// Directory listing, one entry at a time ("." and ".." included).
#pragma once

#include <cstdint>
#include <string>

#include <scpkit/base/VostrelObject.h>

namespace scpkit {

class XString;
class LogBase;

class _vqFindFile : public VostrelObject {
  public:
    bool getFfFilename(XString& name, LogBase& log) const;
    // True for a directory or a symbolic link to one (links are followed as
    // scp -r follows them; a walk guards against cycles with DirIdentity).
    bool isDirectory() const { return m_isDir; }

  protected:
    std::string m_name;
    bool m_isDir = false;
};

class _vqFileIterator : public _vqFindFile {
  public:
    static _vqFileIterator* createNewObject();
    ~_vqFileIterator() override;

    // On success the iterator stands on the first entry.
    bool openDirectory(const XString& path, LogBase& log);
    // False at the end (then m_hasEntry is false).
    bool advanceToNext(LogBase& log);
    void closeDirectory();

    bool m_hasEntry = false;  // stands on an entry

  private:
    _vqFileIterator() = default;
    bool readEntry();

    void* m_dir = nullptr;  // DIR*
    std::string m_path;
};

// What a directory is on disk, whatever path leads to it: a walk that
// follows links enters each real directory at most once per path.
struct DirIdentity {
    uint64_t device = 0;
    uint64_t inode = 0;
    bool operator==(const DirIdentity& o) const { return device == o.device && inode == o.inode; }
    // Links followed; false when the path cannot be examined.
    static bool of(const XString& path, DirIdentity& id);
};

}  // namespace scpkit
