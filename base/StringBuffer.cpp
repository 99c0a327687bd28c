#include <scpkit/base/StringBuffer.h>

#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

#include <scpkit/base/ExtPtrArray.h>

namespace scpkit {

namespace {

bool isSpace(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

unsigned char lowerAscii(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

// Runs an append-style mutation, turning allocation failure into false.
template <typename F>
bool guarded(F&& f) {
    try {
        f();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
}

}  // namespace

bool StringBuffer::append(const char* text) {
    if (!text) return true;
    return guarded([&] { m_str.append(text); });
}

bool StringBuffer::append(const StringBuffer& other) {
    if (&other == this) return guarded([&] { m_str.append(std::string(m_str)); });
    return guarded([&] { m_str.append(other.m_str); });
}

bool StringBuffer::append(const void* bytes, size_t numBytes) {
    if (!bytes || numBytes == 0) return true;
    return guarded([&] { m_str.append(static_cast<const char*>(bytes), numBytes); });
}

bool StringBuffer::append(unsigned int value) {
    return guarded([&] { m_str.append(std::to_string(value)); });
}

bool StringBuffer::appendN(const char* text, size_t numBytes) {
    if (!text || numBytes == 0) return true;
    return guarded([&] { m_str.append(text, numBytes); });
}

bool StringBuffer::appendChar(char c) {
    return guarded([&] { m_str.push_back(c); });
}

bool StringBuffer::appendInt64(int64_t value) {
    return guarded([&] { m_str.append(std::to_string(value)); });
}

bool StringBuffer::appendMinSize(const char* text, size_t minCapacity) {
    return guarded([&] {
        if (m_str.capacity() < minCapacity) m_str.reserve(minCapacity);
        if (text) m_str.append(text);
    });
}

bool StringBuffer::appendLineEnding() {
    return appendChar('\n');
}

bool StringBuffer::setString(const char* text) {
    if (text == m_str.c_str()) return true;
    return guarded([&] { m_str.assign(text ? text : ""); });
}

void StringBuffer::shorten(size_t numBytes) {
    if (numBytes >= m_str.size())
        m_str.clear();
    else
        m_str.resize(m_str.size() - numBytes);
}

void StringBuffer::trim2() {
    size_t end = m_str.size();
    while (end > 0 && isSpace(static_cast<unsigned char>(m_str[end - 1]))) --end;
    size_t begin = 0;
    while (begin < end && isSpace(static_cast<unsigned char>(m_str[begin]))) ++begin;
    m_str.erase(end);
    m_str.erase(0, begin);
}

bool StringBuffer::beginsWith(const char* prefix) const {
    if (!prefix) return true;
    size_t n = std::strlen(prefix);
    return m_str.size() >= n && m_str.compare(0, n, prefix) == 0;
}

bool StringBuffer::containsChar(char c) const {
    return m_str.find(c) != std::string::npos;
}

bool StringBuffer::containsSubstring(const char* text) const {
    if (!text) return false;
    return m_str.find(text) != std::string::npos;
}

bool StringBuffer::containsSubstringNoCase(const char* text) const {
    if (!text) return false;
    size_t n = std::strlen(text);
    if (n == 0) return true;
    if (n > m_str.size()) return false;
    for (size_t i = 0; i + n <= m_str.size(); ++i) {
        size_t k = 0;
        while (k < n && lowerAscii(static_cast<unsigned char>(m_str[i + k])) ==
                            lowerAscii(static_cast<unsigned char>(text[k])))
            ++k;
        if (k == n) return true;
    }
    return false;
}

int64_t StringBuffer::toInt64() const {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(m_str.c_str());
    while (isSpace(*p)) ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = (*p == '-');
        ++p;
    }
    // Accumulate as a negative number so that INT64_MIN is representable.
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    int64_t acc = 0;
    bool overflow = false;
    for (; *p >= '0' && *p <= '9'; ++p) {
        int digit = *p - '0';
        if (overflow) continue;
        if (acc < (kMin + digit) / 10) {
            overflow = true;
            continue;
        }
        acc = acc * 10 - digit;
    }
    if (overflow) return negative ? kMin : kMax;
    if (negative) return acc;
    return acc == kMin ? kMax : -acc;
}

bool StringBuffer::splitAndTrim(ExtPtrArraySb& parts, char separator, bool trimEach,
                                bool skipEmpty) const {
    size_t start = 0;
    for (;;) {
        size_t end = m_str.find(separator, start);
        size_t stop = (end == std::string::npos) ? m_str.size() : end;
        StringBuffer piece;
        if (!piece.append(m_str.data() + start, stop - start)) return false;
        if (trimEach) piece.trim2();
        if (!(skipEmpty && piece.getSize() == 0)) {
            if (!parts.appendString(piece.getString())) return false;
        }
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return true;
}

}  // namespace scpkit
