// The tree log kept by every public object. A context opened at the top
// level starts a new tree, so the rendered text always describes the last
// public call. With a debug file set, every line is also appended to that
// file as it is written.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <scpkit/base/LogBase.h>

namespace scpkit {

class _vqLogger : public LogBase {
  public:
    _vqLogger();
    ~_vqLogger() override;

    void enterContext(const char* name, bool important) override;
    void leaveContext() override;
    void LogError(const char* text) override;
    void LogInfo(const char* text) override;
    void LogData(const char* tag, const char* value) override;

    // The tree as indented text:
    //   Name:
    //       line
    //       tag: value
    //       Inner:
    //           ...
    //       --Inner
    //   --Name
    // A multi-line value continues on lines indented one level deeper.
    void renderText(std::string& out) const;
    void clearLog();
    // The tree keeps at most this many entries; past it, only error lines
    // are added (the debug file still receives everything), so a call over
    // millions of files cannot grow the log without end.
    void setMaxEntries(size_t maxEntries) { m_maxEntries = maxEntries; }
    int depth() const { return static_cast<int>(m_open.size()); }

    // Empty path: no debug file. The file is opened for appending.
    void setDebugLogFilePath(const char* path);
    const std::string& debugLogFilePath() const { return m_debugPath; }

  private:
    struct Node;
    void addLine(int kind, const char* a, const char* b);
    void writeDebugLine(const std::string& line);

    std::unique_ptr<Node> m_root;
    std::vector<Node*> m_open;                   // innermost last
    std::vector<std::string> m_skippedContexts;  // opened past the entry budget
    size_t m_numEntries = 0;
    size_t m_maxEntries = 200000;
    bool m_truncated = false;
    bool overBudget();
    std::string m_debugPath;
    std::FILE* m_debugFile = nullptr;
};

// Opens a named context on a log and closes it at scope exit.
class ClsBase;
class LogContextExitor {
  public:
    LogContextExitor(LogBase& log, const char* name);
    LogContextExitor(ClsBase& obj, const char* name);  // on the object's own log
    ~LogContextExitor();
    LogContextExitor(const LogContextExitor&) = delete;
    LogContextExitor& operator=(const LogContextExitor&) = delete;

  private:
    LogBase& m_log;
};

}  // namespace scpkit
