// What a call leaves for the application. The log tree: one tree per
// top-level call, the debug file, and a call longer than the entry budget
// keeping its beginning, its end, every error, its own data items and its
// outcome; the first error and the items around it, kept apart for the
// program's one-line message. Progress: percent arithmetic, polling, abort.
#include <chrono>
#include <limits>
#include <thread>
#include <tuple>
#include <vector>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/StringBuffer.h>
#include "tests/support/TestKit.h"

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
    EXPECT_EQ(readFile(debugPath.getUtf8()),
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
        for (int i = 0; i < 100000; ++i)
            step(obj.m_log, std::to_string(i), i == 50000 ? "error in the middle" : nullptr);
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
    EXPECT_EQ(occurrences(text, "step:"), occurrences(text, "--step"));
    std::string first = "error in the middle|SyncTreeDownload/step|";
    for (int i = 50000; i <= 50016; ++i) first += "n=" + std::to_string(i) + ";";  // 1 + 16
    EXPECT_EQ(summary(obj), first);
}

// A remote error text is a data item, not an error line: a call that fails
// with only that still has a first error, whose items hold it.
TEST(Log, AFailureWithoutAnErrorLineHasAFirstErrorAndEachCallStartsAfresh) {
    PlainObject obj;
    for (bool ok : {false, true}) {
        LogContextExitor call(obj, "DownloadFile");
        {
            LogContextExitor recv(obj, "receiveFileInfo");
            for (int i = 0; i < 8; ++i) obj.m_log.LogData("pad", "");
            obj.m_log.LogData("errorResponse", "scp: /r: No such file\n");
        }
        obj.logSuccessFailure(ok);
        EXPECT_EQ(summary(obj), ok ? "none"
                                   : "|DownloadFile|pad=;pad=;pad=;pad=;pad=;pad=;pad=;"
                                     "errorResponse=scp: /r: No such file\n;");  // the last 8
    }
}

struct Recorder : ProgressEvent {
    void OnPercent(int percent, bool&) override { percents.push_back(percent); }
    void OnPoll(bool& abort) override { abort = ++polls > 0 && abortOnPoll; }
    std::vector<int> percents;
    int polls = 0;
    bool abortOnPoll = false;
};

TEST(ProgressMonitor, PercentFiresOnEveryChangeOfTheScaledValue) {
    constexpr int64_t kHuge = std::numeric_limits<int64_t>::max();
    const int64_t kReset = -1000, kRemaining = -2000;  // steps that are not amounts
    const std::tuple<unsigned, int64_t, std::vector<int64_t>, std::vector<int>> cases[] = {
        {100, 3, {1, 1, 1}, {33, 66, 100}},
        {1000, 3, {1, 1, kRemaining}, {333, 666, 1000}},
        {0, 4, {1}, {25}},  // no scale: percent
        {100, kHuge, {kHuge / 2, kHuge / 4, kRemaining}, {49, 74, 100}},
        {100, 10, {-5, 5, 99}, {0, 50, 100}},                     // never past the total
        {100, 100, {50, kReset, 25, kRemaining}, {50, 50, 100}},  // reset: a new phase of 50
    };
    for (const auto& [scale, total, steps, expected] : cases) {
        Recorder rec;
        ProgressMonitorPtr ptr(&rec, 0, scale, total);
        ProgressMonitor& pm = *ptr.getPm();
        for (int64_t step : steps) {
            if (step == kReset) pm.progressReset(50, nullptr);
            if (step == kRemaining) pm.consumeRemaining(nullptr);
            EXPECT_FALSE(step > kReset && pm.consumeProgress(step, nullptr));
            EXPECT_LE(pm.done(), pm.total());
        }
        EXPECT_EQ(rec.percents, expected) << scale << " of " << total;
    }
    EXPECT_EQ(ProgressMonitorPtr(nullptr, 0, 100, 10).getPm(), nullptr);
}

// An interval of 0 never polls; an abort is sticky and logged once.
TEST(ProgressMonitor, PollsAfterTheIntervalAbortIsStickyAndLoggedOnce) {
    Recorder rec;
    rec.abortOnPoll = true;
    ProgressMonitor never(&rec, 0, 100, 10), polled(&rec, 1, 100, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    _vqLogger log;
    SocketParams sp(&polled);
    EXPECT_FALSE(never.abortCheck(nullptr) || SocketParams(nullptr).spAbortCheck(log));
    EXPECT_TRUE(sp.spAbortCheck(log) && rec.polls == 1);
    rec.abortOnPoll = false;
    polled.progressReset(10, nullptr);
    EXPECT_TRUE(sp.spAbortCheck(log) && polled.consumeProgress(1, nullptr));
    EXPECT_EQ(renderedLog(log), "Operation aborted by the application.\n");
}

}  // namespace
}  // namespace scpkit::test
