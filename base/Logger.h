// The tree log kept by every public object. A context opened at the top
// level starts a new tree, so the rendered text always describes the last
// public call. With a debug file set, every line is also appended to that
// file as it is written.
#pragma once

#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <scpkit/base/LogBase.h>

namespace scpkit {

struct LogDataItem {
    std::string tag;
    std::string value;
};

// Why a call failed, as the log saw it: its first error line and the data
// items logged around it. A program builds its one-line message from these
// (tags such as "errorResponse", "scpError", "scp_errors1", "sshError",
// "path", "osError") instead of reading the rendered text.
struct LogFirstError {
    // The first error line of the call; empty when the call ended "Failed."
    // without logging one (a remote error text is a data item, not an error
    // line, so this happens).
    std::string text;
    // The contexts open when it was logged, outermost first, joined by '/'
    // ("DownloadFile/receiveFile/receiveFileInfo").
    std::string context;
    // In the order logged: the last data items (up to kItemsBefore) that were
    // logged in the error's own context or in steps nested within it before
    // the error, then the data items (up to kItemsAfter) logged anywhere in
    // the call after it.
    std::vector<LogDataItem> items;

    static constexpr size_t kItemsBefore = 8;
    static constexpr size_t kItemsAfter = 16;

    // The value of the first item with this tag; null when there is none.
    const std::string* find(const char* tag) const;
};

class _vqLogger : public LogBase {
  public:
    _vqLogger();
    ~_vqLogger() override;

    void enterContext(const char* name, bool important) override;
    void leaveContext() override;
    void LogError(const char* text) override;
    void LogInfo(const char* text) override;
    void LogData(const char* tag, const char* value) override;
    // The call's outcome line, "Success." or "Failed."; never cut.
    void logOutcome(bool success);

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

    // The tree keeps at most this many entries (a context, a line or a data
    // item each): the first half and the last half of the call. From the
    // middle it keeps only errors, the data items at the call's top level
    // and the outcome line, and says how many entries it left out; the
    // debug file still receives everything.
    void setMaxEntries(size_t maxEntries);
    int depth() const { return static_cast<int>(m_open.size()); }

    // The first error of the last call (or of the call in progress); false
    // when it has logged no error and has not ended "Failed.". Kept apart
    // from the tree, so no cut of the tree loses it.
    bool firstError(LogFirstError& out) const;

    // Empty path: no debug file. The file is opened for appending.
    void setDebugLogFilePath(const char* path);
    const std::string& debugLogFilePath() const { return m_debugPath; }

  private:
    struct Context;
    struct Entry;
    struct Renderer;
    using ContextPtr = std::shared_ptr<Context>;

    void addEntry(int kind, const char* a, const char* b, bool alwaysKept);
    void store(Entry&& entry);
    Entry* lastEntry();
    void noteFirstError(const char* text);
    void noteDataItem(const char* tag, const char* value);
    void writeDebugLine(const std::string& line);

    // The entries in the order logged: the head (the call's beginning), the
    // entries always kept from the middle, the tail (its latest entries).
    std::vector<Entry> m_head;
    std::vector<Entry> m_keptFromMiddle;
    std::deque<Entry> m_tail;
    size_t m_headMax = 100000;
    size_t m_tailMax = 100000;
    size_t m_numLeftOut = 0;
    std::vector<ContextPtr> m_open;  // innermost last

    // First-error bookkeeping of the current call.
    bool m_haveFirstError = false;
    LogFirstError m_firstError;
    size_t m_itemsAfterError = 0;
    std::deque<std::pair<ContextPtr, LogDataItem>> m_recentItems;

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
