#include <scpkit/base/Logger.h>

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

struct _vqLogger::Node {
    int kind = kContext;
    bool important = false;
    std::string text;   // context name, line text, or data tag
    std::string value;  // data value
    std::vector<std::unique_ptr<Node>> children;

    std::string lineText() const { return kind == kData ? text + ": " + value : text; }

    void render(std::string& out, size_t indent) const {
        if (kind != kContext) {
            appendIndented(out, indent, lineText());
            return;
        }
        appendIndented(out, indent, text + ":");
        for (const auto& child : children) child->render(out, indent + kIndentStep);
        appendIndented(out, indent, "--" + text);
    }
};

_vqLogger::_vqLogger() : m_root(new Node()) {}

_vqLogger::~_vqLogger() {
    if (m_debugFile) std::fclose(m_debugFile);
}

void _vqLogger::enterContext(const char* name, bool important) {
    try {
        // A context at the top level is a new public call: its tree replaces the last one.
        if (m_open.empty()) clearLog();
        if (!m_skippedContexts.empty() || overBudget()) {
            writeDebugLine(std::string(name ? name : "") + ":");
            m_skippedContexts.push_back(name ? name : "");
            return;
        }
        auto node = std::make_unique<Node>();
        node->kind = kContext;
        node->important = important;
        node->text = name ? name : "";
        writeDebugLine(node->text + ":");
        Node* parent = m_open.empty() ? m_root.get() : m_open.back();
        parent->children.push_back(std::move(node));
        m_open.push_back(parent->children.back().get());
        ++m_numEntries;
    } catch (...) {
        // The log never makes a call fail.
    }
}

void _vqLogger::leaveContext() {
    if (!m_skippedContexts.empty()) {
        std::string name = std::move(m_skippedContexts.back());
        m_skippedContexts.pop_back();
        try {
            writeDebugLine("--" + name);
        } catch (...) {
        }
        return;
    }
    if (m_open.empty()) return;
    Node* closing = m_open.back();
    m_open.pop_back();
    try {
        writeDebugLine("--" + closing->text);
    } catch (...) {
    }
    // An unimportant context that collected nothing is not worth a place in the tree.
    if (!closing->important && closing->children.empty()) {
        Node* parent = m_open.empty() ? m_root.get() : m_open.back();
        if (!parent->children.empty() && parent->children.back().get() == closing) {
            parent->children.pop_back();
            --m_numEntries;
        }
    }
}

void _vqLogger::LogError(const char* text) {
    addLine(kError, text, nullptr);
}

void _vqLogger::LogInfo(const char* text) {
    addLine(kInfo, text, nullptr);
}

void _vqLogger::LogData(const char* tag, const char* value) {
    addLine(kData, tag, value);
}

void _vqLogger::addLine(int kind, const char* a, const char* b) {
    try {
        auto node = std::make_unique<Node>();
        node->kind = kind;
        node->text = a ? a : "";
        if (kind == kData) node->value = b ? b : "";
        writeDebugLine(node->lineText());
        if (kind != kError && overBudget()) return;
        Node* parent = m_open.empty() ? m_root.get() : m_open.back();
        parent->children.push_back(std::move(node));
        ++m_numEntries;
    } catch (...) {
    }
}

void _vqLogger::renderText(std::string& out) const {
    out.clear();
    for (const auto& child : m_root->children) child->render(out, 0);
}

void _vqLogger::clearLog() {
    // Contexts still open stay open: only what lies outside them is dropped.
    if (!m_open.empty()) return;
    m_root->children.clear();
    m_skippedContexts.clear();
    m_numEntries = 0;
    m_truncated = false;
}

bool _vqLogger::overBudget() {
    if (m_numEntries < m_maxEntries) return false;
    if (!m_truncated) {
        // Said once, where the tree stops growing.
        m_truncated = true;
        auto note = std::make_unique<Node>();
        note->kind = kInfo;
        note->text = "(The log keeps its first " + std::to_string(m_maxEntries) +
                     " entries; later ones, except errors, are only in the debug log file.)";
        Node* parent = m_open.empty() ? m_root.get() : m_open.back();
        parent->children.push_back(std::move(note));
    }
    return true;
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
    appendIndented(out, (m_open.size() + m_skippedContexts.size()) * kIndentStep, line);
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
