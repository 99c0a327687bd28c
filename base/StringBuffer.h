// Byte string, UTF-8 by convention.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace scpkit {

class ExtPtrArraySb;

class StringBuffer {
  public:
    StringBuffer() = default;
    explicit StringBuffer(const char* text) : m_str(text ? text : "") {}

    bool append(const char* text);
    bool append(const StringBuffer& other);
    bool append(const void* bytes, size_t numBytes);
    bool append(unsigned int value);  // decimal
    bool appendN(const char* text, size_t numBytes);
    bool appendChar(char c);
    bool appendInt64(int64_t value);  // decimal, '-' for negatives
    // Grows the capacity to at least minCapacity bytes, then appends the text.
    bool appendMinSize(const char* text, size_t minCapacity);
    bool appendLineEnding();  // "\n"
    bool setString(const char* text);
    void clear() { m_str.clear(); }
    // Takes text's bytes without copying them; text is left empty.
    void takeString(std::string& text) {
        m_str.swap(text);
        text.clear();
    }
    void shorten(size_t numBytes);  // drops bytes from the end (all when more)
    void trim2();                   // leading and trailing white space

    const char* getString() const { return m_str.c_str(); }
    size_t getSize() const { return m_str.size(); }
    char lastChar() const { return m_str.empty() ? '\0' : m_str.back(); }
    bool beginsWith(const char* prefix) const;
    bool containsChar(char c) const;
    bool containsSubstring(const char* text) const;
    bool containsSubstringNoCase(const char* text) const;  // ASCII case folding
    bool equals(const char* text) const { return m_str == (text ? text : ""); }

    // Optional white space, an optional sign, then decimal digits up to the
    // first other byte. No digits: 0. Out of range: saturates at the int64 limits.
    int64_t toInt64() const;

    // Splits at `separator` into `parts` (appended). trimEach trims every
    // piece; skipEmpty drops pieces that are empty (after trimming).
    bool splitAndTrim(ExtPtrArraySb& parts, char separator, bool trimEach, bool skipEmpty) const;

    static void deleteSb(StringBuffer* sb) { delete sb; }

    const std::string& str() const { return m_str; }
    std::string& str_rw() { return m_str; }

  private:
    std::string m_str;
};

}  // namespace scpkit
