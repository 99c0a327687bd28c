// The size field of "C" lines: decimal text from the server, read as a
// signed 64-bit number whatever it holds.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <scpkit/base/StringBuffer.h>
#include "tests/fuzz/FuzzCheck.h"

using namespace scpkit;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    StringBuffer sb;
    FUZZ_CHECK(sb.append(data, size));
    const int64_t value = sb.toInt64();

    // strtoll in the C locale follows the same rule: optional white space,
    // an optional sign, digits, saturation at the limits, 0 without digits.
    const std::string text(reinterpret_cast<const char*>(data), size);
    errno = 0;
    const long long reference = std::strtoll(text.c_str(), nullptr, 10);
    FUZZ_CHECK(value == static_cast<int64_t>(reference));

    // Any value written in decimal reads back unchanged.
    StringBuffer again;
    FUZZ_CHECK(again.appendInt64(value));
    FUZZ_CHECK(again.toInt64() == value);
    return 0;
}
