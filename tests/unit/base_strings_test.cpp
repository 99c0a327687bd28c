// Strings, byte buffers, owning arrays and the hash map.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "base/DataBuffer.h"
#include "base/ExtPtrArray.h"
#include "base/StringBuffer.h"
#include "base/StringHashMap.h"
#include "base/XString.h"

namespace scpkit::test {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

struct Int64Case {
    const char* text;
    int64_t expected;
};

TEST(StringBufferToInt64, ParsesLeadingDecimalAndSaturates) {
    const Int64Case cases[] = {
        {"0", 0},
        {"12345", 12345},
        {"  \t42", 42},
        {"+7", 7},
        {"-7", -7},
        {"-0", 0},
        {"123abc", 123},
        {"12 34", 12},
        {"abc", 0},
        {"", 0},
        {"-", 0},
        {"+-5", 0},
        {" - 5", 0},
        {"0000000000000000000000000000042", 42},
        {"9223372036854775807", kMax},
        {"9223372036854775808", kMax},
        {"99999999999999999999999999", kMax},
        {"-9223372036854775808", kMin},
        {"-9223372036854775809", kMin},
        {"-99999999999999999999999999x", kMin},
        {"4294967296", 4294967296LL},
    };
    for (const auto& c : cases) {
        StringBuffer sb(c.text);
        EXPECT_EQ(sb.toInt64(), c.expected) << "text: \"" << c.text << "\"";
    }
}

TEST(StringBufferToInt64, RoundTripsAppendInt64) {
    for (int64_t v : {kMin, kMin + 1, int64_t{-1}, int64_t{0}, int64_t{1}, kMax - 1, kMax}) {
        StringBuffer sb;
        ASSERT_TRUE(sb.appendInt64(v));
        EXPECT_EQ(sb.toInt64(), v) << sb.getString();
    }
    StringBuffer sb;
    sb.appendInt64(kMin);
    EXPECT_STREQ(sb.getString(), "-9223372036854775808");
}

struct SplitCase {
    const char* text;
    bool trimEach;
    bool skipEmpty;
    std::vector<std::string> expected;
};

TEST(StringBufferSplitAndTrim, SemicolonListsAsFiltersUseThem) {
    const SplitCase cases[] = {
        {"*.txt;*.log", true, true, {"*.txt", "*.log"}},
        {" *.txt ; *.log ", true, true, {"*.txt", "*.log"}},
        {";;a;; ;b;", true, true, {"a", "b"}},
        {"", true, true, {}},
        {" ; ;", true, true, {}},
        {"one", true, true, {"one"}},
        {"a b ; c\td", true, true, {"a b", "c\td"}},
        // Without skipping, every separator yields a piece.
        {";a;", true, false, {"", "a", ""}},
        {" x ; ", true, false, {"x", ""}},
        // Without trimming, blanks stay and blank pieces are not empty.
        {" x ; ;y", false, true, {" x ", " ", "y"}},
        {"", false, false, {""}},
    };
    for (const auto& c : cases) {
        ExtPtrArraySb parts;
        ASSERT_TRUE(StringBuffer(c.text).splitAndTrim(parts, ';', c.trimEach, c.skipEmpty));
        std::vector<std::string> got;
        for (int i = 0; i < parts.getSize(); ++i) got.emplace_back(parts.strAt(i));
        EXPECT_EQ(got, c.expected) << "text: \"" << c.text << "\"";
    }
}

TEST(StringBufferSplitAndTrim, AppendsToWhatTheListHolds) {
    ExtPtrArraySb parts;
    parts.appendString("first");
    ASSERT_TRUE(StringBuffer("a;b").splitAndTrim(parts, ';', true, true));
    ASSERT_EQ(parts.getSize(), 3);
    EXPECT_STREQ(parts.strAt(0), "first");
    EXPECT_STREQ(parts.strAt(2), "b");
    EXPECT_EQ(parts.strAt(3), nullptr);
    EXPECT_EQ(parts.strAt(-1), nullptr);
}

TEST(StringBuffer, EditingOperations) {
    StringBuffer sb("  \t hello world \r\n");
    sb.trim2();
    EXPECT_STREQ(sb.getString(), "hello world");
    sb.shorten(6);
    EXPECT_STREQ(sb.getString(), "hello");
    EXPECT_EQ(sb.lastChar(), 'o');
    sb.shorten(100);
    EXPECT_EQ(sb.getSize(), 0u);
    EXPECT_EQ(sb.lastChar(), '\0');

    sb.append("C0644 ");
    sb.append(4000000000u);
    sb.appendChar(' ');
    sb.appendN("name-and-junk", 4);
    sb.appendLineEnding();
    EXPECT_EQ(sb.str(), "C0644 4000000000 name\n");

    // Bytes with an embedded NUL are kept.
    StringBuffer bin;
    bin.append("a\0b", 3);
    EXPECT_EQ(bin.getSize(), 3u);
    bin.append(bin);
    EXPECT_EQ(bin.str(), std::string("a\0ba\0b", 6));

    StringBuffer big;
    big.appendMinSize("x", 1000);
    EXPECT_GE(big.str().capacity(), 1000u);
    EXPECT_STREQ(big.getString(), "x");

    StringBuffer blank("   ");
    blank.trim2();
    EXPECT_EQ(blank.getSize(), 0u);
}

TEST(StringBuffer, Searching) {
    StringBuffer sb("scp: /x: No Such File");
    EXPECT_TRUE(sb.beginsWith("scp:"));
    EXPECT_FALSE(sb.beginsWith("SCP:"));
    EXPECT_FALSE(StringBuffer("sc").beginsWith("scp"));
    EXPECT_TRUE(sb.containsChar('/'));
    EXPECT_FALSE(sb.containsChar('\n'));
    EXPECT_TRUE(sb.containsSubstring("No Such"));
    EXPECT_FALSE(sb.containsSubstring("no such"));
    EXPECT_TRUE(sb.containsSubstringNoCase("no such file"));
    EXPECT_TRUE(sb.containsSubstringNoCase("FILE"));
    EXPECT_FALSE(sb.containsSubstringNoCase("files"));
    EXPECT_FALSE(StringBuffer("ab").containsSubstringNoCase("abc"));
}

struct Utf8Case {
    const char* text;
    int numChars;
    int drop;
    const char* afterDrop;
};

TEST(XStringChars, CountsAndShortensByCharacter) {
    const Utf8Case cases[] = {
        {"", 0, 1, ""},
        {"abc", 3, 1, "ab"},
        {"h\xC3\xA9llo", 5, 4, "h"},  // é: 2 bytes
        {"\xE2\x82\xAC"
         "1",
         2, 1, "\xE2\x82\xAC"},                                          // €: 3 bytes
        {"a\xE2\x82\xAC", 2, 1, "a"},                                    // drop a 3-byte char
        {"\xF0\x9F\x98\x80\xF0\x9F\x98\x81", 2, 1, "\xF0\x9F\x98\x80"},  // 4-byte emoji
        {"\xC3\xA9\xC3\xA9", 2, 5, ""},
        {"xyz", 3, 0, "xyz"},
        {"xyz", 3, -2, "xyz"},
    };
    for (const auto& c : cases) {
        XString x(c.text);
        EXPECT_EQ(x.getNumChars(), c.numChars) << c.text;
        x.shortenNumChars(c.drop);
        EXPECT_STREQ(x.getUtf8(), c.afterDrop) << c.text << " drop " << c.drop;
    }
}

TEST(XStringCompare, FlagFalseIsExactAndTrueFoldsAsciiCase) {
    XString x("Dir/Sub/file.TXT");
    EXPECT_TRUE(x.beginsWithUtf8("Dir/", false));
    EXPECT_FALSE(x.beginsWithUtf8("dir/", false));
    EXPECT_TRUE(x.beginsWithUtf8("dir/", true));
    EXPECT_FALSE(x.beginsWithUtf8("Dir/Sub/file.TXT/", false));
    EXPECT_TRUE(x.beginsWithUtf8("", false));

    XString r("Dir/sub/dir/x");
    EXPECT_FALSE(r.replaceFirstOccuranceUtf8("DIR/", "", false));
    EXPECT_STREQ(r.getUtf8(), "Dir/sub/dir/x");
    EXPECT_TRUE(r.replaceFirstOccuranceUtf8("dir/", "", false));
    EXPECT_STREQ(r.getUtf8(), "Dir/sub/x");
    EXPECT_TRUE(r.replaceFirstOccuranceUtf8("DIR/", "top/", true));
    EXPECT_STREQ(r.getUtf8(), "top/sub/x");
    EXPECT_FALSE(r.replaceFirstOccuranceUtf8("", "y", false));

    XString u("\xC3\xA9t\xC3\xA9");
    EXPECT_TRUE(u.replaceFirstOccuranceUtf8("\xC3\xA9", "e", false));
    EXPECT_STREQ(u.getUtf8(), "et\xC3\xA9");
}

TEST(XString, BuildingText) {
    XString a("  x ");
    a.trim2();
    XString b;
    b.copyFromX(a);
    b.appendUtf8("/");
    b.appendX(a);
    b.appendSbUtf8(StringBuffer("!"));
    EXPECT_TRUE(b.equalsUtf8("x/x!"));
    EXPECT_TRUE(b.containsSubstringUtf8("/x"));
    b.clear();
    EXPECT_TRUE(b.isEmpty());
    b.setFromSbUtf8(StringBuffer("sb"));
    EXPECT_EQ(b.getUtf8Sb().str(), "sb");
}

TEST(DataBuffer, AppendsAndRemoves) {
    DataBuffer db;
    EXPECT_EQ(db.firstByte(), 0);
    db.appendChar('\x01');
    db.appendStr("skip\n");
    db.append(StringBuffer("ab"));
    db.append("\0z", 2);
    EXPECT_TRUE(db.equals("\x01skip\nab\0z", 10));
    EXPECT_EQ(db.firstByte(), 1);
    db.append(db);  // its own bytes
    EXPECT_EQ(db.getSize(), 20u);
    db.removeFront(15);
    EXPECT_TRUE(db.equals("\nab\0z", 5));
    db.removeFront(99);
    EXPECT_EQ(db.getSize(), 0u);
    EXPECT_TRUE(db.equals(nullptr, 0));
}

// Counts live instances so that ownership mistakes show as leaks or double deletes.
class Counted : public NonRefCountedObj {
  public:
    explicit Counted(int id = 0) : id(id) { ++live; }
    ~Counted() override { --live; }
    int id;
    static int live;
};
int Counted::live = 0;

TEST(ExtPtrArrayOwnership, DeletesWhatItHoldsAndPopHandsOver) {
    Counted::live = 0;
    Counted* popped = nullptr;
    {
        ExtPtrArray arr;
        EXPECT_EQ(arr.pop(), nullptr);
        EXPECT_EQ(arr.lastElement(), nullptr);
        for (int i = 1; i <= 3; ++i) arr.appendObject(new Counted(i));
        EXPECT_FALSE(arr.appendObject(nullptr));
        EXPECT_EQ(arr.getSize(), 3);
        EXPECT_EQ(static_cast<Counted*>(arr.lastElement())->id, 3);
        popped = static_cast<Counted*>(arr.pop());
        EXPECT_EQ(popped->id, 3);
        EXPECT_EQ(arr.getSize(), 2);
        EXPECT_EQ(Counted::live, 3);
    }
    EXPECT_EQ(Counted::live, 1);  // only the popped one survives the array
    delete popped;
    EXPECT_EQ(Counted::live, 0);
}

TEST(StringHashMapOwnership, ReplacingDeletesOldValueAndMapDeletesTheRest) {
    Counted::live = 0;
    StringHashMap* map = StringHashMap::createNewObject(16691);
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(map->hashLookup("a/b.txt"), nullptr);
    EXPECT_TRUE(map->hashInsert("a/b.txt", new Counted(1)));
    EXPECT_TRUE(map->hashInsert("c.txt", new Counted(2)));
    EXPECT_EQ(Counted::live, 2);

    EXPECT_TRUE(map->hashInsert("a/b.txt", new Counted(3)));
    EXPECT_EQ(Counted::live, 2);
    EXPECT_EQ(static_cast<Counted*>(map->hashLookup("a/b.txt"))->id, 3);
    EXPECT_EQ(map->getCount(), 2);

    // Inserting the object already stored keeps it alive.
    NonRefCountedObj* same = map->hashLookup("c.txt");
    EXPECT_TRUE(map->hashInsert("c.txt", same));
    EXPECT_EQ(static_cast<Counted*>(map->hashLookup("c.txt"))->id, 2);

    // A refused insert still takes (and releases) the value.
    EXPECT_FALSE(map->hashInsert(nullptr, new Counted(4)));
    EXPECT_EQ(Counted::live, 2);
    EXPECT_EQ(map->hashLookup("A/B.TXT"), nullptr);  // keys are exact

    VostrelObject::deleteObject(map);
    EXPECT_EQ(Counted::live, 0);
}

}  // namespace
}  // namespace scpkit::test
