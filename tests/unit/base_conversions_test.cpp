// Octal text, the bounded four-field scan of "T" lines, wildcard lists.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "base/Conversions.h"
#include "base/ExtPtrArray.h"
#include "base/XString.h"

namespace scpkit::test {
namespace {

TEST(Octal, FormatsZeroPaddedAndNeverPastTwelveBytes) {
    const struct {
        unsigned value;
        int digits;
        const char* text;
    } cases[] = {
        {0, 4, "0000"},
        {0644, 4, "0644"},
        {0755, 4, "0755"},
        {07777, 4, "7777"},
        {010000, 4, "10000"},
        {5, 1, "5"},
        {0, 1, "0"},
        {8, 0, "10"},
        {0644, 6, "000644"},
        {UINT_MAX, 4, "37777777777"},
        {1, 11, "00000000001"},
        {1, 40, "00000000001"},
    };
    for (const auto& c : cases) {
        char buffer[20];
        std::memset(buffer, '#', sizeof buffer);
        vq_0o(c.value, c.digits, buffer);
        EXPECT_STREQ(buffer, c.text) << c.value << " in " << c.digits;
        EXPECT_EQ(buffer[12], '#') << "wrote past the 12-byte buffer";
    }
}

TEST(Octal, ValidatesWholeText) {
    const struct {
        const char* text;
        unsigned length;
        bool valid;
    } cases[] = {
        {"0644", 4, true},      {"7777", 4, true},  {"0", 1, true},     {"0648", 4, false},
        {"064x", 4, false},     {" 644", 4, false}, {"0644", 0, false}, {"-644", 4, false},
        {"0644 junk", 4, true},  // only the given length counts
        {"", 0, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(_validOctal(c.text, c.length), c.valid) << '"' << c.text << "\" " << c.length;
    }
    EXPECT_FALSE(_validOctal(nullptr, 3));
}

TEST(Octal, ParsesLeadingDigitsAndSaturates) {
    const struct {
        const char* text;
        unsigned value;
    } cases[] = {
        {"0644", 0644},
        {"0644 12 name", 0644},
        {"755", 0755},
        {"0", 0},
        {"", 0},
        {"9", 0},
        {"x644", 0},
        {" 644", 0},
        {"0778", 077},
        {"37777777777", UINT_MAX},
        {"40000000000", UINT_MAX},
        {"00000000000000000000000000017", 017},  // leading zeros never overflow
        {"7777777777777777777777777777777777", UINT_MAX},
    };
    for (const auto& c : cases) EXPECT_EQ(vq_valOctal(c.text), c.value) << '"' << c.text << '"';
    EXPECT_EQ(vq_valOctal(nullptr), 0u);
}

constexpr const char* kTimes = "T%u %d %u %d";

struct ScanCase {
    const char* text;
    int count;
    unsigned mod;
    int modMicros;
    unsigned acc;
    int accMicros;
};

TEST(Scan4, TimesLines) {
    // Fields not converted keep their sentinels (7, -7, 7, -7).
    const ScanCase cases[] = {
        {"T1700000000 0 1700000001 0", 4, 1700000000u, 0, 1700000001u, 0},
        {"T1700000000 123456 1600000000 999999\n", 4, 1700000000u, 123456, 1600000000u, 999999},
        {"T1 2 3 4junk", 4, 1, 2, 3, 4},
        {"T 1\t 2  3\n4", 4, 1, 2, 3, 4},
        {"T1 -2147483648 3 +2147483647", 4, 1, INT_MIN, 3, INT_MAX},
        {"T4294967295 0 0 0", 4, UINT_MAX, 0, 0, 0},
        {"T1 2 3", 3, 1, 2, 3, -7},
        {"T1 2", 2, 1, 2, 7, -7},
        {"T", 0, 7, -7, 7, -7},
        {"", 0, 7, -7, 7, -7},
        {"C0644 1 f", 0, 7, -7, 7, -7},
        {"t1 2 3 4", 0, 7, -7, 7, -7},
        {"T1x 2 3 4", 1, 1, -7, 7, -7},
        {"T1 2 x 4", 2, 1, 2, 7, -7},
        {"T1 2 3 -", 3, 1, 2, 3, -7},
        // Out of range stops the scan at that field.
        {"T4294967296 0 1 0", 0, 7, -7, 7, -7},
        {"T1 2147483648 3 4", 1, 1, -7, 7, -7},
        {"T1 -2147483649 3 4", 1, 1, -7, 7, -7},
        {"T99999999999999999999999999999999999999 0 0 0", 0, 7, -7, 7, -7},
        {"T1 0 99999999999999999999999 0", 2, 1, 0, 7, -7},
        // An unsigned field takes no minus sign.
        {"T-1 0 0 0", 0, 7, -7, 7, -7},
        {"T+5 0 6 0", 4, 5, 0, 6, 0},
        {"T1 - 3 4", 1, 1, -7, 7, -7},
    };
    for (const ScanCase& c : cases) {
        unsigned mod = 7, acc = 7;
        int modMicros = -7, accMicros = -7;
        EXPECT_EQ(_vqStdio::_vqSscanf4(c.text, kTimes, &mod, &modMicros, &acc, &accMicros), c.count)
            << '"' << c.text << '"';
        EXPECT_EQ(mod, c.mod) << c.text;
        EXPECT_EQ(modMicros, c.modMicros) << c.text;
        EXPECT_EQ(acc, c.acc) << c.text;
        EXPECT_EQ(accMicros, c.accMicros) << c.text;
    }
}

TEST(Scan4, FormatsAndDestinations) {
    unsigned a = 0, b = 0;
    int d = 0;
    const struct {
        const char* text;
        const char* format;
        int count;
    } cases[] = {
        {"50%", "%u%%", 1},  {"50%", "%u %%", 1},  {"50 x", "%u%%", 1},
        {"abc", "abc", 0},   {"abd", "abc", 0},    {"12", "%s", 0},
        {"12", "%", 0},      {"1 2", "%u %u", 2},  {"1 2 3 4 5", "%u %u %u %u %u", 4},
        {"1,2", "%u,%u", 2}, {"1 ,2", "%u,%u", 1}, {"", "", 0},
    };
    for (const auto& c : cases) {
        unsigned x[4] = {0, 0, 0, 0};
        EXPECT_EQ(_vqStdio::_vqSscanf4(c.text, c.format, &x[0], &x[1], &x[2], &x[3]), c.count)
            << '"' << c.text << "\" with \"" << c.format << '"';
    }
    // A field without a destination stops the scan instead of writing anywhere.
    EXPECT_EQ(_vqStdio::_vqSscanf4("1 2", "%u %u", &a, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(_vqStdio::_vqSscanf4("-3 4", "%d %u", &d, &b, nullptr, nullptr), 2);
    EXPECT_EQ(d, -3);
    EXPECT_EQ(b, 4u);
    EXPECT_EQ(_vqStdio::_vqSscanf4(nullptr, "%u", &a, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(_vqStdio::_vqSscanf4("1", nullptr, &a, nullptr, nullptr, nullptr), 0);
}

TEST(Scan4, AgreesWithTheCLibraryOnWellFormedLines) {
    std::mt19937 rng(20240607);
    std::uniform_int_distribution<unsigned> anyUnsigned(0, UINT_MAX);
    std::uniform_int_distribution<int> anyInt(INT_MIN, INT_MAX);
    const char* separators[] = {" ", "  ", "\t", " \n "};
    for (int i = 0; i < 2000; ++i) {
        const std::string sep = separators[i % 4];
        const std::string line = "T" + std::to_string(anyUnsigned(rng)) + sep +
                                 std::to_string(anyInt(rng)) + sep +
                                 std::to_string(anyUnsigned(rng)) + sep +
                                 std::to_string(anyInt(rng)) + (i % 3 ? "\n" : "");
        unsigned m1 = 1, a1 = 1, m2 = 2, a2 = 2;
        int mu1 = 1, au1 = 1, mu2 = 2, au2 = 2;
        ASSERT_EQ(_vqStdio::_vqSscanf4(line.c_str(), kTimes, &m1, &mu1, &a1, &au1), 4) << line;
        ASSERT_EQ(std::sscanf(line.c_str(), kTimes, &m2, &mu2, &a2, &au2), 4) << line;
        ASSERT_EQ(m1, m2) << line;
        ASSERT_EQ(mu1, mu2) << line;
        ASSERT_EQ(a1, a2) << line;
        ASSERT_EQ(au1, au2) << line;
    }
}

TEST(Wildcards, MatchesAnyPatternOfTheList) {
    ExtPtrArraySb patterns;
    for (const char* p : {"*.txt", "data?.bin", "[abc]*.log", "exact"}) patterns.appendString(p);
    const struct {
        const char* name;
        bool exact;
        bool folded;
    } cases[] = {
        {"notes.txt", true, true},     {".txt", true, true},
        {".hidden.txt", true, true},  // a leading dot is not special
        {"notes.TXT", false, true},    {"notes.txt.bak", false, false},
        {"data1.bin", true, true},     {"data12.bin", false, false},
        {"DATA1.BIN", false, true},    {"a-run.log", true, true},
        {"d-run.log", false, false},   {"B.log", false, true},
        {"exact", true, true},         {"exactly", false, false},
        {"EXACT", false, true},        {"", false, false},
        {"sub/notes.txt", true, true},
    };
    for (const auto& c : cases) {
        XString name(c.name);
        EXPECT_EQ(vqMatchesAny(name, patterns, false), c.exact) << c.name;
        EXPECT_EQ(vqMatchesAny(name, patterns, true), c.folded) << c.name;
    }
    ExtPtrArraySb none;
    EXPECT_FALSE(vqMatchesAny(XString("anything"), none, false));
    ExtPtrArraySb star;
    star.appendString("*");
    EXPECT_TRUE(vqMatchesAny(XString(""), star, false));
    EXPECT_TRUE(vqMatchesAny(XString("."), star, false));
}

}  // namespace
}  // namespace scpkit::test
