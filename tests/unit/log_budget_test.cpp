// The log tree stops growing at its entry budget but keeps every error, and
// the next public call starts with the full budget again.
#include <gtest/gtest.h>

#include <string>

#include <scpkit/base/Logger.h>

namespace scpkit {
namespace {

int occurrences(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(LogBudget, KeepsErrorsAndStaysBalancedPastTheBudget) {
    _vqLogger log;
    log.setMaxEntries(10);
    log.enterContext("Call", true);
    for (int i = 0; i < 20; ++i) {
        LogContextExitor file(log, "file");
        log.LogData("n", std::to_string(i).c_str());
        if (i == 15) log.LogError("late failure");
    }
    log.leaveContext();

    std::string text;
    log.renderText(text);
    EXPECT_NE(text.find("n: 3"), std::string::npos);
    EXPECT_EQ(text.find("n: 12"), std::string::npos);
    EXPECT_NE(text.find("late failure"), std::string::npos);
    EXPECT_EQ(occurrences(text, "The log keeps its first 10 entries"), 1);
    EXPECT_EQ(occurrences(text, "file:"), occurrences(text, "--file"));
    EXPECT_EQ(text.substr(text.size() - 7), "--Call\n");

    log.enterContext("Next", true);
    for (int i = 0; i < 5; ++i) log.LogData("m", std::to_string(i).c_str());
    log.leaveContext();
    log.renderText(text);
    EXPECT_NE(text.find("m: 4"), std::string::npos);
    EXPECT_EQ(text.find("The log keeps"), std::string::npos);
}

}  // namespace
}  // namespace scpkit
