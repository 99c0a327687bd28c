// Server text reaches the terminal as one harmless line.
#include <gtest/gtest.h>

#include <string>

#include "cli/SafeText.h"

namespace scpkit::test {
namespace {

TEST(CliSafeText, StripsWhatCouldDriveTheTerminal) {
    struct Case {
        std::string in;
        std::string out;
    };
    const Case cases[] = {
        {"scp: /x: No such file or directory\n", "scp: /x: No such file or directory"},
        {"plain  text  keeps  its blanks", "plain  text  keeps  its blanks"},
        {"\x1b[31mred\x1b[0m", "red"},         // colour
        {"a\x1b[2J\x1b[1;1Hb", "ab"},          // clear screen, move
        {"\x1b]0;owned\x07title", "title"},    // window title, BEL
        {"\x1b]0;owned\x1b\\title", "title"},  // window title, ST
        {"x\x1b"
         "7y",
         "xy"},                                          // two-byte escape
        {"bell\x07 back\bspace\x7f", "bell backspace"},  // C0 and DEL
        {std::string("nul\0byte", 8), "nulbyte"},
        {"line one\r\nline two\n\nthree", "line one line two three"},  // one line
        {"tab\there", "tab here"},
        {"over\rwrite", "over write"},  // no carriage return
        {"c1 \xc2\x9b"
         "31m csi",
         "c1 31m csi"},                          // 8-bit CSI (U+009B)
        {"\xe2\x80\xaetxt.exe", "txt.exe"},      // right-to-left override
        {"\xe2\x81\xa6iso\xe2\x81\xa9", "iso"},  // bidi isolate
        {"caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x98\x80",
         "caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x98\x80"},
        {"bad \xff\xfe bytes", "bad ?? bytes"},  // invalid UTF-8
        {"short \xe6\x97", "short ??"},          // truncated sequence
        {"overlong \xc0\xaf", "overlong ??"},
        {"surrogate \xed\xa0\x80", "surrogate ???"},
        {"   \n\t ", ""},
        {"\x1b[", ""},  // escape cut off at the end
        {"", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.in);
        std::string out = cli::stripControlChars(c.in);
        EXPECT_EQ(out, c.out);
        for (unsigned char ch : out) EXPECT_FALSE(ch < 0x20 || ch == 0x7f) << int(ch);
    }
}

}  // namespace
}  // namespace scpkit::test
