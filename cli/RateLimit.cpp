#include "cli/RateLimit.h"

#include <cmath>

namespace scpkit::cli {

void RateLimit::restart() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_originTime = -1;
}

int64_t RateLimit::delayMs(int64_t doneBytes, double now) {
    if (m_rate <= 0 || doneBytes < 0) return 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_originTime < 0 || doneBytes < m_originBytes) {
        m_originTime = now;
        m_originBytes = doneBytes;
        return 0;
    }
    double due = static_cast<double>(doneBytes - m_originBytes) / static_cast<double>(m_rate);
    double ahead = due - (now - m_originTime);
    return ahead > 0 ? static_cast<int64_t>(std::ceil(ahead * 1000 - 1e-6)) : 0;
}

}  // namespace scpkit::cli
