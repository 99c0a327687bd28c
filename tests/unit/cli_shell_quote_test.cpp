// Paths handed to the remote shell stay one word and keep their meaning.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "cli/RemoteDirectory.h"

namespace scpkit::test {
namespace {

// What /bin/sh makes of the quoted word: echo it back with printf.
std::string throughTheShell(const std::string& word) {
    std::string command = "printf '%s|' " + word;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return "<popen failed>";
    std::string out;
    char buf[256];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    pclose(p);
    return out;
}

TEST(CliShellQuote, TheShellSeesExactlyThePath) {
    struct Case {
        std::string path;
        std::string quoted;
    };
    const Case cases[] = {
        {"/srv/www", "'/srv/www'"},
        {"my dir/sub", "'my dir/sub'"},
        {"it's", "'it'\\''s'"},
        {"$(reboot);`id`|*", "'$(reboot);`id`|*'"},
        {"-rf", "'-rf'"},
        {"~/site", "~/'site'"},
        {"~", "~"},
        {"a~/b", "'a~/b'"},
    };
    std::string home = getenv("HOME") ? getenv("HOME") : "";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        std::string quoted = cli::shellQuotePath(c.path);
        EXPECT_EQ(quoted, c.quoted);
        std::string expected = c.path;
        if (expected.compare(0, 1, "~") == 0) expected = home + expected.substr(1);
        EXPECT_EQ(throughTheShell(quoted), expected + "|");
    }
}

}  // namespace
}  // namespace scpkit::test
