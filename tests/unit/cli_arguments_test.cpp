// The program's command line: what each form ([user@]host:path as ssh
// users write it, several files, wildcards, numbers with their units) turns
// into, and what is refused before anything connects.
#include <gtest/gtest.h>

#include <sstream>

#include "cli/CommandLine.h"

namespace scpkit::test {
namespace {

cli::ParseResult parse(const std::string& line, cli::Options& o) {
    std::vector<std::string> args;
    std::istringstream in(line);
    for (std::string w; in >> w;) args.push_back(w);
    return cli::parseCommandLine(args, o);
}

// The parts of the options the rows check, or the first line of the error.
std::string summary(const std::string& line) {
    cli::Options o;
    cli::ParseResult r = parse(line, o);
    if (r.kind == cli::ParseResult::Exit) return "error: " + r.err.substr(0, r.err.find('\n'));
    std::string s;
    for (const std::string& l : o.local) s += l + " ";
    s += o.isUpload() ? "->" : "<-";
    for (const cli::RemoteTarget& t : o.remote) s += " " + t.user + "|" + t.host + "|" + t.path;
    const cli::ConnectionOptions& c = o.connection;
    for (auto [name, value] : {std::pair<const char*, int64_t>{"port", c.port},
                               {"connect", c.connectTimeoutMs},
                               {"stall", c.stallTimeoutMs},
                               {"mode", o.tree.syncMode},
                               {"limit", o.transfer.limitBytesPerSecond}}) {
        bool unset = (value == 0 && std::string(name) != "stall") || value == -1;
        if (!unset) s += " " + std::string(name) + "=" + std::to_string(value);
    }
    return s + (o.tree.dryRun ? " dry" : "");
}

TEST(CliArguments, EachFormTurnsIntoPathsAndSettings) {
    const std::pair<const char*, const char*> cases[] = {
        {"put a.txt h:", "a.txt -> |h|"},
        {"put a b c u@h:dir", "a b c -> u|h|dir/"},  // several files: the target is a directory
        {"put - h:x -P 2222", "- -> |h|x port=2222"},
        {"get h:a h:/b:c d", "d <- |h|a |h|/b:c"},  // later colons belong to the path
        {"get bob@[fe80::1%eth0]:dir/*.txt d", "d <- bob|fe80::1%eth0|dir/*.txt"},
        {"get h:a[1 h:x@y d", "d <- |h|a[1 |h|x@y"},  // an unclosed '[' is no wildcard
        {"--connect-timeout 5 --stall-timeout 0 push d h:r", "d -> |h|r connect=5000 stall=0"},
        {"--connect-timeout 0.25 --stall-timeout 90s pull h: d",
         "d <- |h| connect=250 stall=90000"},
        {"--connect-timeout 1500ms put f h:x --connect-timeout 2", "f -> |h|x connect=2000"},
        {"-l 800 -n pull --mode size h:r d", "d <- |h|r mode=5 limit=100000 dry"},
        {"push --mode size d h:r", "d -> |h|r mode=4"},  // the two directions number modes apart
        // The first -o of a name counts, and the program's own option wins over it.
        {"-o Port=2222 -o port=1 -o ConnectTimeout=3 put f h:x",
         "f -> |h|x port=2222 connect=3000"},
        {"-P 22 -o Port=2222 put f h:x", "f -> |h|x port=22"},
    };
    for (const auto& [line, expected] : cases) EXPECT_EQ(summary(line), expected) << line;
}

TEST(CliArguments, MistakesAreRefusedWithTheirReason) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "A subcommand is required"},
        {"put f", "needs a source and a target"},
        {"pull h:x", "takes two paths"},
        {"put a h:x extra", "'h:x' names a remote path where a local one goes"},
        {"get ./a:b f", "expected [user@]host:path"},  // a '/' first: a local path
        {"get first.last@example.com@:p f", "expected [user@]host:path"},
        {"get []:p f", "bad bracketed host"},
        {"get ho\x07st:p f", "bad host name in 'host:p'"},  // shown without the bell
        {"get [::1]:x bob@[::1]:y d", "must be on one server"},
        {"get h:a h:b -", "get - moves one file"},
        {"put - h:dir/", "put - needs a remote file name"},
        {"get h: f", "get needs the path of a remote file"},
        {"get h:d*/x f", "wildcards may only appear in the last part"},
        {"get h:*.txt -", "may match several"},
        {"push - h:x", "push needs a local directory, not -"},
        {"--connect-timeout -1 put f h:x", "--connect-timeout wants seconds"},
        {"--connect-timeout 0 put f h:x", "from 0.001 to 86400 seconds, got '0'"},
        {"--stall-timeout 86401 put f h:x", "--stall-timeout wants"},
        {"-P 65536 put f h:x", "--port wants a whole number from 1 to 65535, got '65536'"},
        {"-l 0 put f h:x", "--limit wants a whole number from 1"},
        {"--host-key-check maybe put f h:x", "yes, accept-new or no"},
        {"--chmod 9 put f h:x", "octal permissions"},
        {"push --mode 6 d h:x", "unknown --mode '6' for push"},
        {"put -n f h:x", "apply to push and pull"},
        {"get -j 4 h:x f", "apply to push and pull"},
        {"push -j 17 d h:x", "--jobs wants a whole number from 1 to 16, got '17'"},
        {"--passphrase-env V put f h:x", "--passphrase-env goes with --identity"},
        {"-i k --password-env P put f h:x", "give one"},
    };
    for (const auto& [line, reason] : cases) {
        std::string s = summary(line);
        EXPECT_EQ(s.rfind("error: scpkit: ", 0), 0u) << line << ": " << s;
        EXPECT_NE(s.find(reason), std::string::npos) << line << ": " << s;
    }
}

}  // namespace
}  // namespace scpkit::test
