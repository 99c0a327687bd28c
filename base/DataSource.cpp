#include <scpkit/base/DataSource.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <scpkit/base/FileTime.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/XString.h>

namespace scpkit {

namespace {

const char* fileKindName(mode_t mode) {
    if (S_ISDIR(mode)) return "directory";
    if (S_ISFIFO(mode)) return "fifo";
    if (S_ISCHR(mode)) return "character device";
    if (S_ISBLK(mode)) return "block device";
    if (S_ISSOCK(mode)) return "socket";
    return "not a regular file";
}

}  // namespace

_vqFileDataSource::~_vqFileDataSource() {
    closeFile();
}

bool _vqFileDataSource::openDataSourceFile(const XString& path, LogBase& log) {
    closeFile();
    // O_NONBLOCK so that opening a fifo without a writer returns at once;
    // it is cleared again before reading.
    int fd = ::open(path.getUtf8(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        int err = errno;
        log.LogError("Failed to open local file for reading.");
        log.LogData("localFilePath", path.getUtf8());
        log.LogData("osError", std::strerror(err));
        return false;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        int err = errno;
        ::close(fd);
        log.LogError("Failed to examine the local file.");
        log.LogData("localFilePath", path.getUtf8());
        log.LogData("osError", std::strerror(err));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        log.LogError("Not a regular file.");
        log.LogData("localFilePath", path.getUtf8());
        log.LogData("fileKind", fileKindName(st.st_mode));
        return false;
    }
    int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    // Advice only: the file is read once from start to end.
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    m_fd = fd;
    return true;
}

int64_t _vqFileDataSource::getFileSize64(LogBase* log) {
    struct stat st;
    if (m_fd < 0 || ::fstat(m_fd, &st) != 0) {
        if (log) log->LogError("Failed to get the size of the local file.");
        return -1;
    }
    return static_cast<int64_t>(st.st_size);
}

bool _vqFileDataSource::getFileTime(VostrelFileTime& creation, VostrelFileTime& lastAccess,
                                    VostrelFileTime& lastMod) {
    struct stat st;
    if (m_fd < 0 || ::fstat(m_fd, &st) != 0) return false;
    lastAccess.fromUnixTime64(static_cast<int64_t>(st.st_atim.tv_sec));
    lastMod.fromUnixTime64(static_cast<int64_t>(st.st_mtim.tv_sec));
    // stat keeps no creation time; the last modification is the closest.
    creation.copyFrom(lastMod);
    return true;
}

bool _vqFileDataSource::getUnixModePerms(unsigned& perms, LogBase& log) {
    struct stat st;
    if (m_fd < 0 || ::fstat(m_fd, &st) != 0) {
        log.LogError("Failed to get the permissions of the local file.");
        return false;
    }
    perms = static_cast<unsigned>(st.st_mode & 07777);
    return true;
}

void _vqFileDataSource::closeFile() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

bool _vqFileDataSource::readSourceChunk(unsigned char* buf, size_t maxBytes, size_t& numRead,
                                        LogBase& log) {
    numRead = 0;
    if (m_fd < 0) {
        log.LogError("The local file is not open.");
        return false;
    }
    if (maxBytes == 0) return true;
    for (;;) {
        ssize_t n = ::read(m_fd, buf, maxBytes);
        if (n >= 0) {
            numRead = static_cast<size_t>(n);
            return true;
        }
        if (errno == EINTR) continue;
        int err = errno;
        log.LogError("Failed to read from the local file.");
        log.LogData("osError", std::strerror(err));
        return false;
    }
}

_vqMemoryDataSource::~_vqMemoryDataSource() {
    if (m_origin) m_origin->swapWith(m_data);
}

void _vqMemoryDataSource::takeDataBuffer(DataBuffer& buffer) {
    // Give back what an earlier call took before taking the new bytes.
    if (m_origin) m_origin->swapWith(m_data);
    m_data.clear();
    m_data.swapWith(buffer);
    m_origin = &buffer;
    m_pos = 0;
}

bool _vqMemoryDataSource::readSourceChunk(unsigned char* buf, size_t maxBytes, size_t& numRead,
                                          LogBase& /*log*/) {
    size_t left = m_data.getSize() - m_pos;
    numRead = std::min(maxBytes, left);
    if (numRead > 0) {
        std::memcpy(buf, m_data.getData2() + m_pos, numRead);
        m_pos += numRead;
    }
    return true;
}

bool _vqMemoryDataSource::lendSourceChunk(const unsigned char*& data, size_t maxBytes,
                                          size_t& numRead) {
    numRead = std::min(maxBytes, m_data.getSize() - m_pos);
    data = m_data.getData2() + m_pos;
    m_pos += numRead;
    return true;
}

}  // namespace scpkit
