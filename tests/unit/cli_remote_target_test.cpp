// The [user@]host:path argument of the scpkit program.
#include <gtest/gtest.h>

#include "cli/RemoteTarget.h"

namespace scpkit::test {
namespace {

std::string parsed(const std::string& text) {
    cli::RemoteTarget t;
    std::string error;
    bool ok = cli::parseRemoteTarget(text, t, error);
    if (ok != error.empty()) return "error text given with the wrong result: " + error;
    return ok ? t.user + "|" + t.host + "|" + t.path : "rejected";
}

TEST(CliRemoteTarget, ParsesWhatSshUsersWrite) {
    const std::pair<const char*, const char*> cases[] = {
        {"host:file", "|host|file"},
        {"host:", "|host|"},
        {"alice@host:/srv/x", "alice|host|/srv/x"},
        {"host:/a:b", "|host|/a:b"},  // later colons belong to the path
        {"host:a@b", "|host|a@b"},
        {"first.last@example.com@host:p", "first.last@example.com|host|p"},
        {"[::1]:/tmp/x", "|::1|/tmp/x"},
        {"bob@[fe80::1%eth0]:dir/", "bob|fe80::1%eth0|dir/"},
        {"127.0.0.1:x y", "|127.0.0.1|x y"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(parsed(text), expected) << text;
}

TEST(CliRemoteTarget, RejectsLocalPathsAndMalformedHosts) {
    // A '/' before the first colon makes a local path, as with scp.
    for (const char* text :
         {"file.txt", "./a:b", "dir/host:x", ":path", "@host:path", "alice@:path", "[::1]/x:y",
          "[::1:path", "[]:path", "ho st:path", "host\x1b[2J:path", "a]b:path"}) {
        EXPECT_EQ(parsed(text), "rejected") << text;
    }
}

}  // namespace
}  // namespace scpkit::test
