// Progress reports: percent arithmetic, polling, abort, named events.
#include <chrono>
#include <limits>
#include <thread>
#include <tuple>
#include <vector>

#include <scpkit/base/Progress.h>
#include "tests/support/ScpTestHelpers.h"

namespace scpkit::test {
namespace {

struct Recorder : ProgressEvent {
    void OnPercent(int percent, bool&) override { percents.push_back(percent); }
    void OnPoll(bool& abort) override { abort = ++polls > 0 && abortOnPoll; }
    void OnNamedEvent(const char* name, const char* value) override {
        events += name + ("=" + std::string(value));
    }
    std::vector<int> percents;
    int polls = 0;
    bool abortOnPoll = false;
    std::string events;
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

TEST(ProgressMonitor, PollsAfterTheIntervalAbortIsStickyAndLoggedOnce) {
    Recorder rec;
    rec.abortOnPoll = true;
    ProgressMonitor never(&rec, 0, 100, 10), hourly(&rec, 3600 * 1000, 100, 10);
    EXPECT_FALSE(never.abortCheck(nullptr) || hourly.abortCheck(nullptr));
    ProgressMonitor polled(&rec, 1, 100, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    _vqLogger log;
    LogContextExitor ctx(log, "Call");
    SocketParams sp(&polled);
    EXPECT_FALSE(SocketParams(nullptr).spAbortCheck(log));
    EXPECT_TRUE(sp.spAbortCheck(log));
    EXPECT_EQ(rec.polls, 1);
    rec.abortOnPoll = false;
    EXPECT_TRUE(sp.spAbortCheck(log));  // sticky, and logged once
    polled.progressReset(10, nullptr);
    EXPECT_TRUE(polled.consumeProgress(1, nullptr));
    EXPECT_EQ(renderedLog(log), "Call:\n    Operation aborted by the application.\n--Call\n");
    polled.progressInfo("scp-localdir-created", "/tmp/d");
    EXPECT_EQ(rec.events, "scp-localdir-created=/tmp/d");
}

}  // namespace
}  // namespace scpkit::test
