// The scpkit command line: what each command and option turns into, and
// which mistakes are usage errors.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cli/ExitStatus.h"
#include "cli/Options.h"

namespace scpkit::test {
namespace {

using cli::Command;
using cli::Options;
using cli::ParseResult;

std::vector<std::string> split(const std::string& line) {
    std::vector<std::string> args;
    std::istringstream in(line);
    for (std::string a; in >> a;) args.push_back(a);
    return args;
}

ParseResult parse(const std::string& line, Options& o) {
    return cli::parseCommandLine(split(line), o);
}

TEST(CliOptions, EachCommandPutsLocalAndRemoteInTheirPlaces) {
    struct Case {
        const char* line;
        Command command;
        const char* local;
        const char* host;
        const char* path;
    };
    const Case cases[] = {
        {"put a.txt h:/d/", Command::Put, "a.txt", "h", "/d/"},
        {"put - u@h:/d/x", Command::Put, "-", "h", "/d/x"},
        {"get h:/etc/motd m", Command::Get, "m", "h", "/etc/motd"},
        {"get [::1]:f -", Command::Get, "-", "::1", "f"},
        {"push site h:www", Command::Push, "site", "h", "www"},
        {"pull h: back", Command::Pull, "back", "h", ""},
        {"put -- -dash h:x", Command::Put, "-dash", "h", "x"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Options o;
        ParseResult r = parse(c.line, o);
        ASSERT_EQ(r.kind, ParseResult::Run) << r.err;
        EXPECT_EQ(o.command, c.command);
        EXPECT_EQ(o.local, c.local);
        EXPECT_EQ(o.remote.host, c.host);
        EXPECT_EQ(o.remote.path, c.path);
    }
}

TEST(CliOptions, OptionsBeforeAndAfterTheCommandReachTheirSettings) {
    Options o;
    ParseResult r = parse(
        "-P 2222 --identity k --passphrase-env PP --known-hosts kh --host-key-check accept-new "
        "--no-ssh-config --connect-timeout 1500 push --stall-timeout 0 --mode newer "
        "--no-recurse --match *.c;*.h --match *.md --exclude tmp* --match-dir src "
        "--exclude-dir .git --env A=1 --env B=x=y --chmod 0640 --log L --verbose-log "
        "--debug-log D --no-progress dir h:r",
        o);
    ASSERT_EQ(r.kind, ParseResult::Run) << r.err;
    EXPECT_EQ(o.port, 2222);
    EXPECT_EQ(o.identity, "k");
    EXPECT_EQ(o.passphraseEnv, "PP");
    EXPECT_EQ(o.knownHosts, "kh");
    EXPECT_EQ(o.hostKeyCheck, "accept-new");
    EXPECT_FALSE(o.useSshConfig);
    EXPECT_EQ(o.connectTimeoutMs, 1500);
    EXPECT_EQ(o.stallTimeoutMs, 0);
    EXPECT_EQ(o.syncMode, 2);
    EXPECT_FALSE(o.recurse);
    EXPECT_EQ(o.match, "*.c;*.h;*.md");
    EXPECT_EQ(o.exclude, "tmp*");
    EXPECT_EQ(o.matchDir, "src");
    EXPECT_EQ(o.excludeDir, ".git");
    EXPECT_EQ(o.sendEnvJson, R"({"A":"1","B":"x=y"})");
    EXPECT_EQ(o.chmod, "0640");
    EXPECT_EQ(o.logFile, "L");
    EXPECT_TRUE(o.verboseLog);
    EXPECT_EQ(o.debugLogFile, "D");
    EXPECT_EQ(o.progress, cli::ProgressChoice::Never);
    EXPECT_EQ(o.local, "dir");
}

TEST(CliOptions, DefaultsNeedNothingButTheCommand) {
    Options o;
    ASSERT_EQ(parse("pull h:r l", o).kind, ParseResult::Run);
    EXPECT_EQ(o.port, 0);
    EXPECT_EQ(o.hostKeyCheck, "yes");
    EXPECT_TRUE(o.useSshConfig);
    EXPECT_TRUE(o.recurse);
    EXPECT_EQ(o.syncMode, 0);
    EXPECT_EQ(o.connectTimeoutMs, -1);
    EXPECT_TRUE(o.sendEnvJson.empty());
    EXPECT_EQ(o.progress, cli::ProgressChoice::Auto);
}

TEST(CliOptions, ModeNamesFollowTheCommandsDirection) {
    Options push, pull;
    ASSERT_EQ(parse("push --mode size d h:r", push).kind, ParseResult::Run);
    ASSERT_EQ(parse("pull --mode size h:r d", pull).kind, ParseResult::Run);
    EXPECT_EQ(push.syncMode, 4);
    EXPECT_EQ(pull.syncMode, 5);
}

TEST(CliOptions, MistakesAreUsageErrors) {
    const char* lines[] = {
        "",
        "put",
        "put a",
        "put a b c:d",
        "copy a h:b",
        "put a b",    // no remote side
        "put h:a b",  // remote side first: a local file named h:a, remote b
        "get a h:b",
        "put - h:",  // standard input needs a remote file name
        "put - h:dir/",
        "get h: x",
        "push - h:r",
        "pull h:r -",
        "put a h:b --mode all",
        "get h:a b --exclude *.o",
        "get h:a b --chmod 644",
        "put a h:b --chmod 999",
        "put a h:b --chmod rw",
        "push d h:r --chmod 12345",
        "push d h:r --filename-only",
        "push --mode fastest d h:r",
        "push --mode 6 d h:r",
        "put --port 0 a h:b",
        "put --port 65536 a h:b",
        "put --port x a h:b",
        "put --host-key-check maybe a h:b",
        "put --passphrase-env P a h:b",  // a passphrase needs --identity
        "put --identity k --password-env P a h:b",
        "put --progress --no-progress a h:b",
        "put -q --progress a h:b",
        "put --env novalue a h:b",
        "put --env 1X=2 a h:b",
        "put --env =v a h:b",
        "put --connect-timeout -5 a h:b",
        "put --bogus a h:b",
    };
    for (const char* line : lines) {
        SCOPED_TRACE(line);
        Options o;
        ParseResult r = parse(line, o);
        ASSERT_EQ(r.kind, ParseResult::Exit);
        EXPECT_EQ(r.exitStatus, cli::kExitUsage);
        EXPECT_EQ(r.err.rfind("scpkit: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find("--help"), std::string::npos);
        EXPECT_TRUE(r.out.empty());
    }
}

TEST(CliOptions, HelpAndVersionExitZeroOnStandardOutput) {
    Options o;
    ParseResult help = parse("--help", o);
    ASSERT_EQ(help.kind, ParseResult::Exit);
    EXPECT_EQ(help.exitStatus, 0);
    for (const char* text : {"put", "get", "push", "pull", "--mode", "newer-or-size",
                             "--password-env", "--log", "Exit status"}) {
        EXPECT_NE(help.out.find(text), std::string::npos) << text;
    }
    ParseResult version = parse("--version", o);
    EXPECT_EQ(version.exitStatus, 0);
    EXPECT_EQ(version.out.rfind("scpkit ", 0), 0u) << version.out;
    ParseResult subHelp = parse("push --help", o);
    EXPECT_EQ(subHelp.exitStatus, 0);
    EXPECT_NE(subHelp.out.find("LOCAL_DIR"), std::string::npos);
}

}  // namespace
}  // namespace scpkit::test
