// Charset conversion (iconv) and the binary-to-text encodings.
#include <gtest/gtest.h>

#include <string>

#include "base/Charset.h"
#include "base/ClsBase.h"
#include "base/DataBuffer.h"
#include "base/Encode.h"
#include "base/Logger.h"
#include "base/XString.h"

namespace scpkit::test {
namespace {

std::string bytesOf(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

DataBuffer bufferOf(const std::string& s) {
    DataBuffer db;
    db.append(s.data(), s.size());
    return db;
}

std::string logText(const _vqLogger& log) {
    std::string out;
    log.renderText(out);
    return out;
}

struct CharsetCase {
    const char* charset;
    std::string utf8;
    std::string encoded;
};

TEST(Charset, EncodesToKnownBytesAndBack) {
    const CharsetCase cases[] = {
        {"utf-8", "h\xC3\xA9 \xE2\x82\xAC", "h\xC3\xA9 \xE2\x82\xAC"},
        {"UTF-8", "plain", "plain"},
        {"iso-8859-1", "caf\xC3\xA9", "caf\xE9"},
        {"ISO-8859-1", "\xC3\xBF\xC2\xA0", "\xFF\xA0"},
        {"windows-1252",
         "\xE2\x82\xAC"
         "5",
         "\x80"
         "5"},
        {"utf-16le", "A\xE2\x82\xAC", std::string("A\0\xAC\x20", 4)},
        {"utf-16be", "A\xE2\x82\xAC", std::string("\0A\x20\xAC", 4)},
        {"utf-16le", "\xF0\x9F\x98\x80", std::string("\x3D\xD8\x00\xDE", 4)},  // surrogate pair
        {"ascii", "abc", "abc"},
        {" utf-8 ", "x", "x"},
        {"utf-8", std::string("a\0b", 3), std::string("a\0b", 3)},
        {"utf-16le", "", ""},
    };
    for (const auto& c : cases) {
        _vqLogger log;
        DataBuffer out;
        out.appendStr("keep:");
        ASSERT_TRUE(utf8ToCharset(c.charset, c.utf8.data(), c.utf8.size(), out, log))
            << c.charset << "\n"
            << logText(log);
        EXPECT_EQ(bytesOf(out), "keep:" + c.encoded) << c.charset;

        std::string back = "replaced";
        ASSERT_TRUE(charsetToUtf8(c.charset,
                                  reinterpret_cast<const unsigned char*>(c.encoded.data()),
                                  c.encoded.size(), back, log))
            << c.charset << "\n"
            << logText(log);
        EXPECT_EQ(back, c.utf8) << c.charset;
    }
}

TEST(Charset, Utf16WithBomDecodesEitherOrder) {
    _vqLogger log;
    DataBuffer out;
    ASSERT_TRUE(utf8ToCharset("utf-16", "hi", 2, out, log));
    ASSERT_EQ(out.getSize(), 6u);  // a byte-order mark, then two units
    std::string back;
    for (const std::string& bytes :
         {bytesOf(out), std::string("\xFF\xFEh\0i\0", 6), std::string("\xFE\xFF\0h\0i", 6)}) {
        ASSERT_TRUE(charsetToUtf8("utf-16", reinterpret_cast<const unsigned char*>(bytes.data()),
                                  bytes.size(), back, log));
        EXPECT_EQ(back, "hi");
    }
}

struct FailureCase {
    const char* name;
    const char* charset;
    std::string input;
    bool toCharset;  // direction: UTF-8 -> charset, or charset -> UTF-8
};

TEST(Charset, FailsWithAReasonAndLeavesOutputAlone) {
    const FailureCase cases[] = {
        {"unknown charset", "no-such-charset", "abc", true},
        {"unknown charset decoding", "klingon-8", "abc", false},
        {"empty charset name", "", "abc", true},
        {"unrepresentable in latin-1", "iso-8859-1", "\xE2\x82\xAC", true},
        {"unrepresentable in ascii", "ascii", "caf\xC3\xA9", true},
        {"truncated utf-8 input", "utf-16le", "ab\xC3", true},
        {"bad utf-8 lead byte", "iso-8859-1",
         "a\xFF"
         "b",
         true},
        {"invalid utf-8 to utf-8", "utf-8", "a\xC3\x28", true},
        {"invalid utf-8 bytes decoded", "utf-8", "ok\xFF", false},
        {"ascii high byte decoded", "ascii", "a\x80", false},
        {"odd-length utf-16 decoded", "utf-16le", std::string("a\0b", 3), false},
        {"lone surrogate decoded", "utf-16le",
         std::string("\x00\xD8"
                     "a\0",
                     4),
         false},
    };
    for (const auto& c : cases) {
        _vqLogger log;
        log.enterContext("Convert", true);
        bool ok;
        if (c.toCharset) {
            DataBuffer out;
            out.appendStr("prior");
            ok = utf8ToCharset(c.charset, c.input.data(), c.input.size(), out, log);
            EXPECT_EQ(bytesOf(out), "prior") << c.name;
        } else {
            std::string out = "prior";
            ok = charsetToUtf8(c.charset, reinterpret_cast<const unsigned char*>(c.input.data()),
                               c.input.size(), out, log);
            EXPECT_EQ(out, "prior") << c.name;
        }
        log.leaveContext();
        EXPECT_FALSE(ok) << c.name;
        EXPECT_NE(logText(log), "Convert:\n--Convert\n") << c.name << ": no reason logged";
    }
}

TEST(ClsBaseConversions, AppendOnEncodeReplaceOnDecode) {
    _vqLogger log;
    DataBuffer db;
    db.appendStr(">");
    ASSERT_TRUE(ClsBase::xstringToDb(XString("iso-8859-1"), XString("\xC3\xA9t\xC3\xA9"), db, log));
    EXPECT_EQ(bytesOf(db), ">\xE9t\xE9");

    XString text("old text");
    ASSERT_TRUE(ClsBase::dbToXString(XString("windows-1252"), bufferOf("\x80\xE9"), text, log));
    EXPECT_STREQ(text.getUtf8(), "\xE2\x82\xAC\xC3\xA9");
    EXPECT_EQ(text.getNumChars(), 2);

    EXPECT_FALSE(ClsBase::dbToXString(XString("utf-8"), bufferOf("\xC0\xAF"), text, log));
    EXPECT_FALSE(ClsBase::xstringToDb(XString("bogus"), XString("x"), db, log));
}

// ---------------------------------------------------------------------------

struct EncodeCase {
    const char* mode;
    std::string bytes;
    std::string text;
};

TEST(Encode, KnownVectorsBothWays) {
    const EncodeCase cases[] = {
        // RFC 4648 section 10.
        {"base64", "", ""},
        {"base64", "f", "Zg=="},
        {"base64", "fo", "Zm8="},
        {"base64", "foo", "Zm9v"},
        {"base64", "foob", "Zm9vYg=="},
        {"base64", "fooba", "Zm9vYmE="},
        {"base64", "foobar", "Zm9vYmFy"},
        {"BASE64", "\xFB\xFF\xBF", "+/+/"},
        {"base64url", "\xFB\xFF\xBF", "-_-_"},
        {"base64url", "f", "Zg"},
        {"base64url", "fooba", "Zm9vYmE"},
        {"hex", std::string("\x00\x1F\xAB\xFF", 4), "001FABFF"},
        {"hexlower", std::string("\x00\x1F\xAB\xFF", 4), "001fabff"},
        {"url", "a b+c/d~e_f.g-h", "a%20b%2Bc%2Fd~e_f.g-h"},
        {"url", "\xC3\xA9?&=", "%C3%A9%3F%26%3D"},
        {"quoted-printable", "caf\xE9 = ok", "caf=E9 =3D ok"},
        {"qp", "line one\r\nline two", "line one\r\nline two"},
        {"qp", "trailing \r\nend\t", "trailing=20\r\nend=09"},
        {"qp", "bare\nlf", "bare=0Alf"},
    };
    for (const auto& c : cases) {
        _clsEncode enc;
        ASSERT_TRUE(enc.put_EncodingMode(XString(c.mode))) << c.mode;
        _vqLogger log;
        XString text;
        ASSERT_TRUE(enc.encodeBinary(bufferOf(c.bytes), text, false, log)) << c.mode;
        EXPECT_EQ(std::string(text.getUtf8()), c.text) << c.mode << " encoding";
        DataBuffer back;
        ASSERT_TRUE(enc.decodeBinary(XString(c.text.c_str()), back, false, log))
            << c.mode << " " << c.text;
        EXPECT_EQ(bytesOf(back), c.bytes) << c.mode << " decoding " << c.text;
    }
}

TEST(Encode, LenientDecodingThatStillMeansOneThing) {
    const EncodeCase cases[] = {
        {"base64", "foobar", "Zm9v\r\nYmFy\n"},
        {"base64", "fo", " Zm8 = "},
        {"base64url", "fo", "Zm8="},
        {"hex", "\xAB\xCD", "abCD"},
        {"hex", "\xAB\xCD", "AB CD\n"},
        {"url", "a+b c", "a+b%20c"},
        {"url", "\xC3\xA9", "%c3%a9"},
        {"qp", "joined", "jo=\r\nined"},
        {"qp", "joined", "jo=  \nined"},
        {"qp", "\xAB", "=ab"},
        {"qp", "x\r\ny", "x   \r\ny"},  // blanks before a line end came from transport
    };
    for (const auto& c : cases) {
        _clsEncode enc;
        ASSERT_TRUE(enc.put_EncodingMode(XString(c.mode)));
        _vqLogger log;
        DataBuffer out;
        ASSERT_TRUE(enc.decodeBinary(XString(c.text.c_str()), out, false, log))
            << c.mode << " " << c.text;
        EXPECT_EQ(bytesOf(out), c.bytes) << c.mode << " " << c.text;
    }
}

TEST(Encode, RejectsMalformedText) {
    const EncodeCase cases[] = {
        {"base64", "", "Zm9v!"}, {"base64", "", "Z"},       {"base64", "", "Zm9vY"},
        {"base64", "", "Zg=a"},  {"base64", "", "Zg="},     {"base64", "", "Zg==="},
        {"base64", "", "===="},  {"base64", "", "Zm8"},  // standard base64 needs its padding
        {"base64", "", "-_-_"},  {"base64url", "", "+/+/"}, {"hex", "", "ABC"},
        {"hex", "", "0G"},       {"hex", "", "0x12"},       {"url", "", "%"},
        {"url", "", "%4"},       {"url", "", "%GG"},        {"url", "", "abc%2"},
        {"qp", "", "=G1"},       {"qp", "", "=4"},          {"qp", "", "a=\rb"},
    };
    for (const auto& c : cases) {
        _clsEncode enc;
        ASSERT_TRUE(enc.put_EncodingMode(XString(c.mode)));
        _vqLogger log;
        DataBuffer out;
        out.appendStr("prior");
        EXPECT_FALSE(enc.decodeBinary(XString(c.text.c_str()), out, false, log))
            << c.mode << " " << c.text;
        EXPECT_EQ(bytesOf(out), "prior") << c.mode << " " << c.text;
        EXPECT_NE(logText(log), "") << c.mode << " " << c.text;
    }
}

TEST(Encode, QuotedPrintableKeepsLinesShortAndRoundTrips) {
    std::string bytes;
    for (int i = 0; i < 600; ++i) bytes.push_back(static_cast<char>((i * 37) % 256));
    bytes += std::string(200, 'x') + " \r\n" + std::string(100, '=');
    _clsEncode enc;
    ASSERT_TRUE(enc.put_EncodingMode(XString("quoted-printable")));
    _vqLogger log;
    XString text;
    ASSERT_TRUE(enc.encodeBinary(bufferOf(bytes), text, false, log));
    std::string encoded = text.getUtf8();
    size_t start = 0;
    while (start < encoded.size()) {
        size_t end = encoded.find("\r\n", start);
        if (end == std::string::npos) end = encoded.size();
        EXPECT_LE(end - start, 76u) << encoded.substr(start, end - start);
        std::string line = encoded.substr(start, end - start);
        if (!line.empty()) {
            EXPECT_NE(line.back(), ' ');
        }
        start = end + 2;
    }
    DataBuffer back;
    ASSERT_TRUE(enc.decodeBinary(text, back, false, log));
    EXPECT_EQ(bytesOf(back), bytes);
}

TEST(Encode, EveryByteValueRoundTripsInEveryMode) {
    std::string all;
    for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
    for (const char* mode : {"base64", "base64url", "hex", "hexlower", "qp", "url"}) {
        for (size_t len : {size_t{0}, size_t{1}, size_t{2}, size_t{3}, size_t{256}}) {
            _clsEncode enc;
            ASSERT_TRUE(enc.put_EncodingMode(XString(mode)));
            _vqLogger log;
            std::string bytes = all.substr(256 - len);
            XString text;
            ASSERT_TRUE(enc.encodeBinary(bufferOf(bytes), text, false, log));
            DataBuffer back;
            ASSERT_TRUE(enc.decodeBinary(text, back, false, log)) << mode << " " << len;
            EXPECT_EQ(bytesOf(back), bytes) << mode << " " << len;
        }
    }
}

TEST(Encode, ModeNamesAndAppendFlag) {
    _clsEncode enc;
    XString mode;
    enc.get_EncodingMode(mode);
    EXPECT_STREQ(mode.getUtf8(), "base64");
    EXPECT_FALSE(enc.put_EncodingMode(XString("rot13")));
    EXPECT_FALSE(enc.put_EncodingMode(XString("")));
    enc.get_EncodingMode(mode);
    EXPECT_STREQ(mode.getUtf8(), "base64");
    ASSERT_TRUE(enc.put_EncodingMode(XString("Quoted-Printable")));
    enc.get_EncodingMode(mode);
    EXPECT_STREQ(mode.getUtf8(), "quoted-printable");

    ASSERT_TRUE(enc.put_EncodingMode(XString("Hex")));
    _vqLogger log;
    XString text("AB");
    ASSERT_TRUE(enc.encodeBinary(bufferOf("\x01"), text, true, log));
    EXPECT_STREQ(text.getUtf8(), "AB01");
    ASSERT_TRUE(enc.encodeBinary(bufferOf("\x02"), text, false, log));
    EXPECT_STREQ(text.getUtf8(), "02");

    DataBuffer bytes = bufferOf("z");
    ASSERT_TRUE(enc.decodeBinary(XString("41"), bytes, true, log));
    EXPECT_EQ(bytesOf(bytes), "zA");
    ASSERT_TRUE(enc.decodeBinary(XString("42"), bytes, false, log));
    EXPECT_EQ(bytesOf(bytes), "B");
}

}  // namespace
}  // namespace scpkit::test
