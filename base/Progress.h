// Progress reporting and abort: the application's callback, the per-call
// progress accounting, and the per-call carrier handed to channel operations.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

namespace scpkit {

class LogBase;

// The application's callback. Every method does nothing by default; setting
// `abort` to true asks the running call to stop (the request is sticky).
class ProgressEvent {
public:
    virtual ~ProgressEvent() = default;
    // Called when the whole-number percentage (0 to PercentScale) changes.
    virtual void OnPercent(int percent, bool& abort) { (void)percent, (void)abort; }
    // Called every PollIntervalMs during long operations (never when 0).
    virtual void OnPoll(bool& abort) { (void)abort; }
    // Named progress events, such as "scp-localfile-uploaded", with a UTF-8 value.
    virtual void OnNamedEvent(const char* name, const char* value) { (void)name, (void)value; }
};

class ProgressMonitor {
public:
    ProgressMonitor(ProgressEvent* callback, unsigned pollIntervalMs, unsigned percentScale,
                    int64_t expectedTotal);

    // New expected total; the amount done goes back to 0 (no percent event).
    void progressReset(int64_t total, LogBase* log);
    // Adds to the amount done (never beyond the total) and reports a changed
    // percentage. Returns true when the application has asked to abort.
    bool consumeProgress(int64_t amount, LogBase* log);
    // Moves the amount done up to the total (100 %).
    void consumeRemaining(LogBase* log);
    // Raises a named information event.
    void progressInfo(const char* eventName, const char* value);
    // Calls OnPoll when the poll interval has passed; true when aborting.
    bool abortCheck(LogBase* log);
    bool abortRequested() const { return m_aborted; }

    int64_t total() const { return m_total; }
    int64_t done() const { return m_done; }

private:
    void reportPercent();

    ProgressEvent* m_callback;
    unsigned m_pollIntervalMs;
    unsigned m_percentScale;
    int64_t m_total;
    int64_t m_done = 0;
    int m_lastPercent = -1;
    bool m_aborted = false;
    std::chrono::steady_clock::time_point m_lastPoll;
};

// Creates a monitor only when the application gave a callback.
class ProgressMonitorPtr {
public:
    ProgressMonitorPtr(ProgressEvent* callback, unsigned pollIntervalMs, unsigned percentScale,
                       int64_t expectedTotal);
    ProgressMonitor* getPm() const { return m_pm.get(); }

private:
    std::unique_ptr<ProgressMonitor> m_pm;
};

// Carried through every channel operation of one call.
class SocketParams {
public:
    explicit SocketParams(ProgressMonitor* pm) : m_progressMonitor(pm) {}

    // True when the application has asked to abort; the first time, logs
    // "Operation aborted by the application."
    bool spAbortCheck(LogBase& log);

    ProgressMonitor* m_progressMonitor;
    bool m_receivedEof = false;    // the channel's EOF has arrived (set by reads)
    bool m_receivedClose = false;  // the channel's CLOSE has arrived (set by reads)

private:
    bool m_abortLogged = false;
};

}  // namespace scpkit
