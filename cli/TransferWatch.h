// The progress callback handed to every transfer. It turns a signal into
// the library's abort, keeps to the rate limit, feeds the bar, prints each
// copied file of a tree as it completes, and keeps track of the one file a
// transfer had begun and not finished, for the cleanup after a failure.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <scpkit/base/Progress.h>

namespace scpkit::cli {

class FileList;
class ProgressBar;
class RateLimit;

enum class TreeDirection { Download, Upload };

class TransferWatch : public ProgressEvent {
  public:
    TransferWatch(ProgressBar& bar, RateLimit& limit, FileList& list);

    // One file of put or get. `exactTotal` is -1 when unknown; `bytesDone`
    // (may be empty) tells the bytes that have arrived so far, exactly.
    void startFile(const std::string& label, int64_t exactTotal,
                   std::function<int64_t()> bytesDone);
    // Bytes of the current file have left or arrived: the remote file was
    // opened for writing.
    bool fileDataStarted() const { return m_dataStarted; }
    void finishFile(const std::string& label, int64_t bytes);

    // push or pull; paths in the library's events lie below `localRoot`.
    void startTree(TreeDirection direction, const std::string& localRoot);
    // pull: the local file begun and not finished; empty when none.
    const std::string& unfinishedDownload() const { return m_unfinishedLocal; }
    // push: the file (relative to the root) whose bytes had begun to go out
    // when its upload failed; empty when none.
    const std::string& unfinishedUpload() const { return m_unfinishedUpload; }

    void OnPercent(int percent, bool& abort) override;
    void OnPoll(bool& abort) override;
    void OnNamedEvent(const char* name, const char* value) override;

  private:
    void checkInterrupt(bool& abort);
    void keepToRate();
    int64_t bytesMoved() const;
    std::string relativeToRoot(const std::string& path) const;
    void treeFileDone(const std::string& relative, const std::string& localPath);
    void onDownloadEvent(const std::string& event, const std::string& value);
    void onUploadEvent(const std::string& event, const std::string& value);

    ProgressBar& m_bar;
    RateLimit& m_limit;
    FileList& m_list;

    bool m_tree = false;
    TreeDirection m_direction = TreeDirection::Download;
    std::string m_localRoot;
    std::function<int64_t()> m_bytesDone;  // single files

    int m_lastUnits = 0;
    bool m_abortRequested = false;
    bool m_dataStarted = false;
    bool m_expectDirectoryUnits = false;  // push: a directory's share comes next
    double m_fileStart = 0;

    // Trees: bytes of finished files and the directories made or entered;
    // the library counts 100 units for each directory.
    int64_t m_finishedBytes = 0;
    int64_t m_directories = 0;
    std::string m_currentRelative;
    std::string m_unfinishedLocal;
    std::string m_unfinishedUpload;
};

}  // namespace scpkit::cli
