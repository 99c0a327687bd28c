// The progress bar's arithmetic and text; the drawing on a terminal and the
// rate limit are tested against the program itself.
#include <gtest/gtest.h>

#include <climits>

#include "cli/ProgressMeter.h"

namespace scpkit::test {
namespace {

size_t columns(const std::string& s) {
    size_t n = 0;
    for (unsigned char c : s) n += (c & 0xC0) != 0x80;
    return n;
}

TEST(CliProgress, FieldsRoundAtTheirBoundariesKeepTheirPlaceAndFitTheTerminal) {
    std::string text;
    for (int64_t n : {0L, 1023L, 1024L, 1536L, 102348L, 1048063L, 1048064L, 3L << 30, -5L})
        text += cli::formatBytes(n) + ",";
    for (double s : {0.0, 59.6, 754.0, 3723.0, -1.0}) text += cli::formatDuration(s) + ",";
    EXPECT_EQ(
        text,
        "0B,1023B,1.0KiB,1.5KiB,99.9KiB,1023KiB,1.0MiB,3.0GiB,0B,0:00,1:00,12:34,1:02:03,0:00,");

    const std::string label = "photos/very-long-name-of-a-picture-\xc3\xa9t\xc3\xa9.jpg";
    const cli::ProgressSnapshot states[] = {{0, -1, -1, false, -1, -1},
                                            {0.5, 512 * 1024, 1 << 20, true, 1 << 20, 3},
                                            {0.999, 1023L << 30, 1L << 40, false, 99, 1e9}};
    for (int width = 3; width < 200; ++width) {
        size_t labelAt = std::string::npos;
        for (const cli::ProgressSnapshot& s : states) {
            std::string line = cli::renderProgressLine(s, label, width);
            EXPECT_LT(columns(line), static_cast<size_t>(std::max(width, 8))) << line;
            size_t at = line.find("jpg");
            if (labelAt == std::string::npos) labelAt = at;
            EXPECT_EQ(at, labelAt) << "the label moved at width " << width << ": " << line;
        }
        std::string done = cli::renderFinishedLine(label, 5557452, 2.5, width);
        EXPECT_LT(columns(done), static_cast<size_t>(std::max(width, 8))) << done;
    }
    EXPECT_EQ(cli::renderProgressLine(states[1], label, 100),
              " 50% [############-------------]  512KiB /  ~1.0MiB  1.0MiB/s     0:03 left  "
              "...f-a-picture-\xc3\xa9t\xc3\xa9.jpg");
}

// The library reports floor(done * scale / total); the bytes on disk at
// those moments must pin the total down at once, and a total shown without
// '~' must be right as shown (to the byte below 2 GiB).
TEST(CliProgress, BytesDoneNarrowTheTotalDownToTheByte) {
    const int64_t scale = INT_MAX;
    for (int64_t total : {1L, 1000L, 123457L, 5L << 30, (3L << 40) + 7}) {
        cli::ProgressMeter meter(scale);
        int64_t chunk = std::max<int64_t>(1, total / 64), exactFrom = -1;
        for (int64_t done = 0; done < total;) {
            done = std::min(total, done + chunk);
            meter.setUnits(static_cast<int64_t>(static_cast<__int128>(done) * scale / total), 1);
            meter.observeDone(done);
            cli::ProgressSnapshot s = meter.snapshot(2);
            if (!s.totalEstimated) {
                if (exactFrom < 0) exactFrom = done;
                EXPECT_EQ(cli::formatBytes(s.totalBytes), cli::formatBytes(total)) << done;
                EXPECT_TRUE(total > scale || s.totalBytes == total) << s.totalBytes << " " << done;
            }
            EXPECT_EQ(s.doneBytes, done);
        }
        EXPECT_GE(exactFrom, 0) << total;
        EXPECT_LE(exactFrom, 2 * chunk) << total;
    }
}

}  // namespace
}  // namespace scpkit::test
