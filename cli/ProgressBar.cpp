#include "cli/ProgressBar.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <cerrno>

#include "cli/SafeText.h"

namespace scpkit::cli {

namespace {

constexpr double kRedrawInterval = 0.2;  // seconds: at most five redraws a second

int terminalWidth(int fd) {
    struct winsize ws;
    if (ioctl(fd, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
    return 80;
}

}  // namespace

ProgressBar::ProgressBar(bool draw, int fd)
    : m_draw(draw), m_fd(fd), m_origin(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() {
    clear();
}

double ProgressBar::now() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_origin).count();
}

void ProgressBar::showFrom(std::function<ProgressSnapshot(double now)> source) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_source = std::move(source);
}

void ProgressBar::setLabel(const std::string& label) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_label = label;
}

void ProgressBar::redraw() {
    if (!m_draw) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    double t = now();
    if (m_lastDraw >= 0 && t - m_lastDraw < kRedrawInterval) return;
    m_lastDraw = t;
    ProgressSnapshot shown = m_source ? m_source(t) : m_meter.snapshot(t);
    std::string line = renderProgressLine(shown, stripControlChars(m_label), terminalWidth(m_fd));
    writeAll("\r" + line + "\x1b[K");
    m_drawn = true;
}

void ProgressBar::finishedFile(const std::string& label, int64_t bytes, double seconds) {
    if (!m_draw) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string line =
        renderFinishedLine(stripControlChars(label), bytes, seconds, terminalWidth(m_fd));
    writeAll("\r" + line + "\x1b[K\n");
    m_drawn = false;
    m_lastDraw = -1;
}

void ProgressBar::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_drawn) return;
    writeAll("\r\x1b[K");
    m_drawn = false;
    m_lastDraw = -1;
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
