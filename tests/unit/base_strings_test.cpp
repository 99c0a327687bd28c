// Strings, owning arrays and the hash map.
#include <climits>
#include <memory>
#include <tuple>

#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/base/StringBuffer.h>
#include <scpkit/base/StringHashMap.h>
#include <scpkit/base/XString.h>
#include "tests/unit/BaseTestHelpers.h"

namespace scpkit::test {
namespace {

TEST(StringBuffer, ToInt64ParsesLeadingDecimalAndSaturates) {
    const std::pair<const char*, int64_t> cases[] = {
        {" \t+7", 7},
        {"-12x", -12},
        {"+-5", 0},
        {"9223372036854775807", LLONG_MAX},
        {"9223372036854775808", LLONG_MAX},
        {"99999999999999999999999999", LLONG_MAX},
        {"-9223372036854775808", LLONG_MIN},
        {"-9223372036854775809", LLONG_MIN},
        {"000000000000000000000000042", 42},
    };
    for (const auto& [text, value] : cases) EXPECT_EQ(StringBuffer(text).toInt64(), value) << text;
    StringBuffer sb;
    EXPECT_TRUE(sb.appendInt64(LLONG_MIN) && sb.append(4000000000u) && sb.appendInt64(LLONG_MAX));
    EXPECT_EQ(sb.str(), "-922337203685477580840000000009223372036854775807");
}

TEST(StringBuffer, SplitAndTrimAppendsThePiecesOfASemicolonList) {
    const std::tuple<const char*, bool, bool, const char*> cases[] = {
        {" *.txt ; *.log ", true, true, "held|*.txt|*.log|"},
        {";;a;; ;b;", true, true, "held|a|b|"},
        {";a;", true, false, "held||a||"},
        {" x ; ;y", false, true, "held| x | |y|"},
    };
    for (const auto& [text, trimEach, skipEmpty, expected] : cases) {
        ExtPtrArraySb parts;
        parts.appendString("held");
        ASSERT_TRUE(StringBuffer(text).splitAndTrim(parts, ';', trimEach, skipEmpty));
        std::string got;
        for (int i = 0; parts.strAt(i); ++i) got += std::string(parts.strAt(i)) + "|";
        EXPECT_EQ(got, expected) << text;
    }
}

TEST(XString, CountsAndShortensByCharacterNotByte) {
    const std::tuple<const char*, int, int, const char*> cases[] = {
        {"", 0, 1, ""},
        {"h\xC3\xA9llo", 5, 4, "h"},
        {"\xF0\x9F\x98\x80\xF0\x9F\x98\x81", 2, 1, "\xF0\x9F\x98\x80"},
        {"\xC3\xA9\xC3\xA9", 2, 5, ""},
        {"xyz", 3, -2, "xyz"},
    };
    for (const auto& [text, numChars, drop, afterDrop] : cases) {
        XString x(text);
        EXPECT_EQ(x.getNumChars(), numChars) << text;
        x.shortenNumChars(drop);
        EXPECT_STREQ(x.getUtf8(), afterDrop) << text << " drop " << drop;
    }
}

// Counts live instances, so that a leak or a double delete shows.
struct Counted : NonRefCountedObj {
    explicit Counted(int id) : id(id) { ++live; }
    ~Counted() override { --live; }
    int id;
    static inline int live = 0;
};
int idOf(VostrelObject* obj) {
    return obj ? static_cast<Counted*>(obj)->id : 0;
}

TEST(Ownership, ArrayAndHashMapDeleteWhatTheyStillHold) {
    std::unique_ptr<VostrelObject> popped;
    {
        ExtPtrArray arr;
        EXPECT_EQ(arr.pop(), nullptr);
        for (int i = 1; i <= 3; ++i) arr.appendObject(new Counted(i));
        popped.reset(arr.pop());
        EXPECT_EQ(std::make_pair(idOf(popped.get()), idOf(arr.lastElement())),
                  std::make_pair(3, 2));
    }
    EXPECT_EQ(Counted::live, 1);  // only the popped one outlives the array
    popped.reset();

    StringHashMap* map = StringHashMap::createNewObject(16691);
    EXPECT_TRUE(map->hashInsert("a/b.txt", new Counted(1)) &&
                map->hashInsert("c.txt", new Counted(2)));
    EXPECT_TRUE(map->hashInsert("a/b.txt", new Counted(3)));          // replaces and deletes 1
    EXPECT_TRUE(map->hashInsert("c.txt", map->hashLookup("c.txt")));  // the same object stays
    EXPECT_FALSE(map->hashInsert(nullptr, new Counted(4)));           // refused, but released
    EXPECT_EQ(std::make_pair(idOf(map->hashLookup("a/b.txt")), idOf(map->hashLookup("c.txt"))),
              std::make_pair(3, 2));
    EXPECT_EQ(map->hashLookup("A/B.TXT"), nullptr);
    EXPECT_EQ(Counted::live, 2);
    VostrelObject::deleteObject(map);
    EXPECT_EQ(Counted::live, 0);
}

}  // namespace
}  // namespace scpkit::test
