#include "cli/NumberArguments.h"

namespace scpkit::cli {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Digits only, without sign or blanks; false past `limit` (no overflow).
bool digitsValue(const std::string& digits, int64_t limit, int64_t& value) {
    if (digits.empty()) return false;
    value = 0;
    for (char c : digits) {
        if (!isDigit(c)) return false;
        if (value > (limit - (c - '0')) / 10) return false;
        value = value * 10 + (c - '0');
    }
    return true;
}

std::string rangeText(int64_t min, int64_t max) {
    return std::to_string(min) + " to " + std::to_string(max);
}

std::string secondsText(int64_t ms) {
    std::string s = std::to_string(ms / 1000);
    if (ms % 1000 != 0) {
        std::string frac = std::to_string(1000 + ms % 1000).substr(1);
        while (frac.back() == '0') frac.pop_back();
        s += "." + frac;
    }
    return s;
}

}  // namespace

bool parseWholeNumber(const std::string& text, const char* option, int64_t min, int64_t max,
                      int64_t& value, std::string& error) {
    int64_t v = 0;
    if (!digitsValue(text, max, v) || v < min) {
        error = std::string(option) + " wants a whole number from " + rangeText(min, max) +
                ", got '" + text + "'";
        return false;
    }
    value = v;
    return true;
}

bool parseDuration(const std::string& text, const char* option, int64_t minMs, int64_t maxMs,
                   int64_t& ms, std::string& error) {
    error = std::string(option) + " wants seconds (5, 0.5) or milliseconds (250ms) from " +
            secondsText(minMs) + " to " + secondsText(maxMs) + " seconds, got '" + text + "'";
    std::string number = text;
    bool inMs = false;
    if (number.size() > 2 && number.compare(number.size() - 2, 2, "ms") == 0) {
        inMs = true;
        number.resize(number.size() - 2);
    } else if (number.size() > 1 && number.back() == 's') {
        number.pop_back();
    }
    size_t dot = number.find('.');
    std::string whole = number.substr(0, dot);
    std::string fraction = dot == std::string::npos ? "" : number.substr(dot + 1);
    if (dot != std::string::npos && (inMs || fraction.empty() || fraction.size() > 3)) return false;
    int64_t w = 0, f = 0;
    if (!digitsValue(whole, maxMs, w)) return false;
    if (!fraction.empty()) {
        fraction.resize(3, '0');
        if (!digitsValue(fraction, 999, f)) return false;
    }
    if (!inMs && w > maxMs / 1000) return false;
    int64_t value = inMs ? w : w * 1000 + f;
    if (value < minMs || value > maxMs) return false;
    ms = value;
    error.clear();
    return true;
}

}  // namespace scpkit::cli
