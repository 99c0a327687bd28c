// Unicode text, held as UTF-8. Character counts are code points.
#pragma once

#include <scpkit/base/StringBuffer.h>

namespace scpkit {

class XString {
  public:
    XString() = default;
    explicit XString(const char* utf8) { m_sb.setString(utf8); }

    const char* getUtf8() const { return m_sb.getString(); }
    const StringBuffer& getUtf8Sb() const { return m_sb; }
    StringBuffer& getUtf8Sb_rw() { return m_sb; }
    size_t getSizeUtf8() const { return m_sb.getSize(); }

    bool setFromUtf8(const char* utf8) { return m_sb.setString(utf8); }
    bool setFromSbUtf8(const StringBuffer& sb) { return m_sb.setString(sb.getString()); }
    bool appendUtf8(const char* utf8) { return m_sb.append(utf8); }
    bool appendSbUtf8(const StringBuffer& sb) { return m_sb.append(sb); }
    bool appendX(const XString& other) { return m_sb.append(other.m_sb); }
    bool copyFromX(const XString& other) { return m_sb.setString(other.getUtf8()); }
    void clear() { m_sb.clear(); }
    bool isEmpty() const { return m_sb.getSize() == 0; }
    void trim2() { m_sb.trim2(); }

    // Number of characters (UTF-8 lead bytes), not bytes.
    int getNumChars() const;
    // Drops n characters (not bytes) from the end; all of them when n is larger.
    void shortenNumChars(int n);

    bool equalsUtf8(const char* utf8) const { return m_sb.equals(utf8); }
    // caseInsensitive folds ASCII letters; false compares byte for byte.
    bool beginsWithUtf8(const char* prefix, bool caseInsensitive) const;
    bool containsSubstringUtf8(const char* text) const { return m_sb.containsSubstring(text); }
    // Replaces the first occurrence of `find`; false when there is none.
    bool replaceFirstOccuranceUtf8(const char* find, const char* replacement, bool caseInsensitive);

  private:
    StringBuffer m_sb;
};

}  // namespace scpkit
