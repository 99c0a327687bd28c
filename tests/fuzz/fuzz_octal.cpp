// The mode field of "C" and "D" lines and the UnixPermOverride text are
// octal numbers read from untrusted text.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <scpkit/base/Conversions.h>
#include "tests/fuzz/FuzzCheck.h"

using namespace scpkit;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* s = text.c_str();

    // The leading octal digits, computed in 64 bits; past UINT_MAX the
    // reading saturates.
    uint64_t expected = 0;
    for (const char* p = s; *p >= '0' && *p <= '7'; ++p) {
        expected = expected * 8 + static_cast<uint64_t>(*p - '0');
        if (expected > UINT_MAX) {
            expected = UINT_MAX;
            break;
        }
    }
    const unsigned value = vq_valOctal(s);
    FUZZ_CHECK(value == expected);

    bool allOctal = size > 0;
    for (size_t i = 0; i < size; ++i) allOctal = allOctal && data[i] >= '0' && data[i] <= '7';
    FUZZ_CHECK(_validOctal(s, static_cast<unsigned>(size)) == allOctal);

    // Writing the value back as octal text (four digits at least, as in
    // "C0644") reads back the same value.
    char buffer[12];
    vq_0o(value, 4, buffer);
    size_t digits = 1;
    for (unsigned v = value; v >= 8; v >>= 3) ++digits;
    FUZZ_CHECK(std::strlen(buffer) == (digits < 4 ? 4 : digits));
    FUZZ_CHECK(_validOctal(buffer, static_cast<unsigned>(std::strlen(buffer))));
    FUZZ_CHECK(vq_valOctal(buffer) == value);
    return 0;
}
