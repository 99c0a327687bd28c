#include "cli/ProgressMeter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace scpkit::cli {

namespace {

// Below this fraction (0.1 %) the reported units are too coarse to scale a
// byte count by; above it the estimate is off by at most 10 %, and every
// later observation refines it.
constexpr int64_t kMinUnitsPer10000 = 10;

// Columns taken by UTF-8 text (one per character; wide characters are rare
// in file names and only make the line a little shorter than planned).
size_t columns(const std::string& s) {
    size_t n = 0;
    for (unsigned char c : s) {
        if ((c & 0xC0) != 0x80) ++n;
    }
    return n;
}

// The last `cols` columns of s, at a character boundary.
std::string tailColumns(const std::string& s, size_t cols) {
    size_t total = columns(s);
    if (total <= cols) return s;
    size_t skip = total - cols, seen = 0, i = 0;
    for (; i < s.size(); ++i) {
        if ((static_cast<unsigned char>(s[i]) & 0xC0) != 0x80) {
            if (seen == skip) break;
            ++seen;
        }
    }
    return s.substr(i);
}

}  // namespace

void ProgressMeter::setExactTotal(int64_t bytes) {
    m_total = bytes;
    m_totalExact = bytes >= 0;
}

void ProgressMeter::setUnits(int64_t units, double now) {
    if (units < 0) units = 0;
    if (units > m_scale) units = m_scale;
    if (units > 0 && m_startTime < 0) {
        m_startTime = now;
        m_startFraction = static_cast<double>(units) / m_scale;
    }
    m_units = units;
}

void ProgressMeter::observeDone(int64_t bytes) {
    if (bytes < 0) return;
    m_observedDone = bytes;
    m_observedAtUnits = m_units;
    if (m_totalExact) return;
    if (m_units * 10000 >= kMinUnitsPer10000 * m_scale) {
        m_total = static_cast<int64_t>(
            std::llround(static_cast<double>(bytes) * m_scale / static_cast<double>(m_units)));
    }
}

ProgressSnapshot ProgressMeter::snapshot(double now) const {
    ProgressSnapshot s;
    s.fraction = static_cast<double>(m_units) / m_scale;
    if (m_total >= 0) {
        s.totalBytes = m_total;
        s.totalEstimated = !m_totalExact;
        s.doneBytes = std::llround(s.fraction * m_total);
    } else if (m_observedDone >= 0 && m_observedAtUnits == m_units) {
        s.doneBytes = m_observedDone;  // only while it is not stale
    }
    double elapsed = m_startTime < 0 ? 0 : now - m_startTime;
    double gained = s.fraction - m_startFraction;
    if (elapsed >= 0.5 && gained > 0) {
        if (s.totalBytes >= 0) s.bytesPerSecond = gained * s.totalBytes / elapsed;
        s.secondsLeft = elapsed * (1.0 - s.fraction) / gained;
    }
    return s;
}

std::string formatBytes(int64_t bytes) {
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return std::to_string(bytes < 0 ? 0 : bytes) + " B";
    double v = static_cast<double>(bytes);
    int u = 0;
    while (v >= 1024 && u < 6) v /= 1024, ++u;
    // 1023.96 KiB would print as "1024.0 KiB": show the next unit instead.
    if (v >= 1023.95 && u < 6) v /= 1024, ++u;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f %s", v, units[u]);
    return buf;
}

std::string formatDuration(double seconds) {
    if (seconds < 0 || !std::isfinite(seconds)) seconds = 0;
    long long t = std::llround(seconds);
    char buf[32];
    if (t >= 3600) {
        std::snprintf(buf, sizeof buf, "%lld:%02lld:%02lld", t / 3600, (t / 60) % 60, t % 60);
    } else {
        std::snprintf(buf, sizeof buf, "%lld:%02lld", t / 60, t % 60);
    }
    return buf;
}

std::string renderProgressLine(const ProgressSnapshot& s, const std::string& label, int width) {
    if (width < 8) width = 8;
    char buf[8];
    int percent = static_cast<int>(std::floor(s.fraction * 100 + 1e-9));  // 100 only when done
    std::snprintf(buf, sizeof buf, "%3d%%", percent);
    const std::string pct = buf;

    std::string figures;
    if (s.doneBytes >= 0) {
        figures += "  " + formatBytes(s.doneBytes);
        if (s.totalBytes >= 0) {
            figures +=
                std::string(" / ") + (s.totalEstimated ? "~" : "") + formatBytes(s.totalBytes);
        }
    }
    if (s.bytesPerSecond >= 0) figures += "  " + formatBytes(std::llround(s.bytesPerSecond)) + "/s";
    if (s.secondsLeft >= 0) figures += "  " + formatDuration(s.secondsLeft) + " left";

    // Room is given out in order of usefulness: percent, figures, bar, label.
    const size_t room = static_cast<size_t>(width) - 1;  // the last column stays free: no wrap
    if (columns(pct) + columns(figures) > room) figures.clear();
    size_t left = room - columns(pct) - columns(figures);
    size_t labelWanted = label.empty() ? 0 : std::min<size_t>(columns(label) + 2, 24);
    std::string bar;
    if (left >= 13) {  // " [" + at least ten cells + "]"
        size_t inner = left - 3 > labelWanted + 10 ? left - 3 - labelWanted : 10;
        inner = std::min<size_t>(inner, 30);
        size_t filled = std::min(inner, static_cast<size_t>(s.fraction * inner));
        bar = " [" + std::string(filled, '#') + std::string(inner - filled, '-') + "]";
    }
    std::string line = pct + bar + figures;
    left = room - columns(line);
    if (!label.empty() && left >= 6) {
        std::string shown = label;
        if (columns(shown) > left - 2) shown = "..." + tailColumns(shown, left - 5);
        line += "  " + shown;
    }
    return line;
}

}  // namespace scpkit::cli
