// The critical section of a public object and its scope holder.
#pragma once

#include <mutex>

namespace scpkit {

// Recursive, so that a method holding it may call an accessor of the same object.
class VostrelCritSec {
public:
    void enterCriticalSection() { m_mutex.lock(); }
    void leaveCriticalSection() { m_mutex.unlock(); }

private:
    std::recursive_mutex m_mutex;
};

class CritSecExitor {
public:
    explicit CritSecExitor(VostrelCritSec& cs) : m_cs(cs) { m_cs.enterCriticalSection(); }
    ~CritSecExitor() { m_cs.leaveCriticalSection(); }
    CritSecExitor(const CritSecExitor&) = delete;
    CritSecExitor& operator=(const CritSecExitor&) = delete;

private:
    VostrelCritSec& m_cs;
};

}  // namespace scpkit
