// ClsJsonObject (ordered members) and ClsBinData.
#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "base/ClsBinData.h"
#include "base/ClsJsonObject.h"
#include "base/DataBuffer.h"
#include "base/Logger.h"
#include "base/XString.h"

namespace scpkit::test {
namespace {

using Members = std::vector<std::pair<std::string, std::string>>;

Members membersOf(ClsJsonObject& json) {
    Members out;
    for (int i = 0; i < json.get_Size(); ++i) {
        XString name, value;
        EXPECT_TRUE(json.NameAt(i, name));
        EXPECT_TRUE(json.StringAt(i, value));
        out.emplace_back(name.getUtf8Sb().str(), value.getUtf8Sb().str());
    }
    return out;
}

bool load(ClsJsonObject& json, const std::string& text, _vqLogger& log) {
    DataBuffer db;
    db.append(text.data(), text.size());
    return json.loadJson(db, log);
}

struct JsonCase {
    const char* name;
    std::string text;
    Members expected;
};

TEST(ClsJsonObject, MembersKeepTheirOrderAndRenderAsText) {
    const JsonCase cases[] = {
        {"order as written",
         R"({"ZETA":"1","alpha":"2","Mid":"3"})",
         {{"ZETA", "1"}, {"alpha", "2"}, {"Mid", "3"}}},
        {"blank and spaced names kept",
         R"({"":"empty name"," ":"blank","LANG":"C"})",
         {{"", "empty name"}, {" ", "blank"}, {"LANG", "C"}}},
        {"non-string values as JSON text",
         R"({"n":42,"f":1.5,"neg":-7,"t":true,"z":null,"o":{"b":1, "a":[1, "x"]},"arr":[]})",
         {{"n", "42"},
          {"f", "1.5"},
          {"neg", "-7"},
          {"t", "true"},
          {"z", ""},
          {"o", R"({"b":1,"a":[1,"x"]})"},
          {"arr", "[]"}}},
        {"escapes and unicode decoded",
         R"({"q":"a\"b\\c\n","u":"\u00e9\u20ac","raw":"é"})",
         {{"q", "a\"b\\c\n"}, {"u", "\xC3\xA9\xE2\x82\xAC"}, {"raw", "\xC3\xA9"}}},
        {"empty object", " { } ", {}},
        {"byte-order mark and white space", "\xEF\xBB\xBF\n{\"A\" : \"b\"}\n", {{"A", "b"}}},
    };
    for (const auto& c : cases) {
        std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
        ASSERT_NE(json, nullptr);
        _vqLogger log;
        ASSERT_TRUE(load(*json, c.text, log)) << c.name << "\n" << c.text;
        EXPECT_EQ(membersOf(*json), c.expected) << c.name;
    }
}

TEST(ClsJsonObject, TextThatIsNotAnObjectLeavesNoMembers) {
    const char* bad[] = {
        "",
        "not json",
        "[1,2]",
        "\"str\"",
        "42",
        "null",
        "{\"a\":1",
        "{\"a\":1} trailing",
        "{\"a\":1,}",
        "{'a':'b'}",
        "{\"bad\":\"\xC3\x28\"}",
    };
    for (const char* text : bad) {
        std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
        _vqLogger log;
        ASSERT_TRUE(load(*json, R"({"keep":"me"})", log));
        ASSERT_EQ(json->get_Size(), 1);
        _vqLogger failLog;
        EXPECT_FALSE(load(*json, text, failLog)) << text;
        EXPECT_EQ(json->get_Size(), 0) << text;
        std::string logText;
        failLog.renderText(logText);
        EXPECT_FALSE(logText.empty()) << text;
    }
}

TEST(ClsJsonObject, IndexOutOfRangeAndPublicLoad) {
    std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
    XString name("x"), value("y");
    EXPECT_EQ(json->get_Size(), 0);
    EXPECT_FALSE(json->NameAt(0, name));
    EXPECT_FALSE(json->StringAt(-1, value));
    EXPECT_TRUE(name.isEmpty());
    EXPECT_TRUE(value.isEmpty());

    XString text(R"({"TZ":"UTC","LC_ALL":"C"})");
    ASSERT_TRUE(json->Load(text));
    EXPECT_FALSE(json->NameAt(2, name));
    ASSERT_TRUE(json->NameAt(1, name));
    EXPECT_STREQ(name.getUtf8(), "LC_ALL");
    XString last;
    json->get_LastErrorText(last);
    EXPECT_STREQ(last.getUtf8(), "Load:\n    Success.\n--Load\n");

    XString bad("[]");
    EXPECT_FALSE(json->Load(bad));
    json->get_LastErrorText(last);
    EXPECT_TRUE(last.getUtf8Sb().containsSubstring("Failed.")) << last.getUtf8();
}

// ---------------------------------------------------------------------------

std::string bytesOf(ClsBinData& bd) {
    DataBuffer& db = bd.getDataBuffer();
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

class TempFile {
  public:
    TempFile() {
        char tmpl[] = "/tmp/scpkit_bdXXXXXX";
        int fd = mkstemp(tmpl);
        if (fd >= 0) close(fd);
        m_path = tmpl;
    }
    ~TempFile() { std::remove(m_path.c_str()); }
    const std::string& path() const { return m_path; }

  private:
    std::string m_path;
};

TEST(ClsBinData, AppendsInCharsetsAndEncodings) {
    ClsBinData bd;
    EXPECT_EQ(bd.get_NumBytes(), 0);
    ASSERT_TRUE(bd.AppendBinary("\x00\x01", 2));
    XString text("caf\xC3\xA9"), latin1("iso-8859-1");
    ASSERT_TRUE(bd.AppendString(text, latin1));
    XString encoded("Zm9v"), base64("base64");
    ASSERT_TRUE(bd.AppendEncoded(encoded, base64));
    EXPECT_EQ(bytesOf(bd), std::string("\x00\x01"
                                       "caf\xE9"
                                       "foo",
                                       9));
    EXPECT_EQ(bd.get_NumBytes(), 9);

    XString hex("hex"), out("old");
    ASSERT_TRUE(bd.GetEncoded(hex, out));
    EXPECT_STREQ(out.getUtf8(), "0001636166E9666F6F");

    // Failures change nothing.
    XString euro("\xE2\x82\xAC"), bogus("bogus"), junk("Zm9v!");
    EXPECT_FALSE(bd.AppendString(euro, latin1));
    EXPECT_FALSE(bd.AppendEncoded(junk, base64));
    EXPECT_FALSE(bd.AppendEncoded(encoded, bogus));
    EXPECT_FALSE(bd.GetEncoded(bogus, out));
    EXPECT_EQ(bd.get_NumBytes(), 9);
    XString last;
    bd.get_LastErrorText(last);
    EXPECT_TRUE(last.getUtf8Sb().beginsWith("GetEncoded:\n")) << last.getUtf8();
    EXPECT_TRUE(last.getUtf8Sb().containsSubstring("encoding: bogus")) << last.getUtf8();

    bd.Clear();
    EXPECT_EQ(bd.get_NumBytes(), 0);
}

TEST(ClsBinData, FileRoundTripAndFailures) {
    TempFile file;
    std::string bytes;
    for (int i = 0; i < 200000; ++i) bytes.push_back(static_cast<char>(i * 7));
    ClsBinData out;
    out.AppendBinary(bytes.data(), bytes.size());
    XString path(file.path().c_str());
    ASSERT_TRUE(out.WriteFile(path));

    std::ifstream in(file.path(), std::ios::binary);
    std::stringstream onDisk;
    onDisk << in.rdbuf();
    EXPECT_EQ(onDisk.str(), bytes);

    ClsBinData back;
    back.AppendBinary("replaced", 8);
    ASSERT_TRUE(back.LoadFile(path));
    EXPECT_EQ(bytesOf(back), bytes);

    XString missing("/nonexistent-dir/none.bin");
    EXPECT_FALSE(back.LoadFile(missing));
    EXPECT_EQ(bytesOf(back), bytes);
    EXPECT_FALSE(out.WriteFile(missing));

    ClsBinData empty;
    ASSERT_TRUE(empty.WriteFile(path));
    ASSERT_TRUE(back.LoadFile(path));
    EXPECT_EQ(back.get_NumBytes(), 0);
}

}  // namespace
}  // namespace scpkit::test
