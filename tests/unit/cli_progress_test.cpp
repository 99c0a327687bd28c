// The progress bar: its arithmetic, its text, and what it writes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <chrono>
#include <string>

#include "cli/ProgressBar.h"
#include "cli/ProgressMeter.h"

namespace scpkit::test {
namespace {

using cli::ProgressMeter;
using cli::ProgressSnapshot;

TEST(CliProgressMeter, ExactTotalGivesBytesRateAndTimeLeft) {
    ProgressMeter m(10000);
    m.setExactTotal(1000000);
    m.setUnits(1000, 10.0);  // 10 % when the first data moved
    m.setUnits(3000, 12.0);  // 30 % two seconds later
    ProgressSnapshot s = m.snapshot(12.0);
    EXPECT_DOUBLE_EQ(s.fraction, 0.3);
    EXPECT_EQ(s.doneBytes, 300000);
    EXPECT_EQ(s.totalBytes, 1000000);
    EXPECT_FALSE(s.totalEstimated);
    EXPECT_DOUBLE_EQ(s.bytesPerSecond, 100000);  // 20 % of 1 MB in 2 s
    EXPECT_DOUBLE_EQ(s.secondsLeft, 7.0);        // 70 % left at 10 % a second
}

TEST(CliProgressMeter, EstimatesTheTotalFromBytesKnownDone) {
    ProgressMeter m(10000);
    m.setUnits(5, 1.0);  // 0.05 %: too coarse to scale by
    m.observeDone(2000);
    ProgressSnapshot early = m.snapshot(1.0);
    EXPECT_EQ(early.totalBytes, -1);
    EXPECT_EQ(early.doneBytes, 2000);
    m.setUnits(7, 1.5);
    EXPECT_EQ(m.snapshot(1.5).doneBytes, -1) << "bytes seen at an earlier fraction are stale";

    m.setUnits(2500, 2.0);  // a quarter done
    m.observeDone(250000);
    ProgressSnapshot s = m.snapshot(2.0);
    EXPECT_EQ(s.totalBytes, 1000000);
    EXPECT_TRUE(s.totalEstimated);
    EXPECT_EQ(s.doneBytes, 250000);

    // Bytes observed against an exact total never change it.
    ProgressMeter exact(100);
    exact.setExactTotal(500);
    exact.setUnits(50, 0);
    exact.observeDone(10);
    EXPECT_EQ(exact.snapshot(0).totalBytes, 500);
}

TEST(CliProgressMeter, NothingIsGuessedBeforeTimeHasPassed) {
    ProgressMeter m(100);
    ProgressSnapshot none = m.snapshot(5.0);
    EXPECT_EQ(none.doneBytes, -1);
    EXPECT_EQ(none.totalBytes, -1);
    EXPECT_LT(none.bytesPerSecond, 0);
    EXPECT_LT(none.secondsLeft, 0);
    m.setUnits(40, 5.0);
    EXPECT_LT(m.snapshot(5.1).secondsLeft, 0);  // same instant as the first report
    m.setUnits(150, 6.0);                       // beyond the scale: clamped
    EXPECT_DOUBLE_EQ(m.snapshot(6.0).fraction, 1.0);
    EXPECT_DOUBLE_EQ(m.snapshot(6.0).secondsLeft, 0.0);
}

TEST(CliProgressFormat, BytesAndDurations) {
    struct B {
        int64_t n;
        const char* text;
    };
    for (const B& b :
         {B{0, "0 B"}, B{1023, "1023 B"}, B{1024, "1.0 KiB"}, B{1536, "1.5 KiB"},
          B{1048575, "1.0 MiB"}, B{5 * 1048576 + 314573, "5.3 MiB"}, B{int64_t(3) << 30, "3.0 GiB"},
          B{int64_t(1) << 40, "1.0 TiB"}, B{-5, "0 B"}}) {
        EXPECT_EQ(cli::formatBytes(b.n), b.text) << b.n;
    }
    struct D {
        double s;
        const char* text;
    };
    for (const D& d : {D{0, "0:00"}, D{7.4, "0:07"}, D{59.6, "1:00"}, D{754, "12:34"},
                       D{3723, "1:02:03"}, D{-1, "0:00"}}) {
        EXPECT_EQ(cli::formatDuration(d.s), d.text) << d.s;
    }
}

size_t columns(const std::string& s) {
    size_t n = 0;
    for (unsigned char c : s) n += (c & 0xC0) != 0x80;
    return n;
}

TEST(CliProgressFormat, LineFitsTheTerminalAndDropsWhatMattersLeast) {
    ProgressSnapshot s;
    s.fraction = 0.5;
    s.doneBytes = 512 * 1024;
    s.totalBytes = 1024 * 1024;
    s.bytesPerSecond = 1024 * 1024;
    s.secondsLeft = 3;
    std::string label = "photos/2023/\xc3\xa9t\xc3\xa9/very-long-name-of-a-picture.jpg";

    std::string wide = cli::renderProgressLine(s, label, 200);
    EXPECT_EQ(wide.rfind(" 50% [", 0), 0u) << wide;
    EXPECT_NE(wide.find("512.0 KiB / 1.0 MiB"), std::string::npos) << wide;
    EXPECT_NE(wide.find("1.0 MiB/s"), std::string::npos);
    EXPECT_NE(wide.find("0:03 left"), std::string::npos);
    EXPECT_NE(wide.find(label), std::string::npos);
    size_t open = wide.find('['), close = wide.find(']');
    std::string bar = wide.substr(open + 1, close - open - 1);
    EXPECT_EQ(bar.find_first_not_of('#'), bar.size() / 2) << bar;  // half filled

    for (int width : {120, 80, 60, 40, 20, 8, 3}) {
        SCOPED_TRACE(width);
        std::string line = cli::renderProgressLine(s, label, width);
        EXPECT_LT(columns(line), static_cast<size_t>(std::max(width, 8))) << line;
        EXPECT_EQ(line.rfind(" 50%", 0), 0u) << line;
        // A cut label keeps its end (the file name) and whole characters.
        size_t dots = line.find("...");
        if (dots != std::string::npos) {
            std::string tail = line.substr(dots + 3);
            EXPECT_EQ(label.compare(label.size() - tail.size(), tail.size(), tail), 0) << line;
            EXPECT_NE(static_cast<unsigned char>(tail[0]) & 0xC0, 0x80);
        }
    }
    std::string eighty = cli::renderProgressLine(s, label, 80);
    EXPECT_NE(eighty.find(" 50% [#####-----]  512.0 KiB"), std::string::npos) << eighty;
    EXPECT_EQ(eighty.substr(eighty.size() - 11), "picture.jpg") << eighty;

    ProgressSnapshot unknown;
    unknown.fraction = 0.999;
    EXPECT_EQ(cli::renderProgressLine(unknown, "", 80).rfind(" 99% [", 0), 0u);
    unknown.totalBytes = 10;
    unknown.doneBytes = 10;
    unknown.totalEstimated = true;
    EXPECT_NE(cli::renderProgressLine(unknown, "", 80).find("10 B / ~10 B"), std::string::npos);
}

class PipeReader {
  public:
    PipeReader() {
        EXPECT_EQ(pipe(m_fds), 0);
        fcntl(m_fds[0], F_SETFL, O_NONBLOCK);
    }
    ~PipeReader() {
        close(m_fds[0]);
        close(m_fds[1]);
    }
    int writeFd() const { return m_fds[1]; }
    std::string drain() {
        std::string out;
        char buf[4096];
        for (ssize_t n; (n = read(m_fds[0], buf, sizeof buf)) > 0;) out.append(buf, n);
        return out;
    }

  private:
    int m_fds[2];
};

TEST(CliProgressBar, DrawsInPlaceThrottledAndClearsAtTheEnd) {
    PipeReader pipe;
    auto start = std::chrono::steady_clock::now();
    {
        cli::ProgressBar bar(true, pipe.writeFd());
        bar.setExactTotal(1 << 20);
        bar.setLabel("big.iso");
        bool abort = false;
        for (int units = 0; units <= 10000; ++units) bar.OnPercent(units, abort);
        EXPECT_FALSE(abort);
        EXPECT_TRUE(bar.drewSomething());
        bar.finish();
        EXPECT_FALSE(bar.drewSomething());
    }
    double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::string out = pipe.drain();
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.rfind("\r  0% [", 0), 0u) << out.substr(0, 40);
    EXPECT_NE(out.find("big.iso"), std::string::npos);
    EXPECT_EQ(out.find('\n'), std::string::npos) << "redrawn in place, never scrolled";
    // Ends with the clearing sequence, written once.
    ASSERT_GE(out.size(), 4u);
    EXPECT_EQ(out.substr(out.size() - 4), "\r\x1b[K");
    size_t draws = 0;
    for (size_t p = 0; (p = out.find('\r', p)) != std::string::npos; ++p) ++draws;
    EXPECT_LE(draws - 1, static_cast<size_t>(elapsed / 0.2) + 1) << "at most five a second";
}

TEST(CliProgressBar, WithoutDrawingWritesNothing) {
    PipeReader pipe;
    {
        cli::ProgressBar bar(false, pipe.writeFd());
        bool abort = false;
        bar.OnPercent(5000, abort);
        bar.OnPoll(abort);
        bar.OnNamedEvent("scp-begin-download", "a/b");
        bar.finish();
    }
    EXPECT_EQ(pipe.drain(), "");
}

TEST(CliProgressBar, TreeEventsNameTheFileAndSizeTheTotal) {
    char dirTemplate[] = "/tmp/scpkit-bar-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    std::string root = dirTemplate;
    std::string file = root + "/first.bin";
    {
        int fd = open(file.c_str(), O_WRONLY | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, 300000), 0);
        close(fd);
    }
    PipeReader pipe;
    {
        cli::ProgressBar bar(true, pipe.writeFd());
        bar.setLocalRoot(root + "/");
        bool abort = false;
        bar.OnNamedEvent("scp-localdir-created", root.c_str());
        bar.OnNamedEvent("scp-begin-download", "first.bin");
        EXPECT_EQ(bar.unfinishedDownload(), root + "/first.bin");
        bar.OnPercent(3000, abort);  // 30 %: the file and one directory's 100 units
        bar.OnNamedEvent("scp-localfile-created", file.c_str());
        EXPECT_EQ(bar.unfinishedDownload(), "");
        EXPECT_EQ(bar.current().totalBytes, (300000 + 100) * 10 / 3);
        // Redraws wait a fifth of a second after the last one.
        usleep(250 * 1000);
        bar.OnPoll(abort);
        std::string out = pipe.drain();
        EXPECT_NE(out.find("first.bin"), std::string::npos) << out;
        EXPECT_EQ(out.find(root + "/first.bin"), std::string::npos) << "shown relative";
    }
    unlink(file.c_str());
    rmdir(root.c_str());
}

}  // namespace
}  // namespace scpkit::test
