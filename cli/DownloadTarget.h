// Where get writes a file. A regular file (or a new one) is written to a
// temporary file beside it, mode 0600, renamed over it only once the
// download is complete: a failed or interrupted get leaves the old file as
// it was. Anything else (a fifo, a device) is written directly and left
// alone otherwise.
#pragma once

#include <string>

namespace scpkit::cli {

class DownloadTarget {
  public:
    DownloadTarget() = default;
    ~DownloadTarget();  // removes a temporary not committed
    DownloadTarget(const DownloadTarget&) = delete;
    DownloadTarget& operator=(const DownloadTarget&) = delete;

    // False with `error` (naming the path and the reason) when the file
    // cannot be written there.
    bool prepare(const std::string& path, std::string& error);
    // The path to hand to the download.
    const std::string& writePath() const { return m_temporary.empty() ? m_final : m_temporary; }
    const std::string& finalPath() const { return m_final; }
    // Moves the complete download into place; a replaced file's owner and
    // group stay. False with `error` set.
    bool commit(std::string& error);
    // Removes the temporary (never a direct target).
    void discard();

  private:
    std::string m_final;
    std::string m_temporary;
    bool m_replacesExisting = false;
    unsigned m_ownerUid = 0, m_ownerGid = 0;
};

}  // namespace scpkit::cli
