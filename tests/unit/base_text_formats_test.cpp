// Text formats: charset conversion, the binary-to-text encodings, JSON objects.
#include <memory>
#include <sstream>
#include <tuple>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/ClsJsonObject.h>
#include <scpkit/base/Encode.h>
#include <scpkit/base/XString.h>
#include "tests/unit/BaseTestHelpers.h"

namespace scpkit::test {
namespace {

TEST(Charset, KnownBytesBothWaysAndFailuresThatLeaveTheOutputAlone) {
    enum { kBothWays, kEncodeFails, kDecodeFails };
    const std::tuple<const char*, std::string, std::string, int> cases[] = {
        {"utf-8", "h\xC3\xA9 \xE2\x82\xAC", "h\xC3\xA9 \xE2\x82\xAC", kBothWays},
        {"ISO-8859-1", "caf\xC3\xA9\xC3\xBF", "caf\xE9\xFF", kBothWays},
        {"windows-1252", "\xE2\x82\xAC", "\x80", kBothWays},
        {"utf-16le", "\xF0\x9F\x98\x80", std::string("\x3D\xD8\x00\xDE", 4), kBothWays},
        {"ascii", std::string(9000, 'x'), std::string(9000, 'x'), kBothWays},  // several buffers
        {"no-such-charset", "abc", "abc", kEncodeFails},
        {"", "abc", "abc", kDecodeFails},
        {"iso-8859-1", "\xE2\x82\xAC", "", kEncodeFails},  // not representable
        {"utf-16le", "ab\xC3", "", kEncodeFails},          // truncated UTF-8
        {"utf-8", "a\xC3\x28", "", kEncodeFails},
        {"utf-8", "", "ok\xFF", kDecodeFails},
        {"utf-16le", "", std::string("\x00\xD8z\0", 4), kDecodeFails},  // lone surrogate
    };
    for (const auto& [charset, utf8, encoded, kind] : cases) {
        _vqLogger log;
        DataBuffer out = bufferOf("keep:");
        XString cs(charset), back("keep:");
        EXPECT_EQ(kind != kDecodeFails && ClsBase::xstringToDb(cs, XString(utf8.c_str()), out, log),
                  kind == kBothWays)
            << charset << " " << utf8;
        EXPECT_EQ(kind != kEncodeFails && ClsBase::dbToXString(cs, bufferOf(encoded), back, log),
                  kind == kBothWays)
            << charset << " " << encoded;
        EXPECT_EQ(bytesOf(out), "keep:" + (kind == kBothWays ? encoded : ""));  // appended
        EXPECT_EQ(back.getUtf8(), kind == kBothWays ? utf8 : "keep:");          // replaced
        EXPECT_EQ(logText(log).empty(), kind == kBothWays) << charset;
    }
}

TEST(Encode, KnownVectorsRoundTripsLenientDecodingAndMalformedText) {
    enum { kBothWays, kRoundTrips, kDecodes, kRefused };
    std::string all = std::string(200, 'x') + " \r\n" + std::string(100, '=');
    for (int i = 0; i < 512; ++i) all.push_back(static_cast<char>((i * 37) % 256));
    const std::tuple<const char*, std::string, const char*, int> cases[] = {
        {"base64", "f", "Zg==", kBothWays},
        {"base64", "fo", "Zm8=", kBothWays},
        {"BASE64", "\xFB\xFF\xBF", "+/+/", kBothWays},
        {"base64url", "\xFB\xFF\xBF", "-_-_", kBothWays},
        {"base64url", "fooba", "Zm9vYmE", kBothWays},
        {"Hex", std::string("\x00\x1F\xAB\xFF", 4), "001FABFF", kBothWays},
        {"url", "a b+c/d~e_f.g-h\xC3\xA9", "a%20b%2Bc%2Fd~e_f.g-h%C3%A9", kBothWays},
        {"quoted-printable", "caf\xE9 = ok\r\nend", "caf=E9 =3D ok\r\nend", kBothWays},
        {"qp", "trailing \r\nbare\nlf\t", "trailing=20\r\nbare=0Alf=09", kBothWays},
        {"base64", all, "", kRoundTrips},
        {"base64url", all, "", kRoundTrips},
        {"hex", all, "", kRoundTrips},
        {"qp", all, "", kRoundTrips},
        {"url", all, "", kRoundTrips},
        {"base64", "foobar", "Zm9v\r\nYmFy\n", kDecodes},
        {"qp", "joined", "jo=\r\nined", kDecodes},
        {"qp", "x\r\ny", "x   \r\ny", kDecodes},  // blanks before a line end came from transport
        {"base64", "", "Zm9v!", kRefused},
        {"base64", "", "Zm8", kRefused},  // standard base64 needs its padding
        {"hex", "", "0G", kRefused},
        {"url", "", "abc%2", kRefused},
        {"qp", "", "=4", kRefused},
    };
    for (const auto& [mode, bytes, text, kind] : cases) {
        _clsEncode enc;
        ASSERT_TRUE(enc.put_EncodingMode(XString(mode))) << mode;
        _vqLogger log;
        XString encoded;
        DataBuffer back = bufferOf("prior");
        ASSERT_TRUE(enc.encodeBinary(bufferOf(bytes), encoded, false, log));
        EXPECT_TRUE(kind != kBothWays || std::string(encoded.getUtf8()) == text)
            << encoded.getUtf8();
        XString input(kind == kRoundTrips ? encoded.getUtf8() : text);
        EXPECT_EQ(enc.decodeBinary(input, back, false, log), kind != kRefused)
            << mode << " " << text;
        EXPECT_TRUE(bytesOf(back) == (kind == kRefused ? "prior" : bytes)) << mode << " " << text;
        EXPECT_EQ(logHas(log, "encoding: "), kind == kRefused) << text;
        std::istringstream lines(std::string(mode) == "qp" ? encoded.getUtf8() : "");
        for (std::string line; std::getline(lines, line);) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            EXPECT_TRUE(line.size() <= 76 && (line.empty() || line.back() != ' ')) << line;
        }
    }
    EXPECT_FALSE(_clsEncode().put_EncodingMode(XString("rot13")));
}

TEST(ClsJsonObject, MembersKeepTheirWrittenOrderAndBadTextLeavesNone) {
    const std::pair<std::string, const char*> cases[] = {
        {R"({"ZETA":"1","alpha":"2","":"empty"," ":"blank"})", "ZETA=1;alpha=2;=empty; =blank;"},
        {R"({"n":-7,"f":1.5,"t":true,"z":null,"o":{"b":1, "a":[1, "x"]}})",
         R"(n=-7;f=1.5;t=true;z=;o={"b":1,"a":[1,"x"]};)"},
        {R"({"q":"a\"b\\c\n","u":"\u00e9\u20ac"})", "q=a\"b\\c\n;u=\xC3\xA9\xE2\x82\xAC;"},
        {" { } ", ""},
        // Not an object: loading fails and leaves no members.
        {"[1,2]", nullptr},
        {"{\"a\":1", nullptr},
        {"{\"a\":1} x", nullptr},
        {"{\"bad\":\"\xC3\x28\"}", nullptr},
    };
    for (const auto& [text, members] : cases) {
        std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
        _vqLogger log;
        ASSERT_TRUE(json->loadJson(bufferOf(R"({"keep":"me"})"), log));
        EXPECT_EQ(json->loadJson(bufferOf(text), log), members != nullptr) << text;
        std::string got;
        XString name, value;
        for (int i = 0; i < 50 && json->NameAt(i, name) && json->StringAt(i, value); ++i)
            got += std::string(name.getUtf8()) + "=" + value.getUtf8() + ";";
        EXPECT_EQ(got, members ? members : "") << text;
        EXPECT_EQ(logText(log).empty(), members != nullptr) << text;
    }
}

}  // namespace
}  // namespace scpkit::test
