#include <scpkit/base/XString.h>

#include <cstring>
#include <string>

namespace scpkit {

namespace {

bool isContinuationByte(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

unsigned char lowerAscii(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

bool bytesEqual(const char* a, const char* b, size_t n, bool caseInsensitive) {
    if (!caseInsensitive) return std::memcmp(a, b, n) == 0;
    for (size_t i = 0; i < n; ++i) {
        if (lowerAscii(static_cast<unsigned char>(a[i])) !=
            lowerAscii(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

}  // namespace

int XString::getNumChars() const {
    int count = 0;
    for (unsigned char c : m_sb.str()) {
        if (!isContinuationByte(c)) ++count;
    }
    return count;
}

void XString::shortenNumChars(int n) {
    if (n <= 0) return;
    std::string& s = m_sb.str_rw();
    size_t end = s.size();
    while (n > 0 && end > 0) {
        // Step back over continuation bytes to the character's lead byte.
        --end;
        while (end > 0 && isContinuationByte(static_cast<unsigned char>(s[end]))) --end;
        --n;
    }
    s.resize(end);
}

bool XString::beginsWithUtf8(const char* prefix, bool caseInsensitive) const {
    if (!prefix) return true;
    size_t n = std::strlen(prefix);
    if (n > m_sb.getSize()) return false;
    return bytesEqual(m_sb.getString(), prefix, n, caseInsensitive);
}

bool XString::replaceFirstOccuranceUtf8(const char* find, const char* replacement,
                                        bool caseInsensitive) {
    if (!find || !*find) return false;
    std::string& s = m_sb.str_rw();
    size_t n = std::strlen(find);
    if (n > s.size()) return false;
    for (size_t i = 0; i + n <= s.size(); ++i) {
        if (bytesEqual(s.data() + i, find, n, caseInsensitive)) {
            try {
                s.replace(i, n, replacement ? replacement : "");
            } catch (...) {
                return false;
            }
            return true;
        }
    }
    return false;
}

}  // namespace scpkit
