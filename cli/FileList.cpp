#include "cli/FileList.h"

#include <unistd.h>
#include <cerrno>
#include <sstream>

#include "cli/SafeText.h"

namespace scpkit::cli {

FileList::FileList(bool enabled, int fd) : m_enabled(enabled), m_fd(fd), m_terminal(isatty(fd)) {}

void FileList::completed(const std::string& relativePath) {
    std::lock_guard<std::mutex> lock(m_mutex);
    add(relativePath);
}

void FileList::add(const std::string& relativePath) {
    m_printed.insert(relativePath);
    print(relativePath);
}

void FileList::completeFrom(const std::string& syncedFiles) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::multiset<std::string> seen;
    std::istringstream in(syncedFiles);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) continue;
        seen.insert(line);
        if (seen.count(line) > m_printed.count(line)) add(line);
    }
}

void FileList::print(const std::string& relativePath) {
    if (!m_enabled || m_broken) return;
    // A name from the server must not drive a terminal; a pipe gets it whole.
    std::string line = (m_terminal ? stripControlChars(relativePath) : relativePath) + "\n";
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(m_fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            m_broken = true;
            return;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace scpkit::cli
