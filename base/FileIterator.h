// Directory listing, one entry at a time ("." and ".." included).
#pragma once

#include <string>

#include <scpkit/base/VostrelObject.h>

namespace scpkit {

class XString;
class LogBase;

class _vqFindFile : public VostrelObject {
  public:
    bool getFfFilename(XString& name, LogBase& log) const;
    // True for a real directory; a symbolic link is never a directory here,
    // so a walk does not follow links into other trees or round a cycle.
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

}  // namespace scpkit
