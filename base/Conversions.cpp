#include <scpkit/base/Conversions.h>

#include <fnmatch.h>

#include <climits>
#include <cstdint>

#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/base/XString.h>

namespace scpkit {

void vq_0o(unsigned value, int digits, char* buffer) {
    // An unsigned of 32 bits has at most 11 octal digits; with the
    // terminator that fits the 12 bytes every caller provides.
    constexpr int kMaxDigits = 11;
    if (digits < 1) digits = 1;
    if (digits > kMaxDigits) digits = kMaxDigits;
    char reversed[kMaxDigits];
    int n = 0;
    do {
        reversed[n++] = static_cast<char>('0' + (value & 7u));
        value >>= 3;
    } while (value != 0);
    int out = 0;
    for (int pad = digits - n; pad > 0; --pad) buffer[out++] = '0';
    while (n > 0) buffer[out++] = reversed[--n];
    buffer[out] = '\0';
}

static bool isOctalDigit(char c) {
    return c >= '0' && c <= '7';
}

bool _validOctal(const char* text, unsigned length) {
    if (!text || length == 0) return false;
    for (unsigned i = 0; i < length; ++i) {
        if (!isOctalDigit(text[i])) return false;
    }
    return true;
}

unsigned vq_valOctal(const char* text) {
    if (!text) return 0;
    unsigned value = 0;
    for (; isOctalDigit(*text); ++text) {
        unsigned digit = static_cast<unsigned>(*text - '0');
        if (value > (UINT_MAX - digit) / 8u) return UINT_MAX;
        value = value * 8u + digit;
    }
    return value;
}

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads an optionally signed decimal number at p (leading white space
// skipped, as scanf does). Fails, leaving p as it was, when there are no
// digits or the value leaves [minValue, maxValue]; the check comes before
// each step, so nothing ever overflows whatever the input.
bool scanDecimal(const char*& p, bool allowMinus, int64_t minValue, int64_t maxValue,
                 int64_t& out) {
    const char* s = p;
    while (isSpace(*s)) ++s;
    bool negative = false;
    if (*s == '+' || *s == '-') {
        negative = (*s == '-');
        if (negative && !allowMinus) return false;
        ++s;
    }
    if (!isDigit(*s)) return false;
    // Magnitudes are kept as the negative for '-' so INT_MIN fits.
    int64_t value = 0;
    for (; isDigit(*s); ++s) {
        int64_t digit = *s - '0';
        if (negative) {
            if (value < (minValue + digit) / 10) return false;
            value = value * 10 - digit;
        } else {
            if (value > (maxValue - digit) / 10) return false;
            value = value * 10 + digit;
        }
    }
    p = s;
    out = value;
    return true;
}

}  // namespace

int _vqStdio::_vqSscanf4(const char* text, const char* format, void* d1, void* d2, void* d3,
                         void* d4) {
    if (!text || !format) return 0;
    void* dest[4] = {d1, d2, d3, d4};
    int converted = 0;
    const char* t = text;
    const char* f = format;
    while (*f) {
        if (isSpace(*f)) {
            while (isSpace(*f)) ++f;
            while (isSpace(*t)) ++t;
            continue;
        }
        if (*f != '%') {
            if (*t != *f) return converted;
            ++t;
            ++f;
            continue;
        }
        ++f;  // the conversion letter
        if (*f == '%') {
            while (isSpace(*t)) ++t;
            if (*t != '%') return converted;
            ++t;
            ++f;
            continue;
        }
        if (converted >= 4 || dest[converted] == nullptr) return converted;
        int64_t value = 0;
        if (*f == 'u') {
            if (!scanDecimal(t, false, 0, UINT_MAX, value)) return converted;
            *static_cast<unsigned*>(dest[converted]) = static_cast<unsigned>(value);
        } else if (*f == 'd') {
            if (!scanDecimal(t, true, INT_MIN, INT_MAX, value)) return converted;
            *static_cast<int*>(dest[converted]) = static_cast<int>(value);
        } else {
            return converted;  // unsupported conversion (or a lone '%' at the end)
        }
        ++converted;
        ++f;
    }
    return converted;
}

bool vqMatchesAny(const XString& name, const ExtPtrArraySb& patterns, bool caseInsensitive) {
    const int flags = caseInsensitive ? FNM_CASEFOLD : 0;
    for (int i = 0; i < patterns.getSize(); ++i) {
        const char* pattern = patterns.strAt(i);
        if (pattern && fnmatch(pattern, name.getUtf8(), flags) == 0) return true;
    }
    return false;
}

}  // namespace scpkit
