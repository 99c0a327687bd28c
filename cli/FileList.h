// The list push and pull print on standard output: each copied file's path
// below the root, one per line, written as the file completes so that a
// pipe sees the progress, and completed at the end from the library's own
// list so that it is exact. Workers copying one tree share it.
#pragma once

#include <mutex>
#include <set>
#include <string>

namespace scpkit::cli {

class FileList {
  public:
    // Nothing is printed unless enabled; `fd` is standard output.
    explicit FileList(bool enabled, int fd = 1);

    void completed(const std::string& relativePath);
    // `syncedFiles`: the library's list, one path per line.
    void completeFrom(const std::string& syncedFiles);
    bool empty() const { return m_printed.empty(); }

  private:
    void add(const std::string& relativePath);
    void print(const std::string& relativePath);

    std::mutex m_mutex;
    bool m_enabled;
    int m_fd;
    bool m_terminal;
    bool m_broken = false;  // the reader has gone: stop writing, go on copying
    std::multiset<std::string> m_printed;
};

}  // namespace scpkit::cli
