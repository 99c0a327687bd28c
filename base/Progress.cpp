#include <scpkit/base/Progress.h>

#include <climits>

#include <scpkit/base/LogBase.h>

namespace scpkit {

namespace {

constexpr unsigned kDefaultPercentScale = 100;

// Percentages are reported as int.
unsigned usableScale(unsigned scale) {
    if (scale == 0) return kDefaultPercentScale;
    return scale > static_cast<unsigned>(INT_MAX) ? static_cast<unsigned>(INT_MAX) : scale;
}

// floor(done * scale / total) without overflow for any 64-bit amounts; an
// empty total counts as complete.
int percentOf(int64_t done, int64_t total, unsigned scale) {
    if (total <= 0) return static_cast<int>(scale);
    if (done <= 0) return 0;
    if (done >= total) return static_cast<int>(scale);
    __int128 scaled = static_cast<__int128>(done) * scale;
    return static_cast<int>(scaled / total);
}

}  // namespace

ProgressMonitor::ProgressMonitor(ProgressEvent* callback, unsigned pollIntervalMs,
                                 unsigned percentScale, int64_t expectedTotal)
    : m_callback(callback),
      m_pollIntervalMs(pollIntervalMs),
      m_percentScale(usableScale(percentScale)),
      m_total(expectedTotal < 0 ? 0 : expectedTotal),
      m_lastPoll(std::chrono::steady_clock::now()) {}

void ProgressMonitor::progressReset(int64_t total, LogBase* /*log*/) {
    m_total = total < 0 ? 0 : total;
    m_done = 0;
    // The next report of the new phase fires whatever its value.
    m_lastPercent = -1;
}

bool ProgressMonitor::consumeProgress(int64_t amount, LogBase* /*log*/) {
    if (amount > 0) {
        // Clamp to the total; written so the addition itself cannot overflow.
        m_done = (amount >= m_total - m_done) ? m_total : m_done + amount;
    }
    reportPercent();
    return m_aborted;
}

void ProgressMonitor::consumeRemaining(LogBase* /*log*/) {
    m_done = m_total;
    reportPercent();
}

void ProgressMonitor::progressInfo(const char* eventName, const char* value) {
    if (!m_callback) return;
    m_callback->OnNamedEvent(eventName ? eventName : "", value ? value : "");
}

bool ProgressMonitor::abortCheck(LogBase* /*log*/) {
    if (m_callback && m_pollIntervalMs > 0) {
        auto now = std::chrono::steady_clock::now();
        if (now - m_lastPoll >= std::chrono::milliseconds(m_pollIntervalMs)) {
            m_lastPoll = now;
            bool abort = false;
            m_callback->OnPoll(abort);
            if (abort) m_aborted = true;
        }
    }
    return m_aborted;
}

void ProgressMonitor::reportPercent() {
    int percent = percentOf(m_done, m_total, m_percentScale);
    if (percent == m_lastPercent) return;
    m_lastPercent = percent;
    if (!m_callback) return;
    bool abort = false;
    m_callback->OnPercent(percent, abort);
    if (abort) m_aborted = true;
}

ProgressMonitorPtr::ProgressMonitorPtr(ProgressEvent* callback, unsigned pollIntervalMs,
                                       unsigned percentScale, int64_t expectedTotal) {
    if (!callback) return;
    try {
        m_pm = std::make_unique<ProgressMonitor>(callback, pollIntervalMs, percentScale,
                                                 expectedTotal);
    } catch (...) {
        m_pm.reset();
    }
}

bool SocketParams::spAbortCheck(LogBase& log) {
    if (!m_progressMonitor) return false;
    if (!m_progressMonitor->abortCheck(&log)) return false;
    if (!m_abortLogged) {
        log.LogError("Operation aborted by the application.");
        m_abortLogged = true;
    }
    return true;
}

}  // namespace scpkit
