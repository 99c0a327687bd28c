// The progress of one tree copied over several channels at once: each
// worker's figures for the piece it copies, added up for the bar and the
// rate limit. The total starts as the plan's estimate and becomes exact as
// pieces finish.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "cli/ProgressMeter.h"

namespace scpkit::cli {

class TreeProgress {
  public:
    explicit TreeProgress(int workers) : m_workers(static_cast<size_t>(workers)) {}

    // A piece of about `plannedBytes` waits to be copied.
    void plan(int64_t plannedBytes);
    void begin(int worker, int64_t plannedBytes);
    // The worker's piece has moved `done` bytes of `total` (-1: unknown) by
    // `now` (seconds on the bar's clock).
    void update(int worker, int64_t done, int64_t total, double now);
    enum class PieceEnd { Finished, BackToQueue };
    void end(int worker, PieceEnd how);

    int64_t doneBytes() const;
    ProgressSnapshot snapshot(double now) const;

  private:
    struct Current {
        bool busy = false;
        int64_t planned = 0, done = 0, total = -1;
    };

    mutable std::mutex m_mutex;
    std::vector<Current> m_workers;
    int64_t m_waiting = 0;   // planned bytes of the pieces not begun
    int64_t m_finished = 0;  // bytes moved by the pieces that ended
    double m_start = -1;     // when the first byte moved
};

}  // namespace scpkit::cli
