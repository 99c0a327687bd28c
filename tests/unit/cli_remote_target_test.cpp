// The [user@]host:path argument of the scpkit program.
#include <gtest/gtest.h>

#include "cli/RemoteTarget.h"

namespace scpkit::test {
namespace {

using cli::RemoteTarget;

struct TargetCase {
    const char* text;
    bool ok;
    const char* user;
    const char* host;
    const char* path;
};

TEST(CliRemoteTarget, ParsesWhatSshUsersWrite) {
    const TargetCase cases[] = {
        {"host:file", true, "", "host", "file"},
        {"host:", true, "", "host", ""},
        {"alice@host:/srv/x", true, "alice", "host", "/srv/x"},
        {"host:/a:b", true, "", "host", "/a:b"},  // later colons belong to the path
        {"host:a@b", true, "", "host", "a@b"},
        {"first.last@example.com@host:p", true, "first.last@example.com", "host", "p"},
        {"[::1]:/tmp/x", true, "", "::1", "/tmp/x"},
        {"bob@[fe80::1%eth0]:dir/", true, "bob", "fe80::1%eth0", "dir/"},
        {"[2001:db8::5]:", true, "", "2001:db8::5", ""},
        {"127.0.0.1:x y", true, "", "127.0.0.1", "x y"},
        // local paths and malformed arguments
        {"file.txt", false, "", "", ""},
        {"./a:b", false, "", "", ""},
        {"/abs/a:b", false, "", "", ""},
        {"dir/host:x", false, "", "", ""},
        {":path", false, "", "", ""},
        {"@host:path", false, "", "", ""},
        {"alice@:path", false, "", "", ""},
        {"[::1]/x:y", false, "", "", ""},
        {"[::1:path", false, "", "", ""},
        {"[]:path", false, "", "", ""},
        {"ho st:path", false, "", "", ""},
        {"host\x1b[2J:path", false, "", "", ""},
        {"a]b:path", false, "", "", ""},
    };
    for (const TargetCase& c : cases) {
        SCOPED_TRACE(c.text);
        RemoteTarget target;
        std::string error;
        ASSERT_EQ(cli::parseRemoteTarget(c.text, target, error), c.ok) << error;
        if (!c.ok) {
            EXPECT_FALSE(error.empty());
            continue;
        }
        EXPECT_EQ(target.user, c.user);
        EXPECT_EQ(target.host, c.host);
        EXPECT_EQ(target.path, c.path);
    }
}

TEST(CliRemoteTarget, FormatsBackToAnArgumentThatParsesTheSame) {
    const char* texts[] = {"host:f", "u@host:/a b", "[::1]:x", "u@[2001:db8::1]:", "h:a:b"};
    for (const char* text : texts) {
        RemoteTarget target, again;
        std::string error;
        ASSERT_TRUE(cli::parseRemoteTarget(text, target, error)) << text;
        std::string formatted = cli::formatRemoteTarget(target);
        EXPECT_EQ(formatted, text);
        ASSERT_TRUE(cli::parseRemoteTarget(formatted, again, error));
        EXPECT_EQ(again.host, target.host);
    }
}

}  // namespace
}  // namespace scpkit::test
