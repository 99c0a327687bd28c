// The "T" line of the protocol is scanned with "T%u %d %u %d". The first
// input byte chooses between that format and a format taken from the
// input itself (split at the first 0x00), so the format reader is covered
// too.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include <scpkit/base/Conversions.h>
#include "tests/fuzz/FuzzCheck.h"

using namespace scpkit;

namespace {

void checkTimesLine(const std::string& text) {
    unsigned mod = 0, acc = 0;
    int modUsec = 0, accUsec = 0;
    const int n =
        _vqStdio::_vqSscanf4(text.c_str(), "T%u %d %u %d", &mod, &modUsec, &acc, &accUsec);
    FUZZ_CHECK(n >= 0 && n <= 4);
    if (n != 4) return;
    // A complete scan describes a line the sender side would write the same
    // way; writing it and scanning again gives the same four values.
    char line[80];
    std::snprintf(line, sizeof line, "T%u %d %u %d", mod, modUsec, acc, accUsec);
    unsigned mod2 = 0, acc2 = 0;
    int modUsec2 = 0, accUsec2 = 0;
    FUZZ_CHECK(_vqStdio::_vqSscanf4(line, "T%u %d %u %d", &mod2, &modUsec2, &acc2, &accUsec2) == 4);
    FUZZ_CHECK(mod2 == mod && modUsec2 == modUsec && acc2 == acc && accUsec2 == accUsec);
    FUZZ_CHECK(text.size() >= 8 && text[0] == 'T');
}

void checkAnyFormat(const std::string& input) {
    const size_t cut = input.find('\0');
    const std::string format = input.substr(0, cut);
    const std::string text = cut == std::string::npos ? std::string() : input.substr(cut + 1);
    // Four slots wide enough for either conversion; a fifth conversion in
    // the format must never be written anywhere.
    unsigned slots[6] = {0, 0, 0, 0, 0, 0xA5A5A5A5u};
    const int n = _vqStdio::_vqSscanf4(text.c_str(), format.c_str(), &slots[0], &slots[1],
                                       &slots[2], &slots[3]);
    FUZZ_CHECK(n >= 0 && n <= 4);
    FUZZ_CHECK(slots[4] == 0 && slots[5] == 0xA5A5A5A5u);
    // Null destinations stop the scan instead of being written.
    const int m =
        _vqStdio::_vqSscanf4(text.c_str(), format.c_str(), nullptr, nullptr, nullptr, nullptr);
    FUZZ_CHECK(m == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] & 1)
        checkAnyFormat(rest);
    else
        checkTimesLine(rest);
    return 0;
}
