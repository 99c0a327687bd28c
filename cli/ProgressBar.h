// The progress callback handed to every transfer: turns Ctrl-C into the
// library's abort and, when asked to, draws a one-line bar on standard
// error, redrawn in place at most five times a second and cleared at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include <scpkit/base/Progress.h>
#include "cli/ProgressMeter.h"

namespace scpkit::cli {

class ProgressBar : public ProgressEvent {
  public:
    // The scale handed to the library as PercentScale: fine enough to turn
    // a fraction into bytes.
    static constexpr unsigned kScale = 10000;

    ProgressBar(bool draw, int fd = 2);
    ~ProgressBar() override;

    void setLabel(const std::string& label) { m_label = label; }
    void setExactTotal(int64_t bytes) { m_meter.setExactTotal(bytes); }
    // Bytes known to be done right now (a growing local file), asked for at
    // every redraw; -1 when not known.
    void setDoneProbe(std::function<int64_t()> probe) { m_probe = std::move(probe); }
    // Paths in the named events are shown relative to this directory.
    void setLocalRoot(const std::string& root) {
        m_localRoot = root;
        while (m_localRoot.size() > 1 && m_localRoot.back() == '/') m_localRoot.pop_back();
    }

    void OnPercent(int percent, bool& abort) override;
    void OnPoll(bool& abort) override;
    void OnNamedEvent(const char* name, const char* value) override;

    // The local file a tree download had begun and not finished, if any.
    const std::string& unfinishedDownload() const { return m_unfinished; }

    // Removes the bar from the terminal.
    void finish();
    bool drewSomething() const { return m_drawn; }
    ProgressSnapshot current() const { return m_meter.snapshot(now()); }

  private:
    double now() const;
    void maybeRedraw(bool force);
    std::string relativeToRoot(const std::string& path) const;
    void writeAll(const std::string& text);

    bool m_draw;
    int m_fd;
    ProgressMeter m_meter{kScale};
    std::string m_label;
    std::string m_localRoot;
    std::function<int64_t()> m_probe;
    std::string m_unfinished;
    // Tree transfers: bytes of finished files plus the library's 100 units
    // for every directory, known exactly at each finished file.
    int64_t m_finishedBytes = 0;
    int64_t m_directories = 0;
    std::chrono::steady_clock::time_point m_origin;
    double m_lastDraw = -1;
    bool m_drawn = false;
};

}  // namespace scpkit::cli
