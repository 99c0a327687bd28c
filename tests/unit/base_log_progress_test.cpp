// What a call leaves for the application: the log tree (rendering, one tree
// per top-level call, the debug file, the outcome line) and progress reports
// (percent arithmetic, polling, abort, named events).
#include <chrono>
#include <limits>
#include <thread>
#include <tuple>
#include <vector>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/StringBuffer.h>
#include <scpkit/base/XString.h>
#include "tests/unit/BaseTestHelpers.h"

namespace scpkit::test {
namespace {

TEST(Logger, RendersTheLastTopLevelCallAndTheDebugFileKeepsEveryLine) {
    TempDir tmp;
    const std::string path = tmp.write("debug.log", "earlier\n");
    const std::string first =
        "First:\n    scp_errors1: scp: /a: No such file\n        scp: /b: denied\n";
    _vqLogger log;
    log.setDebugLogFilePath(path.c_str());
    log.leaveContext();  // nothing open: ignored
    log.enterContext("First", true);
    log.LogData("scp_errors1", "scp: /a: No such file\nscp: /b: denied\n");
    EXPECT_EQ(TempDir::read(path), "earlier\n" + first);  // written as it happens
    log.leaveContext();
    {
        LogContextExitor outer(log, "UploadFile");
        log.LogDataSb("remoteFilePath", StringBuffer("/tmp/x"));
        log.enterContext("quiet", false);  // unimportant and empty: dropped from the tree
        log.leaveContext();
        LogContextExitor inner(log, "sendFile");
        log.LogDataInt64("fileSize", 5000000000LL);
        log.LogDataLong("errReturnLoc", -30);
        log.LogDataBool("haveTimes", true);
        log.LogDataX("name", XString("f\xC3\xA9.txt"));
        log.LogInfo("Sending...");
    }
    log.setDebugLogFilePath("");
    log.LogError("not in the file");
    const std::string
        head = "UploadFile:\n    remoteFilePath: /tmp/x\n",
        tail =
            "    sendFile:\n        fileSize: 5000000000\n        errReturnLoc: -30\n"
            "        haveTimes: true\n        name: f\xC3\xA9.txt\n        Sending...\n"
            "    --sendFile\n--UploadFile\n";
    EXPECT_EQ(logText(log), head + tail + "not in the file\n");
    EXPECT_EQ(TempDir::read(path),
              "earlier\n" + first + "--First\n" + head + "    quiet:\n    --quiet\n" + tail);
}

TEST(ClsBase, LastErrorTextIsTheLastCallEndingWithItsOutcome) {
    struct PlainObject : ClsBase {
    } obj;
    for (const char* outcome : {"Failed.", "Success."}) {
        {
            LogContextExitor ctx(obj, "DownloadBd");
            obj.m_log.LogDataLong("errReturnLoc", 30);
            obj.logSuccessFailure(outcome[0] == 'S');
        }
        XString text;
        obj.get_LastErrorText(text);
        EXPECT_EQ(std::string(text.getUtf8()), "DownloadBd:\n    errReturnLoc: 30\n    " +
                                                   std::string(outcome) + "\n--DownloadBd\n");
    }
}

struct Recorder : ProgressEvent {
    void OnPercent(int percent, bool& abort) override {
        percents.push_back(percent);
        abort = abortAtPercent >= 0 && percent >= abortAtPercent;
    }
    void OnPoll(bool& abort) override { abort = ++polls > 0 && abortOnPoll; }
    void OnNamedEvent(const char* name, const char* value) override {
        events += name + ("=" + std::string(value));
    }
    std::vector<int> percents;
    int polls = 0, abortAtPercent = -1;
    bool abortOnPoll = false;
    std::string events;
};

TEST(ProgressMonitor, PercentFiresOnEveryChangeOfTheScaledValue) {
    constexpr int64_t kHuge = std::numeric_limits<int64_t>::max();
    const int64_t kReset = -1000, kRemaining = -2000;  // steps that are not amounts
    const std::tuple<unsigned, int64_t, std::vector<int64_t>, std::vector<int>> cases[] = {
        {100, 3, {1, 1, 1}, {33, 66, 100}},
        {100, 1000, {1, 1, 1}, {0}},
        {1000, 3, {1, 1, kRemaining}, {333, 666, 1000}},
        {0, 4, {1}, {25}},  // no scale: percent
        {100, kHuge, {kHuge / 2, kHuge / 4, kRemaining}, {49, 74, 100}},
        {1000, 1LL << 62, {kHuge, kHuge}, {1000}},
        {100, 0, {kRemaining}, {100}},
        {100, 10, {-5, 5}, {0, 50}},
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
}

TEST(ProgressMonitor, PollsOnlyAfterTheIntervalAndAbortIsSticky) {
    Recorder rec;
    ProgressMonitor never(&rec, 0, 100, 10), hourly(&rec, 3600 * 1000, 100, 10);
    for (int i = 0; i < 5; ++i)
        EXPECT_FALSE(never.abortCheck(nullptr) || hourly.abortCheck(nullptr));
    EXPECT_EQ(rec.polls, 0);
    rec.abortOnPoll = true;
    ProgressMonitor polled(&rec, 1, 100, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(polled.abortCheck(nullptr));
    EXPECT_EQ(rec.polls, 1);
    rec.abortOnPoll = false;
    polled.progressReset(10, nullptr);
    EXPECT_TRUE(polled.consumeProgress(1, nullptr) && polled.abortCheck(nullptr));
}

TEST(SocketParams, AbortIsLoggedOnceAndNamedEventsReachTheApplication) {
    _vqLogger log;
    Recorder rec;
    rec.abortAtPercent = 10;
    ProgressMonitor pm(&rec, 0, 100, 10);
    SocketParams sp(&pm);
    LogContextExitor ctx(log, "Call");
    EXPECT_FALSE(sp.spAbortCheck(log) || SocketParams(nullptr).spAbortCheck(log));
    EXPECT_TRUE(pm.consumeProgress(1, nullptr));  // 10 %: the application says stop
    EXPECT_TRUE(sp.spAbortCheck(log) && sp.spAbortCheck(log));
    EXPECT_EQ(logText(log), "Call:\n    Operation aborted by the application.\n--Call\n");
    pm.progressInfo("scp-localdir-created", "/tmp/d");
    EXPECT_EQ(rec.events, "scp-localdir-created=/tmp/d");
}

}  // namespace
}  // namespace scpkit::test
