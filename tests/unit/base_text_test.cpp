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
#include "tests/support/ScpTestHelpers.h"

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
        {"X1 2 3 4", "0: 7 -7 7 -7"},
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
    patterns.appendString("held");
    ASSERT_TRUE(
        StringBuffer(" *.txt ;; data?.bin; [ab]*.log ;").splitAndTrim(patterns, ';', true, true));
    std::string pieces;
    for (int i = 0; patterns.strAt(i); ++i) pieces += std::string(patterns.strAt(i)) + "|";
    EXPECT_EQ(pieces, "held|*.txt|data?.bin|[ab]*.log|");
    const std::pair<const char*, bool> cases[] = {
        {".hidden.txt", true},    {"sub/notes.txt", true}, {"notes.TXT", false},
        {"notes.txt.bak", false}, {"data1.bin", true},     {"data12.bin", false},
        {"b-run.log", true},      {"c-run.log", false},    {"held", true},
    };
    for (const auto& [name, matches] : cases)
        EXPECT_EQ(vqMatchesAny(XString(name), patterns, false), matches) << name;
    // A remote path loses its file name by characters, not bytes.
    XString path("/d\xC3\xA9/\xF0\x9F\x98\x80\xC3\xA9");
    EXPECT_EQ(path.getNumChars(), 6);
    path.shortenNumChars(2);
    EXPECT_STREQ(path.getUtf8(), "/d\xC3\xA9/");
}

// What UploadString and DownloadString convert; a failure leaves the output
// as it was (bytes are appended, text replaced) and logs the reason.
TEST(Charset, KnownBytesBothWaysAndFailuresThatLeaveTheOutputAlone) {
    const std::tuple<const char*, std::string, std::string, bool> cases[] = {
        {"utf-16le", "\xF0\x9F\x98\x80", std::string("\x3D\xD8\x00\xDE", 4), true},
        {"ISO-8859-1", "caf\xC3\xA9", "caf\xE9", true},
        {"ascii", std::string(9000, 'x'), std::string(9000, 'x'), true},  // several buffers
        {"iso-8859-1", "\xE2\x82\xAC", "", false},                        // not representable
        {"utf-8", "\xFF", "ok\xFF", false},
        {"no-such-charset", "abc", "abc", false}};
    for (const auto& [charset, utf8, encoded, ok] : cases) {
        _vqLogger log;
        DataBuffer out = bufferOf("keep:");
        XString cs(charset), back("keep:");
        EXPECT_EQ(ClsBase::xstringToDb(cs, XString(utf8.c_str()), out, log), ok) << charset;
        EXPECT_EQ(!encoded.empty() && ClsBase::dbToXString(cs, bufferOf(encoded), back, log), ok);
        EXPECT_EQ(bytesOf(out), "keep:" + (ok ? encoded : ""));
        EXPECT_EQ(back.getUtf8(), ok ? utf8 : "keep:");
        EXPECT_EQ(renderedLog(log).empty(), ok) << charset;
    }
}

// What the *BinaryEncoded methods convert: exact text where it is known,
// round trips of every byte value, malformed text refused.
TEST(Encode, KnownVectorsRoundTripsAndMalformedText) {
    enum { kBothWays, kDecodes, kRefused };
    const std::tuple<const char*, std::string, const char*, int> cases[] = {
        {"base64", "f", "Zg==", kBothWays},
        {"base64", "fo", "Zm8=", kBothWays},
        {"BASE64", "\xFB\xFF\xBF", "+/+/", kBothWays},
        {"base64url",
         "\xFB\xFF\xBF"
         "fo",
         "-_-_Zm8", kBothWays},
        {"Hex", std::string("\x00\x1F\xAB\xFF", 4), "001FABFF", kBothWays},
        {"url", "a b+c/d~e_f.g-h\xC3\xA9", "a%20b%2Bc%2Fd~e_f.g-h%C3%A9", kBothWays},
        {"quoted-printable", "caf\xE9 = ok\r\nend \r\n", "caf=E9 =3D ok\r\nend=20\r\n", kBothWays},
        {"base64", "foobar", "Zm9v\r\nYmFy\n", kDecodes},
        {"qp", "joined", "jo=\r\nined", kDecodes},
        {"base64", "", "Zm8", kRefused},  // standard base64 needs its padding
        {"base64", "", "Zm9v!", kRefused},
        {"hex", "", "0G", kRefused},
        {"url", "", "abc%2", kRefused},
        {"qp", "", "=4", kRefused}};
    for (const auto& [mode, bytes, text, kind] : cases) {
        _clsEncode enc;
        _vqLogger log;
        XString encoded;
        DataBuffer back = bufferOf("prior");
        ASSERT_TRUE(enc.put_EncodingMode(XString(mode)) &&
                    enc.encodeBinary(bufferOf(bytes), encoded, false, log));
        EXPECT_TRUE(kind != kBothWays || std::string(encoded.getUtf8()) == text) << mode << text;
        EXPECT_EQ(enc.decodeBinary(XString(text), back, false, log), kind != kRefused) << text;
        EXPECT_EQ(bytesOf(back), kind == kRefused ? "prior" : bytes) << mode << " " << text;
    }
    std::string all = std::string(100, 'x') + " \r\n" + std::string(80, '=');
    for (int i = 0; i < 512; ++i) all.push_back(static_cast<char>((i * 37) % 256));
    for (const char* mode : {"base64", "base64url", "hex", "qp", "url"}) {
        _clsEncode enc;
        _vqLogger log;
        XString encoded;
        DataBuffer back;
        ASSERT_TRUE(enc.put_EncodingMode(XString(mode)) &&
                    enc.encodeBinary(bufferOf(all), encoded, false, log));
        EXPECT_TRUE(enc.decodeBinary(encoded, back, false, log) && bytesOf(back) == all) << mode;
        std::istringstream lines(mode[0] == 'q' ? encoded.getUtf8() : "");
        for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 77u);  // 76+CR
    }
    EXPECT_FALSE(_clsEncode().put_EncodingMode(XString("rot13")));
}

}  // namespace
}  // namespace scpkit::test
