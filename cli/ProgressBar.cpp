#include "cli/ProgressBar.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "cli/Interrupt.h"
#include "cli/SafeText.h"

namespace scpkit::cli {

namespace {

constexpr double kRedrawInterval = 0.2;   // seconds: at most five redraws a second
constexpr int64_t kDirectoryUnits = 100;  // what the library counts per directory

int64_t fileSize(const char* path) {
    struct stat st;
    return ::stat(path, &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

int terminalWidth(int fd) {
    struct winsize ws;
    if (ioctl(fd, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
    return 80;
}

}  // namespace

ProgressBar::ProgressBar(bool draw, int fd)
    : m_draw(draw), m_fd(fd), m_origin(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() {
    finish();
}

double ProgressBar::now() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_origin).count();
}

void ProgressBar::OnPercent(int percent, bool& abort) {
    m_meter.setUnits(percent, now());
    if (interruptRequested()) abort = true;
    maybeRedraw(false);
}

void ProgressBar::OnPoll(bool& abort) {
    if (interruptRequested()) abort = true;
    maybeRedraw(false);
}

void ProgressBar::OnNamedEvent(const char* name, const char* value) {
    std::string event = name ? name : "";
    std::string path = value ? value : "";
    if (event == "scp-begin-download") {
        // A tree download names the file about to arrive, relative to the root.
        m_label = path;
        std::string local = m_localRoot.empty() ? path : m_localRoot + "/" + path;
        m_unfinished = local;
        int64_t finished = m_finishedBytes + kDirectoryUnits * m_directories;
        m_probe = [local, finished] {
            int64_t size = fileSize(local.c_str());
            return size < 0 ? finished : finished + size;
        };
    } else if (event == "scp-localfile-created" || event == "scp-localfile-uploaded") {
        m_unfinished.clear();
        int64_t size = fileSize(path.c_str());
        if (size > 0) m_finishedBytes += size;
        m_label = relativeToRoot(path);
        m_probe = nullptr;
        m_meter.observeDone(m_finishedBytes + kDirectoryUnits * m_directories);
    } else if (event == "scp-localdir-created" || event == "scp-localdir-entered") {
        ++m_directories;
        m_label = relativeToRoot(path);
    } else {
        return;
    }
    maybeRedraw(false);
}

std::string ProgressBar::relativeToRoot(const std::string& path) const {
    const std::string& root = m_localRoot;
    if (!root.empty() && path == root) return std::string();
    if (!root.empty() && path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
        path[root.size()] == '/') {
        return path.substr(root.size() + 1);
    }
    return path;
}

void ProgressBar::maybeRedraw(bool force) {
    if (!m_draw) return;
    double t = now();
    if (!force && m_lastDraw >= 0 && t - m_lastDraw < kRedrawInterval) return;
    m_lastDraw = t;
    if (m_probe) m_meter.observeDone(m_probe());
    std::string line =
        renderProgressLine(m_meter.snapshot(t), stripControlChars(m_label), terminalWidth(m_fd));
    writeAll("\r" + line + "\x1b[K");
    m_drawn = true;
}

void ProgressBar::finish() {
    if (!m_drawn) return;
    writeAll("\r\x1b[K");
    m_drawn = false;
}

void ProgressBar::writeAll(const std::string& text) {
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(m_fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // a bar that cannot be drawn is not worth failing for
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace scpkit::cli
