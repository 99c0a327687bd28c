// The number fields of "C" and "D" lines, read from text a server sends:
// the octal mode (also the UnixPermOverride text) and the decimal size.
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <scpkit/base/Conversions.h>
#include <scpkit/base/StringBuffer.h>
#include "tests/fuzz/FuzzCheck.h"

using namespace scpkit;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* s = text.c_str();

    // The leading octal digits, computed in 64 bits; past UINT_MAX the
    // reading saturates.
    uint64_t expected = 0;
    for (const char* p = s; *p >= '0' && *p <= '7' && expected <= UINT_MAX; ++p)
        expected = expected * 8 + static_cast<uint64_t>(*p - '0');
    const unsigned mode = vq_valOctal(s);
    FUZZ_CHECK(mode == (expected > UINT_MAX ? UINT_MAX : expected));
    bool allOctal = size > 0;
    for (size_t i = 0; i < size; ++i) allOctal = allOctal && data[i] >= '0' && data[i] <= '7';
    FUZZ_CHECK(_validOctal(s, static_cast<unsigned>(size)) == allOctal);

    // Written back as octal text, four digits at least as in "C0644", the
    // mode reads back the same.
    char buffer[12];
    vq_0o(mode, 4, buffer);
    size_t digits = 1;
    for (unsigned v = mode; v >= 8; v >>= 3) ++digits;
    FUZZ_CHECK(std::strlen(buffer) == (digits < 4 ? 4 : digits));
    FUZZ_CHECK(_validOctal(buffer, static_cast<unsigned>(digits < 4 ? 4 : digits)));
    FUZZ_CHECK(vq_valOctal(buffer) == mode);

    // The size: strtoll in the C locale follows the same rule (optional
    // white space, an optional sign, digits, saturation at the limits, 0
    // without digits), and any value written in decimal reads back.
    StringBuffer sb;
    FUZZ_CHECK(sb.append(data, size));
    const int64_t value = sb.toInt64();
    errno = 0;
    FUZZ_CHECK(value == static_cast<int64_t>(std::strtoll(s, nullptr, 10)));
    StringBuffer again;
    FUZZ_CHECK(again.appendInt64(value) && again.toInt64() == value);
    return 0;
}
