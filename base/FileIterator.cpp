#include <scpkit/base/FileIterator.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>

#include <scpkit/base/LogBase.h>
#include <scpkit/base/XString.h>

namespace scpkit {

bool _vqFindFile::getFfFilename(XString& name, LogBase& log) const {
    if (m_name.empty()) {
        log.LogError("No directory entry to read.");
        return false;
    }
    return name.setFromUtf8(m_name.c_str());
}

_vqFileIterator* _vqFileIterator::createNewObject() {
    return new (std::nothrow) _vqFileIterator();
}

_vqFileIterator::~_vqFileIterator() {
    closeDirectory();
}

bool _vqFileIterator::openDirectory(const XString& path, LogBase& log) {
    closeDirectory();
    DIR* dir = ::opendir(path.getUtf8());
    if (!dir) {
        int err = errno;
        log.LogError("Failed to open a local directory.");
        log.LogData("path", path.getUtf8());
        log.LogData("osError", std::strerror(err));
        return false;
    }
    m_dir = dir;
    m_path = path.getUtf8();
    // A directory that vanished after opening lists nothing; that is an empty
    // listing, not a failure to open.
    readEntry();
    return true;
}

bool _vqFileIterator::advanceToNext(LogBase& /*log*/) {
    if (!m_dir) return false;
    return readEntry();
}

void _vqFileIterator::closeDirectory() {
    if (m_dir) ::closedir(static_cast<DIR*>(m_dir));
    m_dir = nullptr;
    m_hasEntry = false;
    m_name.clear();
    m_isDir = false;
}

bool _vqFileIterator::readEntry() {
    DIR* dir = static_cast<DIR*>(m_dir);
    struct dirent* entry = ::readdir(dir);
    if (!entry) {
        m_hasEntry = false;
        m_name.clear();
        m_isDir = false;
        return false;
    }
    m_name = entry->d_name;
    if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
        // A link counts as what it leads to (a dangling one as no directory);
        // some file systems do not fill in the type at all.
        struct stat st;
        m_isDir = ::fstatat(::dirfd(dir), entry->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
    } else {
        m_isDir = entry->d_type == DT_DIR;
    }
    m_hasEntry = true;
    return true;
}

bool DirIdentity::of(const XString& path, DirIdentity& id) {
    struct stat st;
    if (::stat(path.getUtf8(), &st) != 0) return false;
    id.device = static_cast<uint64_t>(st.st_dev);
    id.inode = static_cast<uint64_t>(st.st_ino);
    return true;
}

}  // namespace scpkit
