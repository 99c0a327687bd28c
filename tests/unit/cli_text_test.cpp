// What the program prints of the server's text: one harmless line, and
// for a failed call the line built from its first error and the data items
// around it (the program's tests show it on real failures).
#include <gtest/gtest.h>

#include <scpkit/base/Logger.h>
#include "cli/ErrorLine.h"
#include "cli/SafeText.h"

namespace scpkit::test {
namespace {

TEST(CliSafeText, StripsWhatCouldDriveTheTerminal) {
    const std::pair<std::string, std::string> cases[] = {
        {"\x1b[31mred\x1b[0m \x1b[2J\x1b[1;1Hmoved", "red moved"},         // CSI sequences
        {"\x1b]0;owned\x07title \x1b]0;owned\x1b\\again", "title again"},  // OSC, BEL or ST
        {"bell\x07 back\bspace\x7f", "bell backspace"},                    // C0 and DEL
        {"line one\r\nline two\n\nthree\tfour\rfive", "line one line two three four five"},
        {"c1 \302\23331m csi", "c1 31m csi"},                                // 8-bit CSI (U+009B)
        {"\xe2\x80\xaetxt.exe \xe2\x81\xa6iso\xe2\x81\xa9", "txt.exe iso"},  // bidi controls
        {"caf\xc3\xa9 \xe6\x97\xa5\xf0\x9f\x98\x80", "caf\xc3\xa9 \xe6\x97\xa5\xf0\x9f\x98\x80"},
        // invalid UTF-8: stray bytes, an overlong form, a surrogate, a truncated sequence
        {"bad \xff\xfe over \xc0\xaf sur \xed\xa0\x80 cut \xe6\x97",
         "bad ?? over ?? sur ??? cut ??"},
        {"cut \x1b[", "cut"},  // escape cut off at the end
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(cli::stripControlChars(in), out) << in;
}

TEST(CliErrorLine, TheRemoteWordsFirstThenTheErrorWithItsReason) {
    const struct {
        LogFirstError error;
        const char* line;
    } cases[] = {
        {{"Failed.", "X", {{"errorResponse", "scp: /x: No such file or directory\n"}}},
         "scp: /x: No such file or directory"},
        {{"", "X", {{"scpError", " \n"}, {"scp_errors1", "scp: a: denied\nscp: b: denied\n"}}},
         "scp: a: denied scp: b: denied"},  // blank texts do not count
        {{"Failed to connect.", "Connect", {{"port", "1"}, {"sshError", "Connection refused"}}},
         "Failed to connect (Connection refused)"},
        {{"No channel CLOSE received.", "X", {{"errorResponse", "\x1b[2J\x1b]0;t\x07scp: bad"}}},
         "scp: bad"},  // the server's text cannot drive the terminal
        {{"", "X", {{"osError", "Disk full"}}}, "Disk full"},
        {{"", "X", {}}, ""},
    };
    for (const auto& c : cases) EXPECT_EQ(cli::describeFailure(c.error), c.line) << c.line;
}

}  // namespace
}  // namespace scpkit::test
