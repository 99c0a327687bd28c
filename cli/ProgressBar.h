// The one-line bar on standard error: redrawn in place at most five times a
// second, a line left behind for each finished file, cleared at the end.
// A bar that is not drawn keeps its meter, which the rate limit reads.
// Workers copying one tree share the bar; it then shows their sum.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "cli/ProgressMeter.h"

namespace scpkit::cli {

class ProgressBar {
  public:
    // The scale handed to the library as PercentScale: as fine as the
    // library takes, so that the bytes done pin the total down.
    static constexpr unsigned kScale = 2147483647;

    explicit ProgressBar(bool draw, int fd = 2);
    ~ProgressBar();

    bool drawing() const { return m_draw; }
    ProgressMeter& meter() { return m_meter; }
    // What the bar shows instead of its meter.
    void showFrom(std::function<ProgressSnapshot(double now)> source);
    void setLabel(const std::string& label);
    // Seconds on the bar's clock.
    double now() const;

    void redraw();  // at most five times a second
    // Leaves "name 100% size rate time" on its own line.
    void finishedFile(const std::string& label, int64_t bytes, double seconds);
    // Removes the bar from the terminal (it comes back at the next redraw).
    void clear();

  private:
    void writeAll(const std::string& text);

    bool m_draw;
    int m_fd;
    std::mutex m_mutex;
    ProgressMeter m_meter{kScale};
    std::function<ProgressSnapshot(double)> m_source;
    std::string m_label;
    std::chrono::steady_clock::time_point m_origin;
    double m_lastDraw = -1;
    bool m_drawn = false;
};

}  // namespace scpkit::cli
