// Text as the component uses it: the "T" line scan, filter lists, characters
// of a path, charsets and binary-to-text encodings.
// (Octal fields, decimal sizes and JSON text are fuzzed: tests/fuzz.)
#include <cstdio>
#include <sstream>
#include <tuple>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/Conversions.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Encode.h>
#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/base/XString.h>
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

std::string bytesOf(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}
DataBuffer bufferOf(const std::string& bytes) {
    DataBuffer db;
    db.append(bytes.data(), bytes.size());
    return db;
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
}

// The Sync filter properties: a ';' list, split and trimmed, each piece a
// case-sensitive wildcard for which '*' also covers '/' and a leading '.'.
TEST(Filters, SplitTheListThenMatchAnyPiece) {
    ExtPtrArraySb patterns;
    ASSERT_TRUE(
        StringBuffer(" *.txt ;; data?.bin; [ab]*.log ;").splitAndTrim(patterns, ';', true, true));
    std::string pieces;
    for (int i = 0; patterns.strAt(i); ++i) pieces += std::string(patterns.strAt(i)) + "|";
    EXPECT_EQ(pieces, "*.txt|data?.bin|[ab]*.log|");
    const std::pair<const char*, bool> cases[] = {
        {".hidden.txt", true},    {"sub/notes.txt", true}, {"notes.TXT", false},
        {"notes.txt.bak", false}, {"data1.bin", true},     {"data12.bin", false},
        {"b-run.log", true},      {"c-run.log", false},
    };
    for (const auto& [name, matches] : cases)
        EXPECT_EQ(vqMatchesAny(XString(name), patterns, false), matches) << name;
    // A remote path loses its file name by characters, not bytes.
    XString path("/d\xC3\xA9/\xF0\x9F\x98\x80\xC3\xA9");
    EXPECT_EQ(path.getNumChars(), 6);
    path.shortenNumChars(2);
    EXPECT_STREQ(path.getUtf8(), "/d\xC3\xA9/");
}

// Text longer than one conversion buffer, both ways; a character the
// charset lacks fails and leaves the bytes as they were. (Round trips of
// the public methods: tests/integration.)
TEST(Charset, LongTextBothWaysAndWhatCannotBeEncoded) {
    std::string text;
    for (int i = 0; i < 3000; ++i) text += "\xC3\xA9\xF0\x9F\x98\x80";  // 1 + 2 UTF-16 units
    _vqLogger log;
    XString cs("utf-16le"), back;
    DataBuffer bytes;
    EXPECT_TRUE(ClsBase::xstringToDb(cs, XString(text.c_str()), bytes, log));
    EXPECT_TRUE(bytes.getSize() == 18000 && ClsBase::dbToXString(cs, bytes, back, log));
    EXPECT_TRUE(back.getUtf8() == text);
    cs.setFromUtf8("iso-8859-1");
    EXPECT_FALSE(ClsBase::xstringToDb(cs, XString("a\xE2\x82\xAC"), bytes, log));
    EXPECT_EQ(bytes.getSize(), 18000u);
}

// What the *BinaryEncoded methods convert: exact text where it is known,
// round trips of every byte value, malformed text refused.
TEST(Encode, KnownVectorsRoundTripsAndMalformedText) {
    enum { kBothWays, kDecodes, kRoundTrips, kRefused };
    std::string all = std::string(100, 'x') + " \r\n" + std::string(80, '=');
    for (int i = 0; i < 512; ++i) all.push_back(static_cast<char>((i * 37) % 256));
    const std::tuple<const char*, std::string, const char*, int> cases[] = {
        {"base64", "f", "Zg==", kBothWays},
        {"BASE64", "\xFB\xFF\xBF", "+/+/", kBothWays},
        {"base64url", "\xFB\xFF\xBF\x66o", "-_-_Zm8", kBothWays},
        {"Hex", std::string("\x00\x1F\xAB\xFF", 4), "001FABFF", kBothWays},
        {"url", "a b+c/d~e_f.g-h\xC3\xA9", "a%20b%2Bc%2Fd~e_f.g-h%C3%A9", kBothWays},
        {"quoted-printable", "caf\xE9 = ok\r\nend \r\n", "caf=E9 =3D ok\r\nend=20\r\n", kBothWays},
        {"base64", "foobar", "Zm9v\r\nYmFy\n", kDecodes},
        {"qp", "joined", "jo=\r\nined", kDecodes},
        {"base64", "", "Zm8", kRefused},  // standard base64 needs its padding
        {"hex", "", "0G", kRefused},
        {"qp", "", "=4", kRefused},
        {"base64", all, "", kRoundTrips},
        {"base64url", all, "", kRoundTrips},
        {"hex", all, "", kRoundTrips},
        {"qp", all, "", kRoundTrips},
        {"url", all, "", kRoundTrips}};
    for (const auto& [mode, bytes, text, kind] : cases) {
        _clsEncode enc;
        _vqLogger log;
        XString encoded;
        DataBuffer back = bufferOf("prior");
        ASSERT_TRUE(enc.put_EncodingMode(XString(mode)) &&
                    enc.encodeBinary(bufferOf(bytes), encoded, false, log));
        EXPECT_TRUE(kind != kBothWays || std::string(encoded.getUtf8()) == text) << mode << text;
        XString input(kind == kRoundTrips ? encoded.getUtf8() : text);
        EXPECT_EQ(enc.decodeBinary(input, back, false, log), kind != kRefused) << text;
        EXPECT_TRUE(bytesOf(back) == (kind == kRefused ? "prior" : bytes)) << mode << " " << text;
        std::istringstream lines(mode[0] == 'q' ? encoded.getUtf8() : "");
        for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 77u);  // 76+CR
    }
    EXPECT_FALSE(_clsEncode().put_EncodingMode(XString("rot13")));
}

}  // namespace
}  // namespace scpkit::test
