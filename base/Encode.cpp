#include <scpkit/base/Encode.h>

#include <cstring>
#include <string>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/XString.h>

namespace scpkit {

namespace {

const char kBase64Chars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kBase64UrlChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
const char kHexUpper[] = "0123456789ABCDEF";
const char kHexLower[] = "0123456789abcdef";

// Quoted-printable lines hold at most this many characters, a soft break's '=' included.
constexpr size_t kQpMaxLine = 76;

bool isWhite(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

int hexValue(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

std::string lowerAscii(const char* text) {
    std::string s(text ? text : "");
    for (char& c : s) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return s;
}

// The canonical mode for a name, or empty when the name is unknown.
std::string canonicalMode(const char* name) {
    std::string n = lowerAscii(name);
    if (n == "base64" || n == "base64url" || n == "hex" || n == "hexlower" || n == "url") return n;
    if (n == "quoted-printable" || n == "qp") return "quoted-printable";
    return std::string();
}

void encodeBase64(const unsigned char* p, size_t n, const char* alphabet, bool pad,
                  std::string& out) {
    out.reserve(out.size() + (n + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= n; i += 3) {
        unsigned v = (p[i] << 16) | (p[i + 1] << 8) | p[i + 2];
        out.push_back(alphabet[(v >> 18) & 63]);
        out.push_back(alphabet[(v >> 12) & 63]);
        out.push_back(alphabet[(v >> 6) & 63]);
        out.push_back(alphabet[v & 63]);
    }
    size_t rest = n - i;
    if (rest == 0) return;
    unsigned v = p[i] << 16;
    if (rest == 2) v |= p[i + 1] << 8;
    out.push_back(alphabet[(v >> 18) & 63]);
    out.push_back(alphabet[(v >> 12) & 63]);
    if (rest == 2) out.push_back(alphabet[(v >> 6) & 63]);
    if (pad) out.append(rest == 1 ? "==" : "=");
}

// White space is skipped anywhere; '=' padding may only end the text, and
// (for base64url) may be left out.
bool decodeBase64(const std::string& text, const char* alphabet, bool padOptional,
                  std::string& out) {
    int table[256];
    for (int& t : table) t = -1;
    for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(alphabet[i])] = i;

    unsigned acc = 0;
    size_t digits = 0;  // base64 digits seen
    size_t pads = 0;
    for (unsigned char c : text) {
        if (isWhite(c)) continue;
        if (c == '=') {
            ++pads;
            continue;
        }
        if (pads > 0 || table[c] < 0) return false;  // junk, or data after padding
        acc = (acc << 6) | static_cast<unsigned>(table[c]);
        ++digits;
        if (digits % 4 == 0) {
            out.push_back(static_cast<char>((acc >> 16) & 0xFF));
            out.push_back(static_cast<char>((acc >> 8) & 0xFF));
            out.push_back(static_cast<char>(acc & 0xFF));
            acc = 0;
        }
    }
    size_t rest = digits % 4;
    if (rest == 1) return false;
    if (pads > 0 && (rest == 0 || pads != 4 - rest)) return false;
    if (pads == 0 && rest != 0 && !padOptional) return false;
    if (rest == 2) {
        out.push_back(static_cast<char>((acc >> 4) & 0xFF));
    } else if (rest == 3) {
        out.push_back(static_cast<char>((acc >> 10) & 0xFF));
        out.push_back(static_cast<char>((acc >> 2) & 0xFF));
    }
    return true;
}

void encodeHex(const unsigned char* p, size_t n, const char* digits, std::string& out) {
    out.reserve(out.size() + n * 2);
    for (size_t i = 0; i < n; ++i) {
        out.push_back(digits[p[i] >> 4]);
        out.push_back(digits[p[i] & 15]);
    }
}

bool decodeHex(const std::string& text, std::string& out) {
    int high = -1;
    for (unsigned char c : text) {
        if (isWhite(c)) continue;
        int v = hexValue(c);
        if (v < 0) return false;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<char>((high << 4) | v));
            high = -1;
        }
    }
    return high < 0;  // an odd number of digits is an error
}

// RFC 2045: printable ASCII except '=' stays, a CRLF pair is a hard line
// break, blanks are escaped where they would end a line, and lines are
// broken softly ("=" CRLF) to stay within 76 characters.
void encodeQuotedPrintable(const unsigned char* p, size_t n, std::string& out) {
    size_t lineLen = 0;
    auto emit = [&](const char* piece, size_t len) {
        // Keep room for the '=' of a soft break.
        if (lineLen + len > kQpMaxLine - 1) {
            out.append("=\r\n");
            lineLen = 0;
        }
        out.append(piece, len);
        lineLen += len;
    };
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = p[i];
        if (c == '\r' && i + 1 < n && p[i + 1] == '\n') {
            out.append("\r\n");
            lineLen = 0;
            ++i;
            continue;
        }
        bool endsLine = (i + 1 == n) || (p[i + 1] == '\r' && i + 2 < n && p[i + 2] == '\n');
        bool literal = (c >= 33 && c <= 126 && c != '=') || ((c == ' ' || c == '\t') && !endsLine);
        if (literal) {
            char ch = static_cast<char>(c);
            emit(&ch, 1);
        } else {
            char esc[3] = {'=', kHexUpper[c >> 4], kHexUpper[c & 15]};
            emit(esc, 3);
        }
    }
}

bool decodeQuotedPrintable(const std::string& text, std::string& out) {
    size_t n = text.size();
    size_t i = 0;
    while (i < n) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == ' ' || c == '\t') {
            // Blanks at the end of a line were added in transport: drop them.
            size_t j = i;
            while (j < n && (text[j] == ' ' || text[j] == '\t')) ++j;
            if (j == n || text[j] == '\n' ||
                (text[j] == '\r' && j + 1 < n && text[j + 1] == '\n')) {
                i = j;
            } else {
                out.append(text, i, j - i);
                i = j;
            }
            continue;
        }
        if (c != '=') {
            out.push_back(static_cast<char>(c));
            ++i;
            continue;
        }
        // Soft line break: '=', optional blanks, then LF or CRLF (or the end).
        size_t j = i + 1;
        while (j < n && (text[j] == ' ' || text[j] == '\t')) ++j;
        if (j == n) return true;
        if (text[j] == '\n') {
            i = j + 1;
            continue;
        }
        if (text[j] == '\r' && j + 1 < n && text[j + 1] == '\n') {
            i = j + 2;
            continue;
        }
        if (i + 2 >= n) return false;
        int hi = hexValue(static_cast<unsigned char>(text[i + 1]));
        int lo = hexValue(static_cast<unsigned char>(text[i + 2]));
        if (hi < 0 || lo < 0) return false;
        out.push_back(static_cast<char>((hi << 4) | lo));
        i += 3;
    }
    return true;
}

bool isUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

void encodeUrl(const unsigned char* p, size_t n, std::string& out) {
    for (size_t i = 0; i < n; ++i) {
        if (isUnreserved(p[i])) {
            out.push_back(static_cast<char>(p[i]));
        } else {
            out.push_back('%');
            out.push_back(kHexUpper[p[i] >> 4]);
            out.push_back(kHexUpper[p[i] & 15]);
        }
    }
}

bool decodeUrl(const std::string& text, std::string& out) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) return false;
        int hi = hexValue(static_cast<unsigned char>(text[i + 1]));
        int lo = hexValue(static_cast<unsigned char>(text[i + 2]));
        if (hi < 0 || lo < 0) return false;
        out.push_back(static_cast<char>((hi << 4) | lo));
        i += 2;
    }
    return true;
}

}  // namespace

bool _clsEncode::put_EncodingMode(const XString& name) {
    std::string mode = canonicalMode(name.getUtf8());
    if (mode.empty()) return false;
    m_mode = mode;
    return true;
}

void _clsEncode::get_EncodingMode(XString& name) const {
    name.setFromUtf8(m_mode.c_str());
}

bool _clsEncode::encodeBinary(const DataBuffer& bytes, XString& text, bool append, LogBase& log) {
    const unsigned char* p = bytes.getData2();
    size_t n = bytes.getSize();
    std::string out;
    try {
        if (m_mode == "base64")
            encodeBase64(p, n, kBase64Chars, true, out);
        else if (m_mode == "base64url")
            encodeBase64(p, n, kBase64UrlChars, false, out);
        else if (m_mode == "hex")
            encodeHex(p, n, kHexUpper, out);
        else if (m_mode == "hexlower")
            encodeHex(p, n, kHexLower, out);
        else if (m_mode == "quoted-printable")
            encodeQuotedPrintable(p, n, out);
        else if (m_mode == "url")
            encodeUrl(p, n, out);
        else {
            log.LogError("Unknown encoding.");
            log.LogData("encoding", m_mode.c_str());
            return false;
        }
    } catch (...) {
        log.LogError("Out of memory while encoding.");
        return false;
    }
    if (!append) text.clear();
    return text.getUtf8Sb_rw().append(out.data(), out.size());
}

bool _clsEncode::decodeBinary(const XString& text, DataBuffer& bytes, bool append, LogBase& log) {
    const std::string& in = text.getUtf8Sb().str();
    std::string out;
    bool ok = false;
    try {
        if (m_mode == "base64")
            ok = decodeBase64(in, kBase64Chars, false, out);
        else if (m_mode == "base64url")
            ok = decodeBase64(in, kBase64UrlChars, true, out);
        else if (m_mode == "hex" || m_mode == "hexlower")
            ok = decodeHex(in, out);
        else if (m_mode == "quoted-printable")
            ok = decodeQuotedPrintable(in, out);
        else if (m_mode == "url")
            ok = decodeUrl(in, out);
    } catch (...) {
        log.LogError("Out of memory while decoding.");
        return false;
    }
    if (!ok) {
        log.LogError("The text is not valid in the encoding.");
        log.LogData("encoding", m_mode.c_str());
        return false;
    }
    if (!append) bytes.clear();
    return bytes.append(out.data(), out.size());
}

}  // namespace scpkit
