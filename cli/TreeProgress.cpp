#include "cli/TreeProgress.h"

#include <algorithm>

namespace scpkit::cli {

namespace {

constexpr double kShortestRateWindow = 0.5;  // seconds before a rate is shown

}  // namespace

void TreeProgress::plan(int64_t plannedBytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_waiting += plannedBytes;
}

void TreeProgress::begin(int worker, int64_t plannedBytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_waiting = std::max<int64_t>(0, m_waiting - plannedBytes);
    m_workers[static_cast<size_t>(worker)] = {true, plannedBytes, 0, -1};
}

void TreeProgress::update(int worker, int64_t done, int64_t total, double now) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Current& c = m_workers[static_cast<size_t>(worker)];
    if (!c.busy) return;
    c.done = std::max<int64_t>(0, done);
    c.total = total;
    if (c.done > 0 && m_start < 0) m_start = now;
}

void TreeProgress::end(int worker, PieceEnd how) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Current& c = m_workers[static_cast<size_t>(worker)];
    if (!c.busy) return;
    if (how == PieceEnd::BackToQueue) {
        m_waiting += c.planned;
    } else {
        m_finished += c.done;
    }
    c = Current();
}

int64_t TreeProgress::doneBytes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    int64_t done = m_finished;
    for (const Current& c : m_workers) done += c.done;
    return done;
}

ProgressSnapshot TreeProgress::snapshot(double now) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    int64_t done = m_finished, total = m_finished + m_waiting;
    bool estimated = m_waiting > 0;
    for (const Current& c : m_workers) {
        if (!c.busy) continue;
        done += c.done;
        total += std::max(c.total >= 0 ? c.total : c.planned, c.done);
        estimated = estimated || c.total < 0;
    }
    ProgressSnapshot s;
    s.doneBytes = done;
    s.totalBytes = total;
    s.totalEstimated = estimated;
    s.fraction = total > 0 ? std::min(1.0, static_cast<double>(done) / total) : 0;
    double elapsed = m_start < 0 ? 0 : now - m_start;
    if (elapsed >= kShortestRateWindow && done > 0) {
        s.bytesPerSecond = done / elapsed;
        s.secondsLeft = static_cast<double>(total - done) / s.bytesPerSecond;
    }
    return s;
}

}  // namespace scpkit::cli
