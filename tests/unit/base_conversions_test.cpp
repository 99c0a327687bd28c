// Octal text, the four-field scan of "T" lines, wildcard lists.
#include <climits>
#include <cstdio>
#include <cstring>
#include <tuple>

#include <scpkit/base/Conversions.h>
#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/base/XString.h>
#include "tests/unit/BaseTestHelpers.h"

namespace scpkit::test {
namespace {

TEST(Octal, FormatsWithinTwelveBytesValidatesAndParses) {
    for (const auto& [value, digits, text] : {std::make_tuple(0u, 4, "0000"),
                                              {010000u, 4, "10000"},
                                              {1u, 40, "00000000001"},
                                              {UINT_MAX, 0, "37777777777"}}) {
        char buffer[20];
        std::memset(buffer, '#', sizeof buffer);
        vq_0o(value, digits, buffer);
        EXPECT_STREQ(buffer, text) << value << " in " << digits;
        EXPECT_EQ(buffer[12], '#') << "wrote past the 12-byte buffer";
    }
    const std::tuple<const char*, unsigned, bool, unsigned> texts[] = {
        {"0644", 4, true, 0644},
        {"0648", 4, false, 064},
        {"0644 junk", 4, true, 0644},         // only the given length counts
        {"40000000000", 11, true, UINT_MAX},  // saturates
        {"00000000000000000000000000017", 29, true, 017},
    };
    for (const auto& [text, length, valid, value] : texts) {
        EXPECT_EQ(_validOctal(text, length), valid) << '"' << text << "\" " << length;
        EXPECT_EQ(vq_valOctal(text), value) << '"' << text << '"';
    }
}

TEST(Scan4, TimesLinesConvertUpToTheFirstBadField) {
    // Fields not converted keep their sentinels 7 -7 7 -7.
    const std::pair<const char*, const char*> cases[] = {
        {"T1700000000 123456 1600000000 999999\n", "4: 1700000000 123456 1600000000 999999"},
        {"T 1\t 2  3\n4junk", "4: 1 2 3 4"},
        {"T4294967295 -2147483648 3 +2147483647", "4: 4294967295 -2147483648 3 2147483647"},
        {"T1 2 3", "3: 1 2 3 -7"},
        {"T1x 2 3 4", "1: 1 -7 7 -7"},
        {"T4294967296 0 1 0", "0: 7 -7 7 -7"},  // out of range stops the scan
        {"T1 2147483648 3 4", "1: 1 -7 7 -7"},
        {"T-1 0 0 0", "0: 7 -7 7 -7"},  // an unsigned field takes no sign
    };
    for (const auto& [text, expected] : cases) {
        unsigned mod = 7, acc = 7;
        int modMicros = -7, accMicros = -7;
        int n = _vqStdio::_vqSscanf4(text, "T%u %d %u %d", &mod, &modMicros, &acc, &accMicros);
        char got[80];
        std::snprintf(got, sizeof got, "%d: %u %d %u %d", n, mod, modMicros, acc, accMicros);
        EXPECT_STREQ(got, expected) << text;
    }
    unsigned a = 0, x[4] = {0, 0, 0, 0};
    // A missing destination, a fifth field or an unknown conversion stop the scan.
    EXPECT_EQ(_vqStdio::_vqSscanf4("1 2", "%u %u", &a, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(_vqStdio::_vqSscanf4("1 2 3 4 5", "%u %u %u %u %u", &x[0], &x[1], &x[2], &x[3]), 4);
    EXPECT_EQ(_vqStdio::_vqSscanf4("50% 12", "%u%% %s", &x[0], &x[1], &x[2], &x[3]), 1);
}

TEST(Wildcards, MatchesAnyPatternOfTheList) {
    ExtPtrArraySb patterns;
    for (const char* p : {"*.txt", "data?.bin", "[abc]*.log", "exact"}) patterns.appendString(p);
    const std::tuple<const char*, bool, bool> cases[] = {
        {".hidden.txt", true, true},  {"notes.TXT", false, true}, {"notes.txt.bak", false, false},
        {"data12.bin", false, false}, {"DATA1.BIN", false, true}, {"a-run.log", true, true},
        {"d-run.log", false, false},  {"exactly", false, false},  {"sub/notes.txt", true, true},
    };
    for (const auto& [name, exact, folded] : cases) {
        EXPECT_EQ(vqMatchesAny(XString(name), patterns, false), exact) << name;
        EXPECT_EQ(vqMatchesAny(XString(name), patterns, true), folded) << name;
    }
}

}  // namespace
}  // namespace scpkit::test
