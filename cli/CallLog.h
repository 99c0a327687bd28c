// --log FILE: the tree log of every library call, appended as each call
// returns, so a failed run can be read in full afterwards.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

namespace scpkit {
class ClsBase;
}

namespace scpkit::cli {

class CallLog {
  public:
    explicit CallLog(const std::string& path);
    ~CallLog();
    CallLog(const CallLog&) = delete;
    CallLog& operator=(const CallLog&) = delete;

    bool enabled() const { return !m_path.empty(); }
    // False when the file given cannot be opened for appending.
    bool ok() const { return m_path.empty() || m_file != nullptr; }
    const std::string& path() const { return m_path; }

    // What a failure line adds: where the full log is, or how to get one.
    std::string hint() const;

    // Appends the object's log of its last call.
    void record(ClsBase& object);

  private:
    std::string m_path;
    std::FILE* m_file = nullptr;
    std::mutex m_mutex;  // several workers' objects return at once
};

}  // namespace scpkit::cli
