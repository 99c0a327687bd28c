#include <scpkit/base/Logger.h>

#include <cstring>

#include <scpkit/base/ClsBase.h>

namespace scpkit {

namespace {

enum LineKind { kContext = 0, kError = 1, kInfo = 2, kData = 3 };

constexpr size_t kIndentStep = 4;

// Appends `text` at `indent`; lines after the first go one level deeper.
// Trailing line feeds are dropped so a value ending in "\n" leaves no blank line.
void appendIndented(std::string& out, size_t indent, const std::string& text) {
    size_t end = text.size();
    while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == '\r')) --end;
    size_t start = 0;
    size_t pad = indent;
    for (;;) {
        size_t nl = text.find('\n', start);
        bool last = (nl == std::string::npos || nl >= end);
        size_t stop = last ? end : nl;
        out.append(pad, ' ');
        out.append(text, start, stop - start);
        out.push_back('\n');
        if (last) break;
        start = nl + 1;
        pad = indent + kIndentStep;
    }
}

}  // namespace

// A context is shared by the entries logged in it, so that an entry kept
// from the middle of a long call still renders inside its real contexts
// after the entries that opened them were left out.
struct _vqLogger::Context {
    std::string name;
    ContextPtr parent;
    size_t depth = 1;  // 1 at the top level
    bool important = true;
};

struct _vqLogger::Entry {
    int kind = kInfo;
    bool alwaysKept = false;
    ContextPtr context;  // the context opened (kContext), or the one holding the line
    std::string text;    // line text or data tag
    std::string value;   // data value

    std::string lineText() const { return kind == kData ? text + ": " + value : text; }
};

// Writes entries in order, closing and opening contexts between them as
// their places in the tree change.
struct _vqLogger::Renderer {
    std::string& out;
    std::vector<const Context*> open;  // outermost first

    static std::vector<const Context*> pathTo(const Context* ctx) {
        std::vector<const Context*> path;
        for (; ctx; ctx = ctx->parent.get()) path.push_back(ctx);
        return {path.rbegin(), path.rend()};
    }
    size_t commonDepth(const std::vector<const Context*>& path) const {
        size_t n = 0;
        while (n < open.size() && n < path.size() && open[n] == path[n]) ++n;
        return n;
    }
    void moveTo(const std::vector<const Context*>& path, size_t keep) {
        for (; open.size() > keep; open.pop_back())
            appendIndented(out, (open.size() - 1) * kIndentStep, "--" + open.back()->name);
        for (; open.size() < path.size(); open.push_back(path[open.size()]))
            appendIndented(out, open.size() * kIndentStep, path[open.size()]->name + ":");
    }
    void write(const Entry& e) {
        auto path = pathTo(e.context.get());
        moveTo(path, commonDepth(path));
        if (e.kind != kContext) appendIndented(out, open.size() * kIndentStep, e.lineText());
    }
    // The note of a cut goes into the innermost context holding both sides of it.
    void writeCut(const Entry& next, size_t numLeftOut) {
        size_t common = commonDepth(pathTo(next.context.get()));
        moveTo(std::vector<const Context*>(open.begin(), open.begin() + common), common);
        appendIndented(out, open.size() * kIndentStep,
                       "(" + std::to_string(numLeftOut) +
                           " log entries left out here: from the middle of a long call only "
                           "errors and the call's own data items are kept. A debug log file "
                           "gets every entry.)");
    }
};

const std::string* LogFirstError::find(const char* tag) const {
    for (const LogDataItem& item : items) {
        if (item.tag == tag) return &item.value;
    }
    return nullptr;
}

_vqLogger::_vqLogger() = default;

_vqLogger::~_vqLogger() {
    if (m_debugFile) std::fclose(m_debugFile);
}

void _vqLogger::setMaxEntries(size_t maxEntries) {
    m_headMax = maxEntries / 2;
    m_tailMax = maxEntries > m_headMax + 1 ? maxEntries - m_headMax : 1;
}

void _vqLogger::enterContext(const char* name, bool important) {
    try {
        // A context at the top level is a new public call: its tree replaces the last one.
        if (m_open.empty()) clearLog();
        auto ctx = std::make_shared<Context>();
        ctx->name = name ? name : "";
        ctx->important = important;
        if (!m_open.empty()) {
            ctx->parent = m_open.back();
            ctx->depth = ctx->parent->depth + 1;
        }
        writeDebugLine(ctx->name + ":");
        Entry entry;
        entry.kind = kContext;
        entry.context = ctx;
        store(std::move(entry));
        m_open.push_back(std::move(ctx));
    } catch (...) {
        // The log never makes a call fail.
    }
}

void _vqLogger::leaveContext() {
    if (m_open.empty()) return;
    ContextPtr closing = std::move(m_open.back());
    m_open.pop_back();
    try {
        writeDebugLine("--" + closing->name);
    } catch (...) {
    }
    // An unimportant context that collected nothing is not worth a place in
    // the tree: its opening is still the last entry.
    Entry* last = lastEntry();
    if (!closing->important && last && last->kind == kContext && last->context == closing) {
        if (!m_tail.empty())
            m_tail.pop_back();
        else
            m_head.pop_back();
    }
}

void _vqLogger::LogError(const char* text) {
    noteFirstError(text);
    addEntry(kError, text, nullptr, true);
}

void _vqLogger::LogInfo(const char* text) {
    addEntry(kInfo, text, nullptr, m_open.empty());
}

void _vqLogger::LogData(const char* tag, const char* value) {
    noteDataItem(tag, value);
    // The call's own data items (its settings, the remote's error output)
    // survive any cut; so do lines logged outside every context.
    addEntry(kData, tag, value, m_open.size() <= 1);
}

void _vqLogger::logOutcome(bool success) {
    if (!success && !m_haveFirstError) noteFirstError(nullptr);
    addEntry(kInfo, success ? "Success." : "Failed.", nullptr, true);
}

void _vqLogger::addEntry(int kind, const char* a, const char* b, bool alwaysKept) {
    try {
        Entry entry;
        entry.kind = kind;
        entry.alwaysKept = alwaysKept;
        entry.text = a ? a : "";
        if (kind == kData) entry.value = b ? b : "";
        if (!m_open.empty()) entry.context = m_open.back();
        writeDebugLine(entry.lineText());
        store(std::move(entry));
    } catch (...) {
    }
}

void _vqLogger::store(Entry&& entry) {
    if (m_head.size() < m_headMax) {
        m_head.push_back(std::move(entry));
        return;
    }
    m_tail.push_back(std::move(entry));
    while (m_tail.size() > m_tailMax) {
        if (m_tail.front().alwaysKept)
            m_keptFromMiddle.push_back(std::move(m_tail.front()));
        else
            ++m_numLeftOut;
        m_tail.pop_front();
    }
}

_vqLogger::Entry* _vqLogger::lastEntry() {
    if (!m_tail.empty()) return &m_tail.back();
    return m_head.empty() ? nullptr : &m_head.back();
}

void _vqLogger::noteFirstError(const char* text) {
    if (m_haveFirstError) return;
    try {
        m_haveFirstError = true;
        m_firstError.text = text ? text : "";
        for (const ContextPtr& ctx : m_open) {
            if (!m_firstError.context.empty()) m_firstError.context += '/';
            m_firstError.context += ctx->name;
        }
        // What led to it: only items of the error's own context and the steps within it.
        const Context* here = m_open.empty() ? nullptr : m_open.back().get();
        for (auto& [ctx, item] : m_recentItems) {
            const Context* c = ctx.get();
            while (c && c != here) c = c->parent.get();
            if (!here || c == here) m_firstError.items.push_back(std::move(item));
        }
        m_itemsAfterError = text ? LogFirstError::kItemsAfter : 0;
    } catch (...) {
    }
    m_recentItems.clear();
}

void _vqLogger::noteDataItem(const char* tag, const char* value) {
    try {
        LogDataItem item{tag ? tag : "", value ? value : ""};
        if (!m_haveFirstError) {
            m_recentItems.emplace_back(m_open.empty() ? nullptr : m_open.back(), std::move(item));
            if (m_recentItems.size() > LogFirstError::kItemsBefore) m_recentItems.pop_front();
        } else if (m_itemsAfterError > 0) {
            --m_itemsAfterError;
            m_firstError.items.push_back(std::move(item));
        }
    } catch (...) {
    }
}

bool _vqLogger::firstError(LogFirstError& out) const {
    if (!m_haveFirstError) return false;
    out = m_firstError;
    return true;
}

void _vqLogger::renderText(std::string& out) const {
    out.clear();
    Renderer r{out, {}};
    for (const Entry& e : m_head) r.write(e);
    bool cutPending = m_numLeftOut > 0;
    auto writeAfterCut = [&](const Entry& e) {
        if (cutPending) r.writeCut(e, m_numLeftOut);
        cutPending = false;
        r.write(e);
    };
    for (const Entry& e : m_keptFromMiddle) writeAfterCut(e);
    for (const Entry& e : m_tail) writeAfterCut(e);
    r.moveTo({}, 0);
}

void _vqLogger::clearLog() {
    // Contexts still open stay open: only what lies outside them is dropped.
    if (!m_open.empty()) return;
    m_head.clear();
    m_keptFromMiddle.clear();
    m_tail.clear();
    m_numLeftOut = 0;
    m_haveFirstError = false;
    m_firstError = LogFirstError();
    m_itemsAfterError = 0;
    m_recentItems.clear();
}

void _vqLogger::setDebugLogFilePath(const char* path) {
    if (m_debugFile) {
        std::fclose(m_debugFile);
        m_debugFile = nullptr;
    }
    m_debugPath = path ? path : "";
    if (!m_debugPath.empty()) m_debugFile = std::fopen(m_debugPath.c_str(), "ab");
}

void _vqLogger::writeDebugLine(const std::string& line) {
    if (!m_debugFile) return;
    // Lines are written as they happen; a context's header is indented by the
    // contexts that enclose it, like the rendered tree.
    std::string out;
    appendIndented(out, m_open.size() * kIndentStep, line);
    std::fwrite(out.data(), 1, out.size(), m_debugFile);
    std::fflush(m_debugFile);
}

LogContextExitor::LogContextExitor(LogBase& log, const char* name) : m_log(log) {
    m_log.enterContext(name, true);
}

LogContextExitor::LogContextExitor(ClsBase& obj, const char* name) : m_log(obj.m_log) {
    m_log.enterContext(name, true);
}

LogContextExitor::~LogContextExitor() {
    m_log.leaveContext();
}

}  // namespace scpkit
