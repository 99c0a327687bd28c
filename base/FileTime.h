// A point in time in UTC, at the one-second resolution the SCP protocol
// carries: local times are read truncated to whole seconds, so comparing a
// local time with one that crossed the wire never sees a difference that
// the other side could not store.
#pragma once

#include <cstdint>

namespace scpkit {

class VostrelFileTime {
public:
    VostrelFileTime() = default;

    void getCurrentGmt();
    // Seconds since 1970-01-01 UTC as 32 bits (times outside the range clamp).
    uint32_t toUnixTime32() const;
    void fromUnixTime32(uint32_t seconds, int unused);
    void fromUnixTime64(int64_t seconds) { m_unixSeconds = seconds; }
    int64_t toUnixTime64() const { return m_unixSeconds; }
    void copyFrom(const VostrelFileTime& other) { m_unixSeconds = other.m_unixSeconds; }

    // 1 when a is later than b, 0 when equal, -1 when earlier.
    static int compareFileTimeExact(const VostrelFileTime& a, const VostrelFileTime& b);

private:
    int64_t m_unixSeconds = 0;
};

}  // namespace scpkit
