// Numbers typed on the command line: whole numbers within a range, and
// durations in seconds ("5", "0.5") or milliseconds ("250ms").
#pragma once

#include <cstdint>
#include <string>

namespace scpkit::cli {

// A whole decimal number from `min` to `max`. On false, `error` says what
// the option (named in it) wants.
bool parseWholeNumber(const std::string& text, const char* option, int64_t min, int64_t max,
                      int64_t& value, std::string& error);

// A duration from `minMs` to `maxMs` milliseconds: seconds, with a decimal
// fraction or an "s" suffix allowed, or milliseconds with an "ms" suffix.
bool parseDuration(const std::string& text, const char* option, int64_t minMs, int64_t maxMs,
                   int64_t& ms, std::string& error);

}  // namespace scpkit::cli
