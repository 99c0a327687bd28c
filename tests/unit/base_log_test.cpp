// The log tree: one tree per top-level call, the debug file, and a call
// longer than the entry budget keeping its beginning, its end, every error,
// its own data items and its outcome. The first error and the items around
// it are kept apart for the program's one-line message.
#include <scpkit/base/ClsBase.h>
#include <scpkit/base/StringBuffer.h>
#include "tests/support/ScpTestHelpers.h"

namespace scpkit::test {
namespace {

struct PlainObject : ClsBase {};

std::string summary(ClsBase& obj) {
    LogFirstError e;
    if (!obj.firstError(e)) return "none";
    std::string s = e.text + "|" + e.context + "|";
    for (const LogDataItem& item : e.items) s += item.tag + "=" + item.value + ";";
    return s;
}

void step(LogBase& log, const std::string& n, const char* error = nullptr) {
    LogContextExitor ctx(log, "step");
    log.LogData("n", n.c_str());
    if (error) log.LogError(error);
}

int occurrences(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(Log, RendersTheLastCallCutsItsMiddleAndTheDebugFileKeepsEverything) {
    ScratchDir tmp("scpkit-base");
    XString debugPath(tmp.file("debug.log").c_str());
    PlainObject obj;
    obj.put_DebugLogFilePath(debugPath);
    _vqLogger& log = obj.m_log;
    log.setMaxEntries(10);  // the first 5 entries and the last 5
    step(log, "an earlier call");
    {
        LogContextExitor call(obj, "Call");
        log.LogDataSb("remotePath", StringBuffer("/r"));
        log.enterContext("quiet", false);  // unimportant and empty: not in the tree
        log.leaveContext();
        log.LogDataInt64("size", 5000000000LL);
        step(log, "1");
        step(log, "2", "bad");
        log.LogData("scp_errors1", "x\ny\n");
        step(log, "3");
        step(log, "4");
        obj.logSuccessFailure(false);
    }
    const std::string head = "Call:\n    remotePath: /r\n", size = "    size: 5000000000\n",
                      one = "    step:\n        n: 1\n    --step\n",
                      tail =
                          "    scp_errors1: x\n        y\n    step:\n        n: 3\n    --step\n"
                          "    step:\n        n: 4\n    --step\n    Failed.\n--Call\n";
    EXPECT_EQ(lastErrorText(obj),
              head + size + one +
                  "    (2 log entries left out here: from the middle of a long call only errors "
                  "and the call's own data items are kept. A debug log file gets every entry.)\n"
                  "    step:\n        bad\n    --step\n" +
                  tail);
    EXPECT_EQ(readWholeFile(debugPath.getUtf8()),
              "step:\n    n: an earlier call\n--step\n" + head + "    quiet:\n    --quiet\n" +
                  size + one + "    step:\n        n: 2\n        bad\n    --step\n" + tail);
    EXPECT_EQ(summary(obj), "bad|Call/step|n=2;scp_errors1=x\ny\n;n=3;n=4;");
}

TEST(Log, AHugeCallRendersBoundedTextWithItsBeginningEndAndErrors) {
    PlainObject obj;
    obj.m_log.setMaxEntries(1000);
    {
        LogContextExitor call(obj, "SyncTreeDownload");
        obj.m_log.LogData("localDirRoot", "/first");
        for (int i = 0; i < 100000; ++i) {
            LogContextExitor file(obj.m_log, "file");
            step(obj.m_log, std::to_string(i), i == 50000 ? "error in the middle" : nullptr);
        }
        obj.m_log.LogData("lastTopLevelItem", "kept");
        obj.logSuccessFailure(true);
    }
    const std::string text = lastErrorText(obj);
    EXPECT_LT(text.size(), 1000u * 40);
    for (const char* kept : {"localDirRoot: /first", "n: 1\n", "error in the middle", "n: 99999",
                             "lastTopLevelItem: kept\n    Success.\n--SyncTreeDownload"})
        EXPECT_NE(text.find(kept), std::string::npos) << kept;
    EXPECT_EQ(text.find("n: 40000"), std::string::npos);
    EXPECT_EQ(occurrences(text, "log entries left out"), 1);
    EXPECT_EQ(occurrences(text, "file:"), occurrences(text, "--file"));
    EXPECT_EQ(occurrences(text, "step:"), occurrences(text, "--step"));
    std::string first = "error in the middle|SyncTreeDownload/file/step|";
    for (int i = 50000; i <= 50016; ++i) first += "n=" + std::to_string(i) + ";";  // 1 + 16
    EXPECT_EQ(summary(obj), first);
}

// A remote error text is a data item, not an error line: a call that fails
// with only that still has a first error, whose items hold it.
TEST(Log, FirstErrorIsTheFirstErrorLineOrTheFailedOutcomeOfEachCall) {
    const std::string remote = "errorResponse=scp: /r: No such file\n;";
    const std::pair<int, std::string> cases[] = {
        {0, "none"},  // a call that succeeds
        {1, "receiveFile returned failure.|DownloadFile/receiveFileInfo|pad=;" + remote +
                "after=;late=;"},  // before it, only what its own context logged
        {2, "|DownloadFile|pad=;pad=;pad=;pad=;pad=;" + remote + "after=;late=;"}};
    PlainObject obj;
    _vqLogger& log = obj.m_log;
    for (const auto& [failure, expected] : cases) {
        LogContextExitor call(obj, "DownloadFile");
        log.LogData("remotePath", "/r");
        {
            LogContextExitor unrelated(log, "setEnvironmentVars");
            log.LogData("envName", "A");
        }
        {
            LogContextExitor recv(log, "receiveFileInfo");
            for (int i = 0; i < 4 * failure - 3; ++i) log.LogData("pad", "");
            log.LogData("errorResponse", "scp: /r: No such file\n");
            if (failure == 1) log.LogError("receiveFile returned failure.");
            log.LogData("after", "");
        }
        log.LogData("late", "");
        obj.logSuccessFailure(failure == 0);
        EXPECT_EQ(summary(obj), expected);
    }
}

}  // namespace
}  // namespace scpkit::test
