#include <scpkit/base/FileTime.h>

#include <ctime>

namespace scpkit {

void VostrelFileTime::getCurrentGmt() {
    // Whole seconds, like every other time this class holds.
    m_unixSeconds = static_cast<int64_t>(std::time(nullptr));
}

uint32_t VostrelFileTime::toUnixTime32() const {
    if (m_unixSeconds <= 0) return 0;
    if (m_unixSeconds >= static_cast<int64_t>(UINT32_MAX)) return UINT32_MAX;
    return static_cast<uint32_t>(m_unixSeconds);
}

void VostrelFileTime::fromUnixTime32(uint32_t seconds, int /*unused*/) {
    m_unixSeconds = static_cast<int64_t>(seconds);
}

int VostrelFileTime::compareFileTimeExact(const VostrelFileTime& a, const VostrelFileTime& b) {
    if (a.m_unixSeconds > b.m_unixSeconds) return 1;
    if (a.m_unixSeconds < b.m_unixSeconds) return -1;
    return 0;
}

}  // namespace scpkit
