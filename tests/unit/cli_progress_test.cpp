// The progress bar's arithmetic and text; the drawing on a terminal is
// tested against the program itself.
#include <gtest/gtest.h>

#include "cli/ProgressMeter.h"

namespace scpkit::test {
namespace {

TEST(CliProgress, BytesAndDurationsRoundAtTheirBoundaries) {
    std::string text;
    for (int64_t n : {0L, 1023L, 1024L, 1536L, 1048575L, 5557452L, 3L << 30, 1L << 40, -5L})
        text += cli::formatBytes(n) + ",";
    EXPECT_EQ(text, "0 B,1023 B,1.0 KiB,1.5 KiB,1.0 MiB,5.3 MiB,3.0 GiB,1.0 TiB,0 B,");
    text.clear();
    for (double s : {0.0, 7.4, 59.6, 754.0, 3723.0, -1.0}) text += cli::formatDuration(s) + ",";
    EXPECT_EQ(text, "0:00,0:07,1:00,12:34,1:02:03,0:00,");
}

TEST(CliProgress, LineFitsTheTerminalAndCutsTheLabelFromTheLeft) {
    cli::ProgressSnapshot s{0.5, 512 * 1024, 1024 * 1024, false, 1024 * 1024, 3};
    std::string label = "photos/very-long-name-of-a-picture-\xc3\xa9t\xc3\xa9.jpg";
    EXPECT_EQ(cli::renderProgressLine(s, label, 200),
              " 50% [###############---------------]  512.0 KiB / 1.0 MiB  1.0 MiB/s  0:03 left  " +
                  label);
    EXPECT_EQ(cli::renderProgressLine(s, label, 80),
              " 50% [#####-----]  512.0 KiB / 1.0 MiB  1.0 MiB/s  0:03 left  "
              "...icture-\xc3\xa9t\xc3\xa9.jpg");
    for (int width = 3; width < 80; ++width) {  // every cut, also inside a character
        std::string line = cli::renderProgressLine(s, label, width);
        size_t columns = 0;
        for (unsigned char c : line) columns += (c & 0xC0) != 0x80;
        EXPECT_LT(columns, static_cast<size_t>(std::max(width, 8))) << line;
        EXPECT_EQ(line.rfind(" 50%", 0), 0u) << line;
        size_t dots = line.find("...");
        std::string tail = dots == std::string::npos ? "" : line.substr(dots + 3);
        EXPECT_EQ(label.substr(label.size() - tail.size()), tail) << line;
        EXPECT_NE(static_cast<unsigned char>(tail[0]) & 0xC0, 0x80) << line;
    }
}

}  // namespace
}  // namespace scpkit::test
