#include <scpkit/base/Output.h>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <new>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/FileTime.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/Progress.h>

namespace scpkit {

bool _vqOutput::writeBytes(const unsigned char* data, size_t numBytes, ProgressMonitor* pm,
                           LogBase& log) {
    if (numBytes == 0) return true;
    if (!writeImpl(data, numBytes, log)) return false;
    if (m_reportsProgress && pm) {
        // True means the application asked to stop.
        if (pm->consumeProgress(static_cast<int64_t>(numBytes), &log)) return false;
    }
    return true;
}

void OutputDataBuffer::resetOutput(LogBase& /*log*/) {
    if (m_buffer) m_buffer->clear();
}

void OutputDataBuffer::expectBytes(long long numBytes) {
    if (!m_buffer || numBytes <= 0) return;
    // Reserved room is address space until bytes arrive, so a size that a
    // server announces but never sends costs no memory. The size comes from
    // the server, so the reservation is capped: beyond the cap the buffer
    // grows as the bytes come, and a lying size cannot make us ask for
    // exabytes at once.
    constexpr long long kMaxReserve = 1LL << 30;
    try {
        m_buffer->reserve(m_buffer->getSize() +
                          static_cast<size_t>(std::min(numBytes, kMaxReserve)));
    } catch (const std::exception&) {
    }
}

bool OutputDataBuffer::writeImpl(const unsigned char* data, size_t numBytes, LogBase& log) {
    if (!m_buffer) {
        log.LogError("No buffer to write to.");
        return false;
    }
    if (m_buffer->append(data, numBytes)) return true;
    log.LogError("Failed to append to the memory buffer.");
    return false;
}

OutputFile* OutputFile::createFileUtf8(const char* path, LogBase& log) {
    if (!path) return nullptr;
    // O_NONBLOCK keeps the open from waiting on a fifo without a reader; it
    // is cleared at once, so writes block as usual. No O_TRUNC: only a
    // regular file is emptied, after fstat says that is what was opened.
    int fd = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    struct stat st;
    bool regular = fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (fd < 0 || (regular && ::ftruncate(fd, 0) != 0)) {
        int err = errno;
        if (fd >= 0) ::close(fd);
        log.LogError("Failed to create local file.");
        log.LogData("localFilePath", path);
        log.LogData("osError", std::strerror(err));
        return nullptr;
    }
    int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    OutputFile* out = new (std::nothrow) OutputFile(fd, regular);
    if (!out) {
        ::close(fd);
        log.LogError("Out of memory.");
    }
    return out;
}

OutputFile::~OutputFile() {
    closeHandle();
}

bool OutputFile::setFileTimeUtc_3(const VostrelFileTime& /*creation*/,
                                  const VostrelFileTime& lastAccess, const VostrelFileTime& lastMod,
                                  LogBase* log) {
    if (m_fd < 0) {
        if (log) log->LogError("Cannot set the times of a closed file.");
        return false;
    }
    // A device or fifo named as the target keeps its own times.
    if (!m_regular) return true;
    struct timespec times[2];
    times[0].tv_sec = static_cast<time_t>(lastAccess.toUnixTime64());
    times[0].tv_nsec = 0;
    times[1].tv_sec = static_cast<time_t>(lastMod.toUnixTime64());
    times[1].tv_nsec = 0;
    if (::futimens(m_fd, times) == 0) return true;
    if (log) {
        int err = errno;
        log->LogError("Failed to set the local file's times.");
        log->LogData("osError", std::strerror(err));
    }
    return false;
}

void OutputFile::closeHandle() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

void OutputFile::resetOutput(LogBase& log) {
    // What went into a device or fifo cannot be taken back, and its size is not ours.
    if (m_fd < 0 || !m_regular) return;
    if (::ftruncate(m_fd, 0) != 0 || ::lseek(m_fd, 0, SEEK_SET) < 0) {
        int err = errno;
        log.LogError("Failed to truncate the local file.");
        log.LogData("osError", std::strerror(err));
    }
}

bool OutputFile::writeImpl(const unsigned char* data, size_t numBytes, LogBase& log) {
    if (m_fd < 0) {
        log.LogError("The local file is closed.");
        return false;
    }
    while (numBytes > 0) {
        ssize_t n = ::write(m_fd, data, numBytes);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            // A write that moves nothing would only repeat itself.
            int err = n < 0 ? errno : EIO;
            log.LogError("Failed to write to the local file.");
            log.LogData("osError", std::strerror(err));
            return false;
        }
        data += n;
        numBytes -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace scpkit
