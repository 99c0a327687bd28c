#include <scpkit/base/ClsBase.h>

#include <string>

#include <scpkit/base/Charset.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/XString.h>

namespace scpkit {

ClsBase::ClsBase() = default;

ClsBase::~ClsBase() = default;

void ClsBase::_toString(XString& out) {
    CritSecExitor lock(m_critSec);
    out.setFromUtf8("ClsBase objectType=");
    out.getUtf8Sb_rw().appendInt64(m_objectType);
}

void ClsBase::injectStatus(const char* text) {
    CritSecExitor lock(m_critSec);
    m_log.LogInfo(text);
}

void ClsBase::injectError(const char* text) {
    CritSecExitor lock(m_critSec);
    m_log.LogError(text);
}

void ClsBase::put_UncommonOptions(XString& options) {
    CritSecExitor lock(m_critSec);
    m_uncommonOptions.setString(options.getUtf8());
}

void ClsBase::get_UncommonOptions(XString& out) {
    CritSecExitor lock(m_critSec);
    out.setFromSbUtf8(m_uncommonOptions);
}

bool ClsBase::get_VerboseLogging() {
    CritSecExitor lock(m_critSec);
    return m_log.m_verboseLogging;
}

void ClsBase::put_VerboseLogging(bool verbose) {
    CritSecExitor lock(m_critSec);
    m_log.m_verboseLogging = verbose;
}

void ClsBase::dotNetDispose() {
    CritSecExitor lock(m_critSec);
    // The log tree is the only thing held between calls that can go early.
    m_log.clearLog();
}

void ClsBase::get_DebugLogFilePath(XString& path) {
    CritSecExitor lock(m_critSec);
    path.setFromUtf8(m_log.debugLogFilePath().c_str());
}

void ClsBase::put_DebugLogFilePath(XString& path) {
    CritSecExitor lock(m_critSec);
    m_log.setDebugLogFilePath(path.getUtf8());
}

void ClsBase::get_LastErrorText(XString& out) {
    CritSecExitor lock(m_critSec);
    std::string text;
    try {
        m_log.renderText(text);
    } catch (...) {
        text.clear();
    }
    out.setFromUtf8(text.c_str());
}

unsigned ClsBase::get_PollIntervalMs() {
    CritSecExitor lock(m_critSec);
    return m_pollIntervalMs;
}

void ClsBase::put_PollIntervalMs(unsigned ms) {
    CritSecExitor lock(m_critSec);
    m_pollIntervalMs = ms;
}

unsigned ClsBase::get_PercentScale() {
    CritSecExitor lock(m_critSec);
    return m_percentScale;
}

void ClsBase::put_PercentScale(unsigned scale) {
    CritSecExitor lock(m_critSec);
    m_percentScale = scale;
}

void ClsBase::logSuccessFailure(bool success) {
    m_log.logOutcome(success);
}

bool ClsBase::firstError(LogFirstError& out) {
    CritSecExitor lock(m_critSec);
    return m_log.firstError(out);
}

bool ClsBase::xstringToDb(const XString& charset, const XString& text, DataBuffer& out,
                          LogBase& log) {
    return utf8ToCharset(charset.getUtf8(), text.getUtf8(), text.getSizeUtf8(), out, log);
}

bool ClsBase::dbToXString(const XString& charset, const DataBuffer& bytes, XString& text,
                          LogBase& log) {
    std::string utf8;
    if (!charsetToUtf8(charset.getUtf8(), bytes.getData2(), bytes.getSize(), utf8, log))
        return false;
    text.clear();
    return text.getUtf8Sb_rw().append(utf8.data(), utf8.size());
}

bool ClsBase::dbToXStringTakingBytes(const XString& charset, DataBuffer& bytes, XString& text,
                                     LogBase& log) {
    if (!isUtf8Charset(charset.getUtf8()) || !isValidUtf8(bytes.getData2(), bytes.getSize()))
        return dbToXString(charset, bytes, text, log);  // converts, or says why not
    std::string taken;
    bytes.moveBytesTo(taken);
    text.getUtf8Sb_rw().takeString(taken);
    return true;
}

}  // namespace scpkit
