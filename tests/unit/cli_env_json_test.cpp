// --env pairs become the JSON object that SendEnv takes; the library's own
// JSON reader must get back exactly the names and values given.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "base/ClsJsonObject.h"
#include "base/XString.h"
#include "cli/EnvJson.h"

namespace scpkit::test {
namespace {

TEST(CliEnvJson, RoundTripsThroughTheLibrarysReader) {
    std::vector<std::string> pairs = {
        "LANG=C.UTF-8",           "EMPTY=",           "QUOTE=say \"hi\"", "SLASH=a\\b", "EQ=a=b",
        "CTRL=tab\there\nnl\x01", "UTF8=caf\xc3\xa9", "LANG=fr_FR.UTF-8"};  // later wins
    std::vector<std::pair<std::string, std::string>> expected = {
        {"LANG", "fr_FR.UTF-8"}, {"EMPTY", ""}, {"QUOTE", "say \"hi\""},
        {"SLASH", "a\\b"},       {"EQ", "a=b"}, {"CTRL", "tab\there\nnl\x01"},
        {"UTF8", "caf\xc3\xa9"},
    };
    std::string json, error;
    ASSERT_TRUE(cli::envPairsToJson(pairs, json, error)) << error;

    ClsJsonObject* obj = ClsJsonObject::createNewCls();
    ASSERT_NE(obj, nullptr);
    XString text(json.c_str());
    ASSERT_TRUE(obj->Load(text)) << json;
    ASSERT_EQ(obj->get_Size(), static_cast<int>(expected.size())) << json;
    for (int i = 0; i < obj->get_Size(); ++i) {
        XString name, value;
        ASSERT_TRUE(obj->NameAt(i, name));
        ASSERT_TRUE(obj->StringAt(i, value));
        EXPECT_EQ(name.getUtf8(), expected[i].first);
        EXPECT_EQ(value.getUtf8(), expected[i].second);
    }
    delete obj;
}

TEST(CliEnvJson, RejectsWhatIsNoVariable) {
    for (const char* bad : {"NOEQUALS", "=v", "1A=v", "A-B=v", "A B=v", "\x1b=v"}) {
        std::string json, error;
        EXPECT_FALSE(cli::envPairsToJson({bad}, json, error)) << bad;
        EXPECT_FALSE(error.empty());
    }
    std::string json, error;
    ASSERT_TRUE(cli::envPairsToJson({}, json, error));
    EXPECT_EQ(json, "{}");
}

}  // namespace
}  // namespace scpkit::test
