// The log: a tree of named contexts holding error lines, information lines
// and data items (a tag and a value).
#pragma once

#include <cstdint>

namespace scpkit {

class XString;
class StringBuffer;

class LogBase {
public:
    virtual ~LogBase() = default;

    // Read directly by callers before every optional (verbose-only) line.
    bool m_verboseLogging = false;

    // Opens a nested context. `important` marks a context worth keeping in
    // the rendered tree even when it holds nothing.
    virtual void enterContext(const char* name, bool important) = 0;
    virtual void leaveContext() = 0;

    virtual void LogError(const char* text) = 0;  // always written
    virtual void LogInfo(const char* text) = 0;   // callers test verbosity first where optional
    virtual void LogData(const char* tag, const char* value) = 0;

    void LogDataX(const char* tag, const XString& value);
    void LogDataSb(const char* tag, const StringBuffer& value);
    void LogDataLong(const char* tag, int32_t value);
    void LogDataInt64(const char* tag, int64_t value);
    void LogDataBool(const char* tag, bool value);  // value "true" or "false"
};

// A log that keeps nothing: for operations given "no log".
class LogNull : public LogBase {
public:
    void enterContext(const char*, bool) override {}
    void leaveContext() override {}
    void LogError(const char*) override {}
    void LogInfo(const char*) override {}
    void LogData(const char*, const char*) override {}
};

// Saves the verbose flag, switches it off, and restores it on scope exit.
class QuietLog {
public:
    explicit QuietLog(LogBase& log) : m_log(log), m_saved(log.m_verboseLogging) {
        log.m_verboseLogging = false;
    }
    ~QuietLog() { m_log.m_verboseLogging = m_saved; }
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

private:
    LogBase& m_log;
    bool m_saved;
};

}  // namespace scpkit
