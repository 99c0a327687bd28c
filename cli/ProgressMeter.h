// The arithmetic and the text of the progress bar, apart from the terminal.
//
// The library reports progress as a fraction (units out of a scale), not in
// bytes. The byte total is known up front for uploads of one file; otherwise
// it is estimated from bytes known to be done at some point (a file that has
// arrived on disk, say) divided by the fraction done at that point.
#pragma once

#include <cstdint>
#include <string>

namespace scpkit::cli {

struct ProgressSnapshot {
    double fraction = 0;      // 0 to 1
    int64_t doneBytes = -1;   // -1: unknown
    int64_t totalBytes = -1;  // -1: unknown
    bool totalEstimated = false;
    double bytesPerSecond = -1;  // -1: unknown
    double secondsLeft = -1;     // -1: unknown
};

class ProgressMeter {
  public:
    explicit ProgressMeter(int64_t scale) : m_scale(scale > 0 ? scale : 100) {}

    void setExactTotal(int64_t bytes);
    // The library's report: `units` out of the scale. Times are in seconds
    // on any steady clock.
    void setUnits(int64_t units, double now);
    // `bytes` are known to be done at the units last reported.
    void observeDone(int64_t bytes);

    ProgressSnapshot snapshot(double now) const;
    int64_t units() const { return m_units; }

  private:
    int64_t m_scale;
    int64_t m_units = 0;
    int64_t m_total = -1;
    bool m_totalExact = false;
    int64_t m_observedDone = -1;
    int64_t m_observedAtUnits = -1;
    // Rate and time left are measured from the first report above zero, so
    // connecting and listing do not count as slow transfer.
    double m_startTime = -1;
    double m_startFraction = 0;
};

// "0 B", "999 B", "1.0 KiB", "12.3 MiB"
std::string formatBytes(int64_t bytes);
// "0:07", "12:34", "1:02:03"
std::string formatDuration(double seconds);

// One bar line of at most `width` columns: percent, bar, bytes, rate, time
// left and the label (cut from the left when it does not fit).
std::string renderProgressLine(const ProgressSnapshot& s, const std::string& label, int width);

}  // namespace scpkit::cli
