// A call longer than the log's entry budget keeps its beginning, its end,
// every error, its own data items and its outcome; the first error and the
// items around it are kept apart for the program's one-line message.
#include <gtest/gtest.h>

#include <string>

#include <scpkit/base/Logger.h>

namespace scpkit {
namespace {

std::string rendered(const _vqLogger& log) {
    std::string text;
    log.renderText(text);
    return text;
}

std::string itemsOf(const LogFirstError& e) {
    std::string s;
    for (const LogDataItem& item : e.items) s += item.tag + "=" + item.value + ";";
    return s;
}

int occurrences(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

void step(_vqLogger& log, const char* n, const char* error = nullptr) {
    LogContextExitor ctx(log, "step");
    log.LogData("n", n);
    if (error) log.LogError(error);
}

TEST(LogBudget, CutsTheMiddleButKeepsStructureErrorsTopLevelItemsAndOutcome) {
    _vqLogger log;
    log.setMaxEntries(8);  // the first 4 entries and the last 4
    {
        LogContextExitor call(log, "Call");
        log.LogData("remotePath", "/r");
        step(log, "1");
        step(log, "2", "bad");
        log.LogData("scp_errors1", "x");
        step(log, "3");
        step(log, "4");
        log.logOutcome(false);
    }
    EXPECT_EQ(rendered(log),
              "Call:\n    remotePath: /r\n    step:\n        n: 1\n    --step\n"
              "    (3 log entries left out here: from the middle of a long call only errors and "
              "the call's own data items are kept. A debug log file gets every entry.)\n"
              "    step:\n        bad\n    --step\n    scp_errors1: x\n"
              "    step:\n        n: 3\n    --step\n    step:\n        n: 4\n    --step\n"
              "    Failed.\n--Call\n");
    LogFirstError first;
    ASSERT_TRUE(log.firstError(first));
    EXPECT_EQ(first.text + " in " + first.context, "bad in Call/step");
    EXPECT_EQ(itemsOf(first), "n=2;scp_errors1=x;n=3;n=4;");
}

TEST(LogBudget, AHugeCallRendersBoundedTextWithItsBeginningEndAndErrors) {
    _vqLogger log;
    log.setMaxEntries(1000);
    log.enterContext("SyncTreeDownload", true);
    log.LogData("localDirRoot", "/first");
    for (int i = 0; i < 100000; ++i) {
        LogContextExitor file(log, "file");
        LogContextExitor inner(log, "receiveFile");
        log.LogData("n", std::to_string(i).c_str());
        if (i == 50000) log.LogError("error in the middle");
        if (i == 60000) log.LogData("ignored", "");  // nested: not the call's own
    }
    log.LogData("lastTopLevelItem", "kept");
    log.logOutcome(true);
    log.leaveContext();
    const std::string text = rendered(log);
    EXPECT_LT(text.size(), 1000u * 40);
    for (const char* kept : {"localDirRoot: /first", "n: 1\n", "error in the middle", "n: 99999",
                             "lastTopLevelItem: kept\n    Success.\n--SyncTreeDownload"})
        EXPECT_NE(text.find(kept), std::string::npos) << kept;
    for (const char* cut : {"n: 40000", "ignored"}) EXPECT_EQ(text.find(cut), std::string::npos);
    EXPECT_EQ(occurrences(text, "log entries left out"), 1);
    EXPECT_EQ(occurrences(text, "file:"), occurrences(text, "--file"));
    EXPECT_EQ(occurrences(text, "receiveFile:"), occurrences(text, "--receiveFile"));

    LogFirstError first;
    EXPECT_TRUE(log.firstError(first) && first.text == "error in the middle");
    EXPECT_EQ(itemsOf(first).substr(0, 16), "n=50000;n=50001;");
    EXPECT_EQ(first.items.size(), 1 + LogFirstError::kItemsAfter);  // its context held one
}

// A remote error text is a data item, not an error line: a call that fails
// with only that still has a first error, whose items hold it.
TEST(FirstError, ComesFromTheFirstErrorLineOrTheFailedOutcomeAndResetsPerCall) {
    _vqLogger log;
    for (size_t n : {size_t{0}, size_t{1}, LogFirstError::kItemsBefore + 1}) {
        LogContextExitor call(log, "DownloadFile");
        log.LogData("remotePath", "/r");
        {
            LogContextExitor unrelated(log, "setEnvironmentVars");
            log.LogData("envName", "A");
        }
        {
            LogContextExitor recv(log, "receiveFileInfo");
            for (size_t i = 0; i < n; ++i) log.LogData("pad", "");
            log.LogData("errorResponse", "scp: /r: No such file or directory\n");
            if (n == 1) log.LogError("receiveFile returned failure.");
            log.LogData("after", "");
        }
        log.logOutcome(n == 0);
        LogFirstError first;
        if (n == 0) {
            EXPECT_FALSE(log.firstError(first));
            continue;
        }
        ASSERT_TRUE(log.firstError(first));
        const std::string* remote = first.find("errorResponse");
        ASSERT_TRUE(remote);
        EXPECT_EQ(*remote, "scp: /r: No such file or directory\n");
        if (n == 1) {
            // Before it: only what its own context logged.
            EXPECT_EQ(first.text + "|" + first.context + "|" + itemsOf(first),
                      "receiveFile returned failure.|DownloadFile/receiveFileInfo|pad=;"
                      "errorResponse=scp: /r: No such file or directory\n;after=;");
        } else {
            EXPECT_EQ(first.text + "|" + first.context, "|DownloadFile");
            EXPECT_EQ(first.items.size(), LogFirstError::kItemsBefore);
            EXPECT_EQ(first.items.back().tag, "after");
        }
    }
}

}  // namespace
}  // namespace scpkit
