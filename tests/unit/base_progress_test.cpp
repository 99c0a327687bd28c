// Progress accounting, named events, polling and abort.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/Logger.h"
#include "base/Progress.h"

namespace scpkit::test {
namespace {

class Recorder : public ProgressEvent {
  public:
    void OnPercent(int percent, bool& abort) override {
        percents.push_back(percent);
        if (abortAtPercent >= 0 && percent >= abortAtPercent) abort = true;
    }
    void OnPoll(bool& abort) override {
        ++polls;
        if (abortOnPoll) abort = true;
    }
    void OnNamedEvent(const char* name, const char* value) override {
        events.emplace_back(name, value);
    }
    std::vector<int> percents;
    int polls = 0;
    int abortAtPercent = -1;
    bool abortOnPoll = false;
    std::vector<std::pair<std::string, std::string>> events;
};

TEST(ProgressMonitorPtr, CreatesAMonitorOnlyWithACallback) {
    ProgressMonitorPtr none(nullptr, 0, 100, 10);
    EXPECT_EQ(none.getPm(), nullptr);
    Recorder rec;
    ProgressMonitorPtr some(&rec, 0, 100, 10);
    ASSERT_NE(some.getPm(), nullptr);
    EXPECT_EQ(some.getPm()->total(), 10);
}

struct PercentCase {
    const char* name;
    unsigned scale;
    int64_t total;
    std::vector<int64_t> amounts;
    bool thenRemaining;
    std::vector<int> expected;
};

TEST(ProgressMonitor, PercentFiresOnEveryChange) {
    constexpr int64_t kHuge = std::numeric_limits<int64_t>::max();
    const PercentCase cases[] = {
        {"quarters", 100, 400, {100, 100, 100, 100}, false, {25, 50, 75, 100}},
        {"floor, repeats suppressed", 100, 3, {1, 1, 1}, false, {33, 66, 100}},
        {"no change, no event", 100, 1000, {1, 1, 1}, false, {0}},
        {"per mille", 1000, 3, {1, 1}, true, {333, 666, 1000}},
        {"never past the total", 100, 10, {7, 7, 7}, false, {70, 100}},
        {"remaining completes", 100, 10, {5}, true, {50, 100}},
        {"huge total, no overflow", 100, kHuge, {kHuge / 2, kHuge / 4}, true, {49, 74, 100}},
        {"huge amount clamps", 1000, 1LL << 62, {kHuge, kHuge}, false, {1000}},
        {"zero total is complete", 100, 0, {}, true, {100}},
        {"negative amount ignored", 100, 10, {-5, 5}, false, {0, 50}},
    };
    for (const auto& c : cases) {
        Recorder rec;
        ProgressMonitor pm(&rec, 0, c.scale, c.total);
        for (int64_t a : c.amounts) EXPECT_FALSE(pm.consumeProgress(a, nullptr));
        if (c.thenRemaining) pm.consumeRemaining(nullptr);
        EXPECT_EQ(rec.percents, c.expected) << c.name;
        EXPECT_LE(pm.done(), pm.total()) << c.name;
    }
}

TEST(ProgressMonitor, ResetStartsANewPhaseWithoutAnEvent) {
    Recorder rec;
    ProgressMonitor pm(&rec, 0, 100, 100);
    pm.consumeProgress(100, nullptr);
    pm.progressReset(50, nullptr);
    EXPECT_EQ(pm.total(), 50);
    EXPECT_EQ(pm.done(), 0);
    EXPECT_EQ(rec.percents, std::vector<int>{100});
    pm.consumeProgress(25, nullptr);
    pm.consumeRemaining(nullptr);
    EXPECT_EQ(rec.percents, (std::vector<int>{100, 50, 100}));
}

TEST(ProgressMonitor, AbortFromAnyCallbackIsSticky) {
    Recorder rec;
    rec.abortAtPercent = 50;
    ProgressMonitor pm(&rec, 0, 100, 4);
    EXPECT_FALSE(pm.consumeProgress(1, nullptr));
    EXPECT_TRUE(pm.consumeProgress(1, nullptr));
    rec.abortAtPercent = -1;
    EXPECT_TRUE(pm.consumeProgress(0, nullptr));
    EXPECT_TRUE(pm.abortCheck(nullptr));
    pm.progressReset(10, nullptr);
    EXPECT_TRUE(pm.abortRequested());

    Recorder poller;
    poller.abortOnPoll = true;
    ProgressMonitor polled(&poller, 1, 100, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(polled.abortCheck(nullptr));
    EXPECT_TRUE(polled.consumeProgress(1, nullptr));
}

TEST(ProgressMonitor, PollsOnlyWhenTheIntervalHasPassed) {
    Recorder never;
    ProgressMonitor noPoll(&never, 0, 100, 10);
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(noPoll.abortCheck(nullptr));
    EXPECT_EQ(never.polls, 0);

    Recorder rec;
    // An hour: the interval cannot pass during the test.
    ProgressMonitor slow(&rec, 3600 * 1000, 100, 10);
    for (int i = 0; i < 5; ++i) slow.abortCheck(nullptr);
    EXPECT_EQ(rec.polls, 0);

    ProgressMonitor fast(&rec, 1, 100, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    fast.abortCheck(nullptr);
    EXPECT_EQ(rec.polls, 1);
}

TEST(ProgressMonitor, NamedEventsReachTheApplication) {
    Recorder rec;
    ProgressMonitor pm(&rec, 0, 100, 0);
    pm.progressInfo("scp-localdir-created", "/tmp/d");
    pm.progressInfo("scp-localfile-uploaded", "a/b.txt");
    ASSERT_EQ(rec.events.size(), 2u);
    EXPECT_EQ(rec.events[0],
              std::make_pair(std::string("scp-localdir-created"), std::string("/tmp/d")));
    EXPECT_EQ(rec.events[1].second, "a/b.txt");
}

TEST(SocketParams, AbortCheckLogsOnceAndNeedsAMonitor) {
    _vqLogger log;
    SocketParams noMonitor(nullptr);
    EXPECT_FALSE(noMonitor.spAbortCheck(log));
    EXPECT_FALSE(noMonitor.m_receivedEof);
    EXPECT_FALSE(noMonitor.m_receivedClose);

    Recorder rec;
    rec.abortAtPercent = 0;
    ProgressMonitor pm(&rec, 0, 100, 10);
    SocketParams sp(&pm);
    log.enterContext("Call", true);
    EXPECT_FALSE(sp.spAbortCheck(log));
    pm.consumeProgress(1, nullptr);
    EXPECT_TRUE(sp.spAbortCheck(log));
    EXPECT_TRUE(sp.spAbortCheck(log));
    log.leaveContext();
    std::string text;
    log.renderText(text);
    EXPECT_EQ(text, "Call:\n    Operation aborted by the application.\n--Call\n");
}

}  // namespace
}  // namespace scpkit::test
