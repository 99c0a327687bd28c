// The progress callback handed to every transfer. It turns a signal into
// the library's abort, keeps to the rate limit, feeds the bar, prints each
// copied file of a tree as it completes, and keeps track of the one file a
// transfer had begun and not finished, for the cleanup after a failure.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <scpkit/base/Progress.h>
#include "cli/ProgressMeter.h"

namespace scpkit::cli {

class FileList;
class ProgressBar;
class RateLimit;
class TreeProgress;

enum class TreeDirection { Download, Upload };

// push: the file whose upload failed. Once its bytes had begun to go out
// it is partly written on the server; before that the remote scp may have
// made it, empty, or not touched it at all.
struct UnfinishedUpload {
    std::string path;  // below the tree's root; empty: none
    bool bytesLeft = false;
};

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

    // Makes this the watch of one worker of a tree copied over several
    // channels: it keeps a meter of its own, registers its partly written
    // file in the slot `slot`, and reports its piece's figures to `shared`,
    // whose sum the bar shows and the rate limit keeps to.
    void shareWith(TreeProgress& shared, int slot);

    // push or pull; paths in the library's events lie below `localRoot`,
    // which lies at `listPrefix` (empty, or ending with '/') below the
    // root of the tree: files are listed with that prefix.
    void startTree(TreeDirection direction, const std::string& localRoot,
                   const std::string& listPrefix = "");
    // pull: the local file begun and not finished; empty when none.
    const std::string& unfinishedDownload() const { return m_unfinishedLocal; }
    const UnfinishedUpload& unfinishedUpload() const { return m_unfinishedUpload; }

    void OnPercent(int percent, bool& abort) override;
    void OnPoll(bool& abort) override;
    void OnNamedEvent(const char* name, const char* value) override;

  private:
    ProgressMeter& meter();
    void report();
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
    TreeProgress* m_shared = nullptr;
    ProgressMeter m_ownMeter;
    int m_slot = 0;

    bool m_tree = false;
    TreeDirection m_direction = TreeDirection::Download;
    std::string m_localRoot;
    std::string m_listPrefix;
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
    UnfinishedUpload m_unfinishedUpload;
};

}  // namespace scpkit::cli
