// The arithmetic of the progress bar, apart from the terminal.
//
// The library reports progress as a fraction (units out of a scale), not in
// bytes. The byte total is known up front for uploads of one file. Otherwise
// every moment at which the bytes done are known exactly (the size of the
// file growing on disk, the files finished in a tree) narrows the total down:
// units = floor(done * scale / total) bounds it from both sides, and with a
// fine scale a few such moments pin it down, to the byte for files below
// 2 GiB and to the precision it is shown with for larger ones.
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

    // Back to nothing known, for the next file of a series.
    void restart();
    void setExactTotal(int64_t bytes);
    // The library's report: `units` out of the scale. Times are in seconds
    // on any steady clock.
    void setUnits(int64_t units, double now);
    // Exactly `bytes` are done at the units last reported.
    void observeDone(int64_t bytes);

    ProgressSnapshot snapshot(double now) const;
    int64_t units() const { return m_units; }
    int64_t doneBytes() const;

  private:
    int64_t m_scale;
    int64_t m_units = 0;
    // The total lies in [m_low, m_high]; exact when they meet.
    int64_t m_low = 0;
    int64_t m_high = INT64_MAX;
    bool m_anyObservation = false;
    int64_t m_observedDone = -1;
    int64_t m_observedAtUnits = -1;
    // Rate and time left are measured from the first report above zero, so
    // connecting and listing do not count as slow transfer.
    double m_startTime = -1;
    double m_startFraction = 0;
};

// "0B", "999B", "1.0KiB", "12.3MiB", "512KiB"
std::string formatBytes(int64_t bytes);
// "0:07", "12:34", "1:02:03"
std::string formatDuration(double seconds);

// One bar line of at most `width` columns: percent, bar, bytes, rate, time
// left and the label (cut from the left when it does not fit). The fields
// keep their width as their values change, so nothing jumps.
std::string renderProgressLine(const ProgressSnapshot& s, const std::string& label, int width);

// The line left behind for a finished file: its name, size, rate and time.
std::string renderFinishedLine(const std::string& label, int64_t bytes, double seconds, int width);

}  // namespace scpkit::cli
