#include "cli/ProgressMeter.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>

namespace scpkit::cli {

namespace {

// Field widths: "1023KiB", "~1023KiB", "1023KiB/s", "99:59:59" (a longer
// wait shows as that).
constexpr int kBytesWidth = 7;
constexpr int kTotalWidth = 8;
constexpr int kRateWidth = 9;
constexpr int kTimeWidth = 8;
constexpr double kLongestTimeShown = 99 * 3600 + 59 * 60 + 59;
// Room always kept for the label, so the bar keeps its width from file to file.
constexpr size_t kLabelRoom = 24;

int64_t saturate(__int128 v) {
    return v > INT64_MAX ? INT64_MAX : static_cast<int64_t>(v);
}

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

// `label` cut from the left to `room` columns.
std::string fitLabel(const std::string& label, size_t room) {
    if (columns(label) <= room) return label;
    return room > 3 ? "..." + tailColumns(label, room - 3) : tailColumns(label, room);
}

std::string padLeft(const std::string& s, int width) {
    size_t n = columns(s);
    return n >= static_cast<size_t>(width) ? s : std::string(width - n, ' ') + s;
}

}  // namespace

void ProgressMeter::restart() {
    *this = ProgressMeter(m_scale);
}

void ProgressMeter::setExactTotal(int64_t bytes) {
    if (bytes < 0) return;
    m_low = m_high = bytes;
    m_anyObservation = true;
}

void ProgressMeter::setUnits(int64_t units, double now) {
    units = std::clamp<int64_t>(units, 0, m_scale);
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
    __int128 scaled = static_cast<__int128>(bytes) * m_scale;
    int64_t low = 0, high = INT64_MAX;
    if (m_units >= m_scale) {
        low = high = bytes;  // the library never counts past the total
    } else if (m_units == 0) {
        low = saturate(scaled + 1);
    } else {
        low = saturate(scaled / (m_units + 1) + 1);
        high = saturate(scaled / m_units);
    }
    int64_t newLow = std::max(m_low, low), newHigh = std::min(m_high, high);
    if (newLow > newHigh) {
        // The file changed under us, or a moment was not what it seemed:
        // start again from this one.
        newLow = low;
        newHigh = high;
    }
    m_low = newLow;
    m_high = newHigh;
    m_anyObservation = true;
}

int64_t ProgressMeter::doneBytes() const {
    if (m_observedAtUnits == m_units && m_observedDone >= 0) return m_observedDone;
    if (!m_anyObservation || m_high == INT64_MAX) return -1;
    return saturate(static_cast<__int128>(m_units) * m_high / m_scale);
}

ProgressSnapshot ProgressMeter::snapshot(double now) const {
    ProgressSnapshot s;
    s.fraction = static_cast<double>(m_units) / m_scale;
    if (m_anyObservation && m_high != INT64_MAX) {
        int64_t total = m_low;
        if (m_low != m_high && m_observedAtUnits > 0) {
            __int128 estimate = static_cast<__int128>(m_observedDone) * m_scale / m_observedAtUnits;
            total = std::clamp(saturate(estimate), m_low, m_high);
        }
        s.totalBytes = total;
        // Estimated while the bounds would print differently.
        s.totalEstimated = formatBytes(m_low) != formatBytes(m_high);
        s.doneBytes = std::llround(s.fraction * static_cast<double>(total));
    }
    if (m_observedAtUnits == m_units && m_observedDone >= 0) s.doneBytes = m_observedDone;
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
    if (bytes < 1024) return std::to_string(bytes < 0 ? 0 : bytes) + "B";
    double v = static_cast<double>(bytes);
    int u = 0;
    while (v >= 1024 && u < 6) v /= 1024, ++u;
    // 1023.6 KiB would print as "1024KiB": show the next unit instead.
    if (v >= 1023.5 && u < 6) v /= 1024, ++u;
    char buf[32];
    // Three figures at most: "9.9MiB", "99.9MiB", "999MiB".
    std::snprintf(buf, sizeof buf, v < 99.95 ? "%.1f%s" : "%.0f%s", v, units[u]);
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

    auto field = [](bool known, const std::string& text, int w) {
        return padLeft(known ? text : "", w);
    };
    std::string total = (s.totalEstimated ? "~" : "") + formatBytes(s.totalBytes);
    std::string figures =
        " " + field(s.doneBytes >= 0, formatBytes(s.doneBytes), kBytesWidth) +
        (s.totalBytes >= 0 ? " / " : "   ") + field(s.totalBytes >= 0, total, kTotalWidth) + " " +
        field(s.bytesPerSecond >= 0, formatBytes(std::llround(s.bytesPerSecond)) + "/s",
              kRateWidth) +
        " " +
        field(s.secondsLeft >= 0, formatDuration(std::min(s.secondsLeft, kLongestTimeShown)),
              kTimeWidth) +
        (s.secondsLeft >= 0 ? " left" : "     ");

    // Room is given out in order of usefulness: percent, figures, bar, label.
    const size_t room = static_cast<size_t>(width) - 1;  // the last column stays free: no wrap
    if (columns(pct) + columns(figures) > room) figures.clear();
    size_t left = room - columns(pct) - columns(figures);
    std::string bar;
    if (left >= 13) {  // " [" + at least ten cells + "]"
        size_t inner = left - 3 > kLabelRoom + 10 ? left - 3 - kLabelRoom : 10;
        inner = std::min<size_t>(inner, 30);
        size_t filled = std::min(inner, static_cast<size_t>(s.fraction * inner));
        bar = " [" + std::string(filled, '#') + std::string(inner - filled, '-') + "]";
    }
    std::string line = pct + bar + figures;
    left = room - columns(line);
    if (!label.empty() && left >= 6) line += "  " + fitLabel(label, left - 2);
    return line;
}

std::string renderFinishedLine(const std::string& label, int64_t bytes, double seconds, int width) {
    std::string rate =
        seconds > 0 ? formatBytes(std::llround(static_cast<double>(bytes) / seconds)) + "/s" : "";
    std::string right = " 100% " + padLeft(formatBytes(bytes), kBytesWidth) + "  " +
                        padLeft(rate, kRateWidth) + "  " +
                        padLeft(formatDuration(seconds), kTimeWidth);
    size_t room = static_cast<size_t>(std::max(width, 8)) - 1;
    if (columns(right) + 1 > room) return fitLabel(label, room);
    std::string name = fitLabel(label, room - columns(right) - 1);
    return name + std::string(room - columns(right) - columns(name), ' ') + right;
}

}  // namespace scpkit::cli
