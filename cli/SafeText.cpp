#include "cli/SafeText.h"

#include <cstdint>

namespace scpkit::cli {

namespace {

// Length of the valid UTF-8 sequence starting at s[i] and its code point;
// 0 when the bytes there are not valid UTF-8.
size_t decodeUtf8(const std::string& s, size_t i, uint32_t& cp) {
    auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    unsigned char lead = byte(i);
    size_t len;
    uint32_t min;
    if (lead < 0x80) {
        cp = lead;
        return 1;
    } else if ((lead & 0xE0) == 0xC0) {
        len = 2, cp = lead & 0x1F, min = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        len = 3, cp = lead & 0x0F, min = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        len = 4, cp = lead & 0x07, min = 0x10000;
    } else {
        return 0;
    }
    if (i + len > s.size()) return 0;
    for (size_t k = 1; k < len; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return len;
}

bool isInvisibleFormatting(uint32_t cp) {
    return (cp >= 0x80 && cp <= 0x9F) ||      // C1 controls (8-bit CSI among them)
           (cp >= 0x202A && cp <= 0x202E) ||  // bidirectional embeddings and overrides
           (cp >= 0x2066 && cp <= 0x2069);    // bidirectional isolates
}

// Index just past the escape sequence that starts with ESC at s[i].
size_t skipEscape(const std::string& s, size_t i) {
    size_t k = i + 1;
    if (k >= s.size()) return k;
    if (s[k] == '[') {  // CSI: parameters and intermediates, then one final byte
        ++k;
        while (k < s.size() && static_cast<unsigned char>(s[k]) >= 0x20 &&
               static_cast<unsigned char>(s[k]) <= 0x3F) {
            ++k;
        }
        return k < s.size() ? k + 1 : k;
    }
    if (s[k] == ']') {  // OSC (window title and the like): up to BEL or ESC '\'
        for (++k; k < s.size(); ++k) {
            if (s[k] == '\a') return k + 1;
            if (s[k] == '\x1b') return k + 2 <= s.size() ? k + 2 : k + 1;
        }
        return k;
    }
    return k + 1;  // a two-byte escape
}

}  // namespace

std::string stripControlChars(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    bool pendingBlank = false;
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\x1b') {
            i = skipEscape(text, i);
            continue;
        }
        if (c == '\n' || c == '\r' || c == '\t') {
            pendingBlank = true;
            ++i;
            continue;
        }
        if (c < 0x20 || c == 0x7f) {
            ++i;
            continue;
        }
        uint32_t cp = 0;
        size_t len = decodeUtf8(text, i, cp);
        if (len != 0 && isInvisibleFormatting(cp)) {
            i += len;
            continue;
        }
        if (pendingBlank && !out.empty()) out += ' ';
        pendingBlank = false;
        if (len == 0) {
            out += '?';
            ++i;
        } else {
            out.append(text, i, len);
            i += len;
        }
    }
    size_t first = out.find_first_not_of(' ');
    if (first == std::string::npos) return std::string();
    return out.substr(first, out.find_last_not_of(' ') - first + 1);
}

}  // namespace scpkit::cli
