#include <scpkit/base/FileSys.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <scpkit/base/FileTime.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/XString.h>

namespace scpkit {

namespace {

void logOsError(LogBase* log, const char* what, const char* path, int err) {
    if (!log) return;
    log->LogError(what);
    log->LogData("path", path);
    log->LogData("osError", std::strerror(err));
}

// A missing path is an answer, not a fault: callers ask to learn whether
// something is there.
bool isMissing(int err) {
    return err == ENOENT || err == ENOTDIR;
}

bool statPath(const char* path, struct stat& st, bool* noAccess, LogBase* log) {
    if (noAccess) *noAccess = false;
    if (::stat(path, &st) == 0) return true;
    int err = errno;
    if (!isMissing(err)) {
        if (noAccess) *noAccess = true;
        logOsError(log, "Cannot examine the local path.", path, err);
    }
    return false;
}

}  // namespace

bool FileSys::fileExistsX(const XString& path, bool* noAccess, LogBase* log) {
    struct stat st;
    return statPath(path.getUtf8(), st, noAccess, log) && S_ISREG(st.st_mode);
}

bool FileSys::IsExistingDirectory(const XString& path, bool* noAccess, LogBase* log) {
    struct stat st;
    return statPath(path.getUtf8(), st, noAccess, log) && S_ISDIR(st.st_mode);
}

int64_t FileSys::fileSizeX_64(const XString& path, LogBase* log, bool& ok) {
    ok = false;
    struct stat st;
    if (::stat(path.getUtf8(), &st) != 0) {
        logOsError(log, "Failed to get the size of a local file.", path.getUtf8(), errno);
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        if (log) {
            log->LogError("Not a regular file.");
            log->LogData("path", path.getUtf8());
        }
        return -1;
    }
    ok = true;
    return static_cast<int64_t>(st.st_size);
}

unsigned FileSys::getUnixPerms(const XString& path, LogBase* log, bool& ok) {
    ok = false;
    struct stat st;
    if (::stat(path.getUtf8(), &st) != 0) {
        logOsError(log, "Failed to get the permissions of a local path.", path.getUtf8(), errno);
        return 0;
    }
    ok = true;
    return static_cast<unsigned>(st.st_mode & 07777);
}

bool FileSys::GetFileLastModTimeGmt(const XString& path, VostrelFileTime& t, LogBase* log) {
    struct stat st;
    if (::stat(path.getUtf8(), &st) != 0) {
        logOsError(log, "Failed to get the last-modified time of a local file.", path.getUtf8(),
                   errno);
        return false;
    }
    t.fromUnixTime64(static_cast<int64_t>(st.st_mtim.tv_sec));
    return true;
}

bool FileSys::setPerm(const XString& path, unsigned perms, LogBase* log) {
    // A device or fifo named as a download's target keeps its own mode.
    struct stat st;
    if (::stat(path.getUtf8(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
        if (log) {
            log->LogError("Not changing the permissions of a local path that is not a file.");
            log->LogData("path", path.getUtf8());
        }
        return false;
    }
    if (::chmod(path.getUtf8(), static_cast<mode_t>(perms & 07777)) == 0) return true;
    logOsError(log, "Failed to set the permissions of a local path.", path.getUtf8(), errno);
    return false;
}

bool FileSys::deleteFileUtf8(const char* path, LogBase* log) {
    if (!path) return false;
    // Only files: a device, fifo or socket named as a download's target was
    // written through, not made, and must outlive a failed download.
    struct stat st;
    if (::lstat(path, &st) == 0 && !S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) {
        if (log) {
            log->LogError("Not deleting a local path that is not a file.");
            log->LogData("path", path);
        }
        return false;
    }
    if (::unlink(path) == 0) return true;
    logOsError(log, "Failed to delete a local file.", path, errno);
    return false;
}

bool FileSys::createDir(const XString& path, LogBase* log) {
    const char* p = path.getUtf8();
    if (::mkdir(p, 0777) == 0) return true;
    int err = errno;
    // Nothing to create: the directory the caller wants is already there.
    struct stat st;
    if (err == EEXIST && ::stat(p, &st) == 0 && S_ISDIR(st.st_mode)) return true;
    logOsError(log, "Failed to create a local directory.", p, err);
    return false;
}

bool DirAutoCreate::ensureDirUtf8(const char* path, LogBase* log) {
    if (!path || !*path) return false;
    const std::string full(path);
    // Walk the components from the top, creating each one that is missing.
    size_t pos = 0;
    while (pos < full.size()) {
        size_t slash = full.find('/', pos);
        size_t end = (slash == std::string::npos) ? full.size() : slash;
        if (end > 0 && end > pos) {
            const std::string prefix = full.substr(0, end);
            struct stat st;
            if (::stat(prefix.c_str(), &st) == 0) {
                if (!S_ISDIR(st.st_mode)) {
                    if (log) {
                        log->LogError("A path component is not a directory.");
                        log->LogData("path", prefix.c_str());
                    }
                    return false;
                }
            } else if (::mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) {
                logOsError(log, "Failed to create a local directory.", prefix.c_str(), errno);
                return false;
            }
        }
        pos = end + 1;
    }
    struct stat st;
    if (::stat(path, &st) == 0 && S_ISDIR(st.st_mode)) return true;
    if (log) {
        log->LogError("The local directory does not exist after creating it.");
        log->LogData("path", path);
    }
    return false;
}

}  // namespace scpkit
