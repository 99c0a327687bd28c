#include "cli/TransferWatch.h"

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>

#include "cli/FileList.h"
#include "cli/Interrupt.h"
#include "cli/ProgressBar.h"
#include "cli/RateLimit.h"
#include "cli/TreeProgress.h"

namespace scpkit::cli {

namespace {

constexpr int64_t kDirectoryUnits = 100;      // what the library counts per directory
constexpr int64_t kLongestWaitSliceMs = 100;  // how soon a signal ends a wait

int64_t fileSize(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

}  // namespace

TransferWatch::TransferWatch(ProgressBar& bar, RateLimit& limit, FileList& list)
    : m_bar(bar), m_limit(limit), m_list(list), m_ownMeter(ProgressBar::kScale) {}

void TransferWatch::shareWith(TreeProgress& shared, int slot) {
    m_shared = &shared;
    m_slot = slot;
}

ProgressMeter& TransferWatch::meter() {
    return m_shared ? m_ownMeter : m_bar.meter();
}

// A worker's figures for its piece: bytes (and directories) done so far,
// and the total once the library's units have pinned it.
void TransferWatch::report() {
    if (!m_shared) return;
    double now = m_bar.now();
    int64_t done = 0, total = -1;
    if (m_direction == TreeDirection::Download) {
        done = bytesMoved() + kDirectoryUnits * m_directories;
    } else {
        done = std::max(m_finishedBytes + kDirectoryUnits * m_directories, meter().doneBytes());
        total = meter().snapshot(now).totalBytes;
    }
    m_shared->update(m_slot, done, total, now);
}

void TransferWatch::startFile(const std::string& label, int64_t exactTotal,
                              std::function<int64_t()> bytesDone) {
    m_tree = false;
    m_bytesDone = std::move(bytesDone);
    m_lastUnits = 0;
    m_dataStarted = false;
    m_fileStart = m_bar.now();
    m_bar.meter().restart();
    m_bar.meter().setExactTotal(exactTotal);
    m_bar.setLabel(label);
    m_limit.restart();
}

void TransferWatch::finishFile(const std::string& label, int64_t bytes) {
    m_bar.finishedFile(label, bytes, m_bar.now() - m_fileStart);
}

void TransferWatch::startTree(TreeDirection direction, const std::string& localRoot,
                              const std::string& listPrefix) {
    m_tree = true;
    m_direction = direction;
    m_localRoot = localRoot;
    m_listPrefix = listPrefix;
    while (m_localRoot.size() > 1 && m_localRoot.back() == '/') m_localRoot.pop_back();
    m_fileStart = m_bar.now();
    // Each piece of a shared tree starts afresh; the rate holds for them all.
    m_lastUnits = 0;
    m_dataStarted = m_expectDirectoryUnits = false;
    m_finishedBytes = m_directories = 0;
    m_currentRelative.clear();
    m_unfinishedLocal.clear();
    m_unfinishedUpload = UnfinishedUpload();
    m_ownMeter.restart();
    if (!m_shared) m_limit.restart();
}

void TransferWatch::checkInterrupt(bool& abort) {
    if (!interruptRequested()) return;
    abort = true;
    m_abortRequested = true;
}

void TransferWatch::OnPercent(int percent, bool& abort) {
    checkInterrupt(abort);
    if (percent > m_lastUnits) {
        // After an abort the library fills the bar up to the end without
        // moving a byte; before it, any step forward is data.
        bool isData = !m_abortRequested || percent < static_cast<int>(ProgressBar::kScale);
        if (m_tree && m_direction == TreeDirection::Upload && m_expectDirectoryUnits) {
            m_expectDirectoryUnits = false;  // the directory just entered
        } else if (isData) {
            m_dataStarted = true;
        }
    }
    m_lastUnits = percent;
    meter().setUnits(percent, m_bar.now());
    if (m_tree && m_direction == TreeDirection::Download) {
        meter().observeDone(bytesMoved() + kDirectoryUnits * m_directories);
    } else if (!m_tree && m_bytesDone) {
        meter().observeDone(m_bytesDone());
    }
    report();
    keepToRate();
    m_bar.redraw();
}

void TransferWatch::OnPoll(bool& abort) {
    checkInterrupt(abort);
    report();
    keepToRate();
    m_bar.redraw();
}

int64_t TransferWatch::bytesMoved() const {
    const ProgressMeter& own = m_shared ? m_ownMeter : m_bar.meter();
    if (!m_tree) return m_bytesDone ? m_bytesDone() : own.doneBytes();
    if (m_direction == TreeDirection::Upload) return own.doneBytes();
    int64_t current =
        m_unfinishedLocal.empty() ? 0 : std::max<int64_t>(0, fileSize(m_unfinishedLocal));
    return m_finishedBytes + current;
}

void TransferWatch::keepToRate() {
    if (!m_limit.active()) return;
    for (;;) {
        int64_t moved = m_shared ? m_shared->doneBytes() : bytesMoved();
        int64_t wait = m_limit.delayMs(moved, m_bar.now());
        if (wait <= 0 || interruptRequested()) return;
        ::usleep(static_cast<useconds_t>(std::min(wait, kLongestWaitSliceMs) * 1000));
        m_bar.redraw();
    }
}

std::string TransferWatch::relativeToRoot(const std::string& path) const {
    const std::string& root = m_localRoot;
    if (path == root) return std::string();
    if (root == "/" && path.size() > 1 && path[0] == '/') return path.substr(1);
    if (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
        path[root.size()] == '/') {
        return path.substr(root.size() + 1);
    }
    return path;
}

void TransferWatch::treeFileDone(const std::string& relative, const std::string& localPath) {
    int64_t size = std::max<int64_t>(0, fileSize(localPath));
    m_finishedBytes += size;
    m_list.completed(m_listPrefix + relative);
    m_bar.finishedFile(m_listPrefix + relative, size, m_bar.now() - m_fileStart);
    m_fileStart = m_bar.now();
}

void TransferWatch::onDownloadEvent(const std::string& event, const std::string& value) {
    if (event == "scp-begin-download") {
        // The path below the root of the file about to arrive.
        m_currentRelative = value;
        m_unfinishedLocal = m_localRoot + "/" + value;
        setPartialLocalFile(m_unfinishedLocal, m_slot);
        m_fileStart = m_bar.now();
        m_bar.setLabel(m_listPrefix + value);
    } else if (event == "scp-localfile-created") {
        std::string relative =
            m_currentRelative.empty() ? relativeToRoot(value) : m_currentRelative;
        m_unfinishedLocal.clear();
        m_currentRelative.clear();
        setPartialLocalFile("", m_slot);
        treeFileDone(relative, value);
    } else if (event == "scp-localdir-created") {
        ++m_directories;
    }
}

void TransferWatch::onUploadEvent(const std::string& event, const std::string& value) {
    if (event == "scp-localdir-entered") {
        ++m_directories;
        m_expectDirectoryUnits = true;
        m_bar.setLabel(m_listPrefix + relativeToRoot(value));
    } else if (event == "scp-localfile-uploaded") {
        m_dataStarted = false;
        treeFileDone(relativeToRoot(value), value);
        // Every byte and directory counted so far has been reported.
        meter().observeDone(m_finishedBytes + kDirectoryUnits * m_directories);
    } else if (event == "scp-localfile-cannot-open") {
        m_dataStarted = false;
        m_fileStart = m_bar.now();
    } else if (event == "scp-localfile-upload-failed") {
        m_unfinishedUpload = {m_listPrefix + relativeToRoot(value), m_dataStarted};
    }
}

void TransferWatch::OnNamedEvent(const char* name, const char* value) {
    std::string event = name ? name : "";
    std::string text = value ? value : "";
    if (!m_tree) return;
    if (m_direction == TreeDirection::Download) {
        onDownloadEvent(event, text);
    } else {
        onUploadEvent(event, text);
    }
    report();
    m_bar.redraw();
}

}  // namespace scpkit::cli
