#include "cli/CallLog.h"

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/XString.h>

namespace scpkit::cli {

CallLog::CallLog(const std::string& path) : m_path(path) {
    if (!m_path.empty()) m_file = std::fopen(m_path.c_str(), "a");
}

CallLog::~CallLog() {
    if (m_file) std::fclose(m_file);
}

std::string CallLog::hint() const {
    if (enabled()) return " (full log in " + m_path + ")";
    return " (run again with --log FILE for the full log)";
}

void CallLog::record(ClsBase& object) {
    if (!m_file) return;
    XString text;
    object.get_LastErrorText(text);
    std::lock_guard<std::mutex> lock(m_mutex);
    std::fputs(text.getUtf8(), m_file);
    if (text.getSizeUtf8() == 0 || text.getUtf8Sb().lastChar() != '\n') std::fputc('\n', m_file);
    std::fflush(m_file);
}

}  // namespace scpkit::cli
