// Server text reaches the terminal as one harmless line.
#include <gtest/gtest.h>

#include "cli/SafeText.h"

namespace scpkit::test {
namespace {

TEST(CliSafeText, StripsWhatCouldDriveTheTerminal) {
    const std::pair<std::string, std::string> cases[] = {
        {"scp: /x: No such file or directory\n", "scp: /x: No such file or directory"},
        {"plain  text  keeps  its  blanks", "plain  text  keeps  its  blanks"},
        {"\x1b[31mred\x1b[0m \x1b[2J\x1b[1;1Hmoved", "red moved"},         // CSI sequences
        {"\x1b]0;owned\x07title \x1b]0;owned\x1b\\again", "title again"},  // OSC, BEL or ST
        {"x\0337y", "xy"},                               // two-byte escape (ESC 7)
        {"bell\x07 back\bspace\x7f", "bell backspace"},  // C0 and DEL
        {std::string("nul\0byte", 8), "nulbyte"},
        {"line one\r\nline two\n\nthree\tfour\rfive", "line one line two three four five"},
        {"c1 \302\23331m csi", "c1 31m csi"},                                // 8-bit CSI (U+009B)
        {"\xe2\x80\xaetxt.exe \xe2\x81\xa6iso\xe2\x81\xa9", "txt.exe iso"},  // bidi controls
        {"caf\xc3\xa9 \xe6\x97\xa5\xf0\x9f\x98\x80", "caf\xc3\xa9 \xe6\x97\xa5\xf0\x9f\x98\x80"},
        // invalid UTF-8: stray bytes, an overlong form, a surrogate, a truncated sequence
        {"bad \xff\xfe over \xc0\xaf sur \xed\xa0\x80 cut \xe6\x97",
         "bad ?? over ?? sur ??? cut ??"},
        {"   \n\t ", ""},
        {"cut \x1b[", "cut"},  // escape cut off at the end
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(cli::stripControlChars(in), out) << in;
}

}  // namespace
}  // namespace scpkit::test
