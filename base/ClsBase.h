// Base of every public class: critical section, log, uncommon options,
// progress settings, and the text conversions the components share.
#pragma once

#include <scpkit/base/CritSec.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/StringBuffer.h>

namespace scpkit {

class XString;
class DataBuffer;

class ClsBase {
  public:
    ClsBase();
    ClsBase(const ClsBase&) = delete;
    ClsBase& operator=(const ClsBase&) = delete;
    virtual ~ClsBase();

    // A short description of the object (its class name and type code).
    virtual void _toString(XString& out);
    // Adds a status line to the log (for wrappers reporting their own state).
    virtual void injectStatus(const char* text);
    // Adds an error line to the log.
    virtual void injectError(const char* text);
    virtual void put_UncommonOptions(XString& options);
    virtual bool get_VerboseLogging();
    virtual void put_VerboseLogging(bool verbose);
    // Releases what can be released early; the object stays usable.
    virtual void dotNetDispose();
    virtual void get_DebugLogFilePath(XString& path);
    virtual void put_DebugLogFilePath(XString& path);

    // The log tree of the last public call, as indented text.
    void get_LastErrorText(XString& out);
    void get_UncommonOptions(XString& out);

    unsigned get_PollIntervalMs();
    void put_PollIntervalMs(unsigned ms);
    unsigned get_PercentScale();
    void put_PercentScale(unsigned scale);

    // Closes a public call's log with "Success." or "Failed.".
    void logSuccessFailure(bool success);

    // The first error of the last call and the data items logged around it,
    // for a one-line message (see LogFirstError); false when the last call
    // logged no error and did not fail.
    bool firstError(LogFirstError& out);

    // Text to bytes in a named charset (appended); bytes to text (replacing
    // `text`). False when the charset is unknown or the data do not convert.
    static bool xstringToDb(const XString& charset, const XString& text, DataBuffer& out,
                            LogBase& log);
    static bool dbToXString(const XString& charset, const DataBuffer& bytes, XString& text,
                            LogBase& log);
    // The same, except that well-formed UTF-8 read as "utf-8" becomes the
    // text without a copy (bytes is left empty then).
    static bool dbToXStringTakingBytes(const XString& charset, DataBuffer& bytes, XString& text,
                                       LogBase& log);

    int get_ObjectType() const { return m_objectType; }

    VostrelCritSec m_critSec;
    _vqLogger m_log;

  protected:
    StringBuffer m_uncommonOptions;
    int m_objectType = 0;
    unsigned m_pollIntervalMs = 0;
    unsigned m_percentScale = 100;
};

// Releases a public-class object at scope exit.
template <typename T>
class _clsBaseHolder {
  public:
    explicit _clsBaseHolder(T* obj = nullptr) : m_obj(obj) {}
    ~_clsBaseHolder() { delete m_obj; }
    _clsBaseHolder(const _clsBaseHolder&) = delete;
    _clsBaseHolder& operator=(const _clsBaseHolder&) = delete;
    void setClsBasePtr(T* obj) {
        delete m_obj;
        m_obj = obj;
    }
    T* get() const { return m_obj; }

  private:
    T* m_obj;
};

}  // namespace scpkit
