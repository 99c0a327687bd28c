#include "cli/DownloadTarget.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli/Interrupt.h"

namespace scpkit::cli {

namespace {

// Starts with a dot and has no extension: a user's wildcards (*.txt,
// *.part) do not pick it up, and ls does not show it.
constexpr const char* kTemporaryName = ".scpkit-partial-XXXXXX";

std::string directoryOf(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

DownloadTarget::~DownloadTarget() {
    discard();
}

bool DownloadTarget::prepare(const std::string& path, std::string& error) {
    m_final = path;
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        // Writing through a link replaces what it points to, not the link.
        char resolved[PATH_MAX];
        if (::realpath(path.c_str(), resolved)) m_final = resolved;
    }
    bool exists = ::stat(m_final.c_str(), &st) == 0;
    if (exists && S_ISDIR(st.st_mode)) {
        error = m_final + " is a directory";
        return false;
    }
    if (exists && !S_ISREG(st.st_mode)) return true;  // written directly
    m_replacesExisting = exists;
    m_ownerUid = exists ? st.st_uid : 0;
    m_ownerGid = exists ? st.st_gid : 0;

    std::string dir = directoryOf(m_final);
    std::string name = dir + "/" + kTemporaryName;
    int fd = ::mkstemp(name.data());  // mode 0600
    if (fd < 0) {
        int err = errno;
        struct stat dirStat;
        if (::stat(dir.c_str(), &dirStat) != 0 || !S_ISDIR(dirStat.st_mode)) {
            error = "no such directory: " + dir;
        } else {
            error = "cannot write in " + dir + ": " + std::strerror(err);
        }
        return false;
    }
    ::close(fd);
    m_temporary = name;
    setPartialLocalFile(m_temporary);
    return true;
}

bool DownloadTarget::commit(std::string& error) {
    if (m_temporary.empty()) return true;
    if (m_replacesExisting && (::geteuid() == 0)) {
        // Only root can give a file away; for anyone else the owner is
        // already the one who replaces it.
        (void)!::chown(m_temporary.c_str(), m_ownerUid, m_ownerGid);
    }
    if (::rename(m_temporary.c_str(), m_final.c_str()) != 0) {
        error = "cannot put the download in place as " + m_final + ": " + std::strerror(errno);
        discard();
        return false;
    }
    m_temporary.clear();
    setPartialLocalFile("");
    return true;
}

void DownloadTarget::discard() {
    if (m_temporary.empty()) return;
    ::unlink(m_temporary.c_str());
    m_temporary.clear();
    setPartialLocalFile("");
}

}  // namespace scpkit::cli
