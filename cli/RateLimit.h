// -l: keeps a transfer to a number of bytes a second by making the progress
// callback wait, which holds the library's reads and writes back.
// Workers copying one tree share one limit.
#pragma once

#include <cstdint>
#include <mutex>

namespace scpkit::cli {

class RateLimit {
  public:
    explicit RateLimit(int64_t bytesPerSecond) : m_rate(bytesPerSecond) {}

    bool active() const { return m_rate > 0; }
    // The bytes are counted from here (the start of a file of a series).
    void restart();
    // Milliseconds to wait so that `doneBytes` at `now` (seconds) keeps to
    // the rate; 0 to go on at once.
    int64_t delayMs(int64_t doneBytes, double now);

  private:
    std::mutex m_mutex;
    int64_t m_rate;
    double m_originTime = -1;
    int64_t m_originBytes = 0;
};

}  // namespace scpkit::cli
