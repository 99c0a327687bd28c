// The scpkit program end to end against the loopback sshd: every command,
// what it prints, its exit statuses, pipes, interrupts and the terminal.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <pwd.h>
#include <sys/stat.h>
#include <csignal>
#include <random>
#include <sstream>

#include "tests/support/ChildProcess.h"
#include "tests/support/SshdFixture.h"
#include "tests/support/TreeFiles.h"

namespace scpkit::test {
namespace {

using Args = std::vector<std::string>;
const std::string kProgram = SCPKIT_CLI_PATH;

std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(gen());
    return s;
}

// What a run printed, when it succeeded without a word on standard error
// (not a terminal, so no progress bar either); else why it did not.
std::string outputOf(const ChildResult& r) {
    if (r.exitStatus == 0 && r.err.empty()) return r.out;
    return "<exit " + std::to_string(r.exitStatus) + ": " + r.err + ">";
}

// A command line written with blanks between the words.
Args words(const std::string& line) {
    Args out;
    std::istringstream in(line);
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

// A loopback port bound but not listening: it refuses every connection.
struct RefusingPort {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int port = 0;
    RefusingPort() {
        sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t len = sizeof a;
        bind(fd, reinterpret_cast<sockaddr*>(&a), len);
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
    }
    ~RefusingPort() { close(fd); }
};

class CliTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(kProgram.empty()) << "the scpkit program was not built";
        sshd = &SshdFixture::shared();
        if (!sshd->ok()) GTEST_SKIP() << "no sshd: " << sshd->error();
        dir = sshd->makeScratchDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        local = dir + "/local";
        rdir = dir + "/remote";
        for (const std::string& d : {home(), local, rdir}) makeDir(d);
    }
    std::string home() const { return dir + "/home"; }
    std::string remote(const std::string& p) const { return sshd->user() + "@127.0.0.1:" + p; }
    // A private HOME and no agent: nothing of the user running the tests takes part.
    Args environment(Args extra = {}) const {
        extra.insert(extra.end(), {"HOME=" + home(), "SSH_AUTH_SOCK", "SSH_AGENT_PID"});
        return extra;
    }
    // The fixture's server, key and known hosts; `extra` options given later win.
    Args connection(const Args& extra = {}) const {
        Args all = words("-P " + std::to_string(sshd->port()) + " -i " + sshd->clientKeyPath() +
                         " --known-hosts " + sshd->knownHostsPath() + " --no-ssh-config");
        all.insert(all.end(), extra.begin(), extra.end());
        return all;
    }
    ChildResult scpkit(const Args& args, const std::string& input = "", const Args& extra = {}) {
        Args all = connection(extra);
        all.insert(all.end(), args.begin(), args.end());
        return runChild(kProgram, all, environment(), input);
    }

    SshdFixture* sshd = nullptr;
    std::string dir, local, rdir;
};

TEST_F(CliTest, PutAndGetCarryEveryByteThroughFilesAndPipes) {
    std::string bytes = randomBytes(1 << 20, 1) + std::string("\0\r\n\x1b[2J", 7);
    writeFile(local + "/data.bin", bytes, -1, 0640);
    const std::pair<Args, std::string> steps[] = {
        // the arguments, where the bytes land
        {{"put", local + "/data.bin", remote(rdir + "/copy.bin")}, rdir + "/copy.bin"},
        {{"put", local + "/data.bin", remote(rdir + "/")}, rdir + "/data.bin"},
        {{"put", "-", remote(rdir + "/piped.bin")}, rdir + "/piped.bin"},
        {{"get", remote(rdir + "/piped.bin"), local + "/back.bin"}, local + "/back.bin"},
        {{"get", remote(rdir + "/copy.bin"), local}, local + "/copy.bin"}};
    for (const auto& [args, landed] : steps) {
        SCOPED_TRACE(args[1] + " " + args[2]);
        EXPECT_EQ(outputOf(scpkit(args, args[1] == "-" ? bytes : "")), "");
        EXPECT_TRUE(readFile(landed) == bytes);
    }
    std::string out = outputOf(scpkit({"get", remote(rdir + "/piped.bin"), "-"}));
    EXPECT_TRUE(out == bytes) << out.size() << " bytes: " << out.substr(0, 200);
    EXPECT_EQ(outputOf(scpkit({"put", "-", remote(rdir + "/empty")})), "");
    EXPECT_TRUE(pathExists(rdir + "/empty") && readFile(rdir + "/empty").empty());

    // The local mode travels unless --chmod says otherwise.
    EXPECT_EQ(
        outputOf(scpkit({"put", "--chmod", "0600", local + "/data.bin", remote(rdir + "/c")})), "");
    TreeSnapshot landed = snapshotTree(rdir);
    EXPECT_EQ(landed["copy.bin"].mode, 0640u);
    EXPECT_EQ(landed["c"].mode, 0600u);
}

TEST_F(CliTest, PushAndPullListExactlyTheFilesTheyCopied) {
    const std::vector<std::string> all = {"a.txt", "sub/b.txt", "sub/deep/c.bin", "with space.txt"};
    std::string src = local + "/tree", dst = rdir + "/tree", pulled = local + "/pulled";
    for (const std::string& f : all) writeFile(src + "/" + f, randomBytes(70000, f[0]), 1000000000);
    makeDir(src + "/empty");

    std::string push = outputOf(scpkit({"push", src, remote(dst)}));  // dst is made first
    EXPECT_EQ(sortedLines(push), all) << push;
    EXPECT_EQ(snapshotTree(dst), snapshotTree(src));
    writeFile(src + "/sub/b.txt", "second edition\n");
    EXPECT_EQ(outputOf(scpkit({"push", "--mode", "newer", src, remote(dst)})), "sub/b.txt\n");
    EXPECT_EQ(outputOf(scpkit({"push", "--mode", "newer", src, remote(dst)})), "");  // times kept
    EXPECT_EQ(readFile(dst + "/sub/b.txt"), "second edition\n");

    std::string pull = outputOf(scpkit({"pull", remote(dst), pulled}));
    EXPECT_EQ(sortedLines(pull), all) << pull;
    EXPECT_EQ(snapshotTree(pulled), snapshotTree(dst));
    EXPECT_EQ(outputOf(scpkit({"pull", "--mode", "missing", remote(dst), pulled})), "");
    EXPECT_EQ(outputOf(scpkit({"-q", "pull", remote(dst), local + "/quiet"})), "");
    EXPECT_EQ(snapshotTree(local + "/quiet"), snapshotTree(pulled));

    // Repeated filter options add up; each reaches its own property.
    const std::pair<Args, std::vector<std::string>> filters[] = {
        {{"push", "--match", "*.txt", "--match", "*.bin", "--exclude", "a*", "--exclude-dir",
          "deep", src, remote(rdir + "/new dir")},  // made through the remote shell
         {"sub/b.txt", "with space.txt"}},
        // The remote root is a directory too: it must match.
        {{"pull", "--match-dir", "tree", "--match-dir", "sub", "--exclude", "w*", remote(dst),
          local + "/f2"},
         {"a.txt", "sub/b.txt"}},
        {{"pull", "--no-recurse", remote(dst), local + "/f3"}, {"a.txt", "with space.txt"}}};
    for (const auto& [args, copied] : filters) {
        std::string listed = outputOf(scpkit(args));
        EXPECT_EQ(sortedLines(listed), copied) << listed;
    }
}

TEST_F(CliTest, FailuresSayWhatWentWrongOnOneLine) {
    std::string otherKey = dir + "/other_key", noHosts = dir + "/empty_known_hosts";
    writeFile(otherKey, "not a key");
    writeFile(noHosts, "");
    writeFile(local + "/f", "data");
    writeFile(rdir + "/x", "present");
    RefusingPort refusing;
    std::string gone = remote(rdir + "/gone");
    Args put = {"put", local + "/f", remote(rdir + "/y")};
    // The remote scp quotes the name back in its error message.
    std::string hostile = remote(rdir + "/no\x1b[2Jsuch\x07\x1b[31m\xc2\x9b-file");
    const struct {
        Args conn, args;
        int status;
        std::string says;
        bool hint;  // after a library call: how to get the full log
    } cases[] = {{{"-P", std::to_string(refusing.port)}, put, 3, "cannot connect", true},
                 {{"-i", otherKey}, put, 3, "authentication failed", true},
                 {{"--known-hosts", noHosts}, put, 3, "Host key verification failed", true},
                 {{}, {"get", gone, local + "/got"}, 1, "No such file or directory", true},
                 {{}, {"get", hostile, local + "/got"}, 1, "No such file or directory", true},
                 {{}, {"get", remote(rdir + "/x"), local + "/no/dir/file"}, 1, "get", true},
                 {{}, {"put", local + "/absent", remote(rdir + "/y")}, 1, "absent", false},
                 {{}, {"put", local, remote(rdir + "/y")}, 1, "push copies directories", false},
                 {{}, {"--log", dir + "/log", "get", gone, local}, 1, "full log in", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.says);
        ChildResult r = scpkit(c.args, "", c.conn);
        EXPECT_EQ(r.exitStatus, c.status) << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("scpkit: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("--log FILE") != std::string::npos, c.hint) << r.err;
        for (unsigned char ch : r.err)
            EXPECT_TRUE((ch >= 0x20 && ch != 0x7f) || ch == '\n') << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line";
    }
    EXPECT_FALSE(pathExists(local + "/got")) << "a failed get leaves no file";
    EXPECT_FALSE(pathExists(rdir + "/y"));
    std::string log = readFile(dir + "/log");
    for (const char* text : {"DownloadFile:", "No such file or directory", "Failed.", "--Download"})
        EXPECT_NE(log.find(text), std::string::npos) << text << " in " << log;
    EXPECT_EQ(log.find("fileSize:"), std::string::npos) << "not verbose unless asked";

    EXPECT_EQ(outputOf(scpkit({"--log", dir + "/v.log", "--verbose-log", "--debug-log",
                               dir + "/d.log", "get", remote(rdir + "/x"), local + "/x"})),
              "");
    EXPECT_NE(readFile(dir + "/v.log").find("fileSize: 7"), std::string::npos);
    EXPECT_NE(readFile(dir + "/v.log").find("Success."), std::string::npos);
    EXPECT_NE(readFile(dir + "/d.log").find("DownloadFile"), std::string::npos);
}

TEST_F(CliTest, UsageErrorsExitTwoWithoutConnecting) {
    writeFile(local + "/f", "x");
    // F: a local file, D: a local directory, H: a remote file. The unset
    // passphrase variable is found before connecting; a connection attempt
    // would end in status 3.
    // clang-format off
    const char* cases[] = {"", "put F", "fetch F H", "put F H extra", "get nocolon F", "get F H",
        "put - h:", "put - h:dir/", "get h: F", "push - H", "pull H -", "put --mode all F H",
        "get H F --exclude *.o", "get H F --chmod 644", "put --chmod 9 F H", "put --chmod rw F H",
        "push --filename-only D H", "push --mode fastest D H", "push --mode 6 D H",
        "--port 65536 put F H", "--host-key-check maybe put F H", "--progress --no-progress put F H",
        "--env novalue put F H", "--env 1X=2 put F H", "--connect-timeout -5 put F H",
        "--bogus put F H", "--identity k --password-env P put F H",
        "--passphrase-env SCPKIT_UNSET put F H"};
    // clang-format on
    RefusingPort refusing;
    for (const char* line : cases) {
        Args args = {"-P", std::to_string(refusing.port), "-i", local + "/f"};
        for (const std::string& w : words(line))
            args.push_back(w == "F" ? local + "/f" : w == "D" ? local : w == "H" ? "h:x" : w);
        ChildResult r = runChild(kProgram, args, environment());
        EXPECT_EQ(r.exitStatus, 2) << line << ": " << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("scpkit: ", 0), 0u) << r.err;
    }
    EXPECT_NE(outputOf(runChild(kProgram, {"push", "--help"}, {})).find("LOCAL_DIR"),
              std::string::npos);
    EXPECT_EQ(outputOf(runChild(kProgram, {"--version"}, {})).rfind("scpkit ", 0), 0u);
}

TEST_F(CliTest, UsesTheUsersSshSetupLikeSsh) {
    // The alias, port and user from ~/.ssh/config, the server's key from
    // ~/.ssh/known_hosts and the default key file.
    writeFile(home() + "/.ssh/config", "Host sandbox\n HostName 127.0.0.1\n Port " +
                                           std::to_string(sshd->port()) + "\n User " +
                                           sshd->user() + "\n");
    writeFile(home() + "/.ssh/known_hosts", readFile(sshd->knownHostsPath()));
    writeFile(home() + "/.ssh/id_ed25519", readFile(sshd->clientKeyPath()), -1, 0600);
    writeFile(rdir + "/motd", "welcome\n");
    Args get = {"get", "sandbox:" + rdir + "/motd", "-"};
    EXPECT_EQ(outputOf(runChild(kProgram, get, environment())), "welcome\n");
    get.insert(get.begin(), "--no-ssh-config");  // "sandbox" is no host name any more
    EXPECT_EQ(runChild(kProgram, get, environment()).exitStatus, 3);
}

TEST_F(CliTest, PasswordComesFromTheNamedVariableOrTheTerminal) {
    if (sshd->passwordUser().empty()) GTEST_SKIP() << "no password user";
    const passwd* pw = getpwnam(sshd->passwordUser().c_str());
    ASSERT_NE(pw, nullptr);
    std::string landed = std::string(pw->pw_dir) + "/cli-pw";
    writeFile(local + "/f", "by password");
    Args args =
        words("-P " + std::to_string(sshd->port()) + " --known-hosts " + sshd->knownHostsPath() +
              " --no-ssh-config put " + local + "/f " + sshd->passwordUser() + "@127.0.0.1:cli-pw");
    Args byVariable = args;
    byVariable.insert(byVariable.begin(), {"--password-env", "PW"});
    ChildResult bad = runChild(kProgram, byVariable, environment({"PW=not-" + sshd->password()}));
    EXPECT_EQ(bad.exitStatus, 3) << bad.err;
    EXPECT_FALSE(pathExists(landed));
    EXPECT_EQ(outputOf(runChild(kProgram, byVariable, environment({"PW=" + sshd->password()}))),
              "");
    EXPECT_EQ(readFile(landed), "by password");

    // No key in the private HOME: the program asks, without echo.
    std::string prompt = sshd->passwordUser() + "@127.0.0.1's password: ";
    ChildProcess child;
    child.trigger = prompt;
    child.reply = sshd->password() + "\n";
    ASSERT_TRUE(child.start(kProgram, args, environment(), "", 100));
    ChildResult typed = child.finish(20000);
    EXPECT_EQ(typed.exitStatus, 0) << typed.out;
    EXPECT_NE(typed.out.find(prompt), std::string::npos) << typed.out;
    EXPECT_EQ(typed.out.find(sshd->password()), std::string::npos) << "the password was echoed";
    unlink(landed.c_str());
}

TEST_F(CliTest, ProgressBarOnlyOnATerminalOrWhenAsked) {
    std::string bytes = randomBytes(6 << 20, 4);
    writeFile(local + "/movie.mkv", bytes);
    ChildResult piped = scpkit({"--progress", "get", remote(local + "/movie.mkv"), "-"});
    EXPECT_EQ(piped.exitStatus, 0) << piped.err;
    EXPECT_TRUE(piped.out == bytes) << "the bar never mixes into the data";
    ChildProcess child;
    Args put = connection({"put", local + "/movie.mkv", remote(rdir + "/copy.mkv")});
    ASSERT_TRUE(child.start(kProgram, put, environment(), "", 100));  // 100 columns
    ChildResult terminal = child.finish(20000);
    ASSERT_EQ(terminal.exitStatus, 0) << terminal.out;
    EXPECT_TRUE(readFile(rdir + "/copy.mkv") == bytes);
    // An upload knows its total, so even the first drawing shows it.
    EXPECT_EQ(terminal.out.rfind("\r  0% [", 0), 0u) << terminal.out;
    EXPECT_NE(terminal.out.find(" / 6.0 MiB"), std::string::npos) << terminal.out;
    for (const std::string& screen : {piped.err, terminal.out}) {
        EXPECT_NE(screen.find("movie.mkv"), std::string::npos) << screen;
        EXPECT_EQ(screen.find('\n'), std::string::npos) << "redrawn in place, never scrolled";
        ASSERT_GE(screen.size(), 4u);
        EXPECT_EQ(screen.substr(screen.size() - 4), "\r\x1b[K") << "cleared at the end";
        for (size_t p = 0, end; p != std::string::npos; p = end) {
            end = screen.find('\r', p + 1);
            EXPECT_LE((end == std::string::npos ? screen.size() : end) - p, 100u) << "too wide";
        }
    }
}

TEST_F(CliTest, CtrlCStopsATransferAndLeavesNoPartialFile) {
    // A sparse remote file far too big to finish before the interrupt.
    std::string big = rdir + "/tree/huge.img";
    writeFile(big, "");
    ASSERT_EQ(truncate(big.c_str(), off_t(8) << 30), 0);
    const std::pair<Args, std::string> cases[] = {
        // the arguments, the file growing meanwhile
        {{"get", remote(big), local + "/huge.img"}, local + "/huge.img"},
        // A pull cleans up only with a callback, that is with the bar.
        {{"--progress", "pull", remote(rdir + "/tree"), local + "/t"}, local + "/t/huge.img"}};
    for (const auto& [command, partial] : cases) {
        SCOPED_TRACE(partial);
        ChildProcess child;
        ASSERT_TRUE(child.start(kProgram, connection(command), environment()));
        struct stat st {};
        for (int i = 0; i < 2000 && (stat(partial.c_str(), &st) != 0 || st.st_size == 0); ++i)
            usleep(10000);  // at most 20 s
        ASSERT_GT(st.st_size, 0) << "the download never started";
        kill(child.pid(), SIGINT);
        ChildResult r = child.finish(30000);
        EXPECT_EQ(r.exitStatus, 130) << r.err;
        EXPECT_NE(r.err.find("interrupted"), std::string::npos) << r.err;
        EXPECT_FALSE(pathExists(partial)) << "the partial file was left behind";
    }
}

// A server that shows what the remote scp received: its environment, and
// where a bare file name lands.
TEST(CliRemoteScp, EnvAndFilenameOnlyReachTheRemoteScp) {
    ASSERT_FALSE(kProgram.empty());
    TreeDir root;
    chmod(root.path().c_str(), 0755);
    std::string wrapper = root.sub("wrapper.sh"), landing = root.sub("landing/");
    writeFile(wrapper,
              "#!/bin/sh\nprintf '%s|%s\\n' \"${SCPKIT_PROBE_A-unset}\" \"${SCPKIT_PROBE_B-unset}\""
              " >> " +
                  root.sub("env.log") + "\ncd " + landing +
                  " && exec /bin/sh -c \"$SSH_ORIGINAL_COMMAND\"\n",
              -1, 0755);
    writeFile(landing + "file.txt", "payload");
    SshdOptions options;
    options.extraConfig = "AcceptEnv SCPKIT_PROBE_*\nForceCommand " + wrapper + "\n";
    SshdFixture sshd(options);
    if (!sshd.ok()) GTEST_SKIP() << "no sshd: " << sshd.error();
    auto run = [&](Args args, const std::string& target) {
        Args all = words("-P " + std::to_string(sshd.port()) + " -i " + sshd.clientKeyPath() +
                         " --known-hosts " + sshd.knownHostsPath() + " --no-ssh-config");
        args.insert(args.begin(), all.begin(), all.end());
        args.insert(args.end(),
                    {"put", landing + "file.txt", sshd.user() + "@127.0.0.1:" + target});
        return outputOf(runChild(kProgram, args, {"HOME=" + root.path(), "SSH_AUTH_SOCK"}));
    };
    const std::string value = "two words \"quoted\" a\\b\ttab caf\xc3\xa9";
    EXPECT_EQ(
        run({"--env", "SCPKIT_PROBE_A=hi", "--env", "SCPKIT_PROBE_B=" + value}, landing + "1"), "");
    EXPECT_EQ(readFile(root.sub("env.log")), "hi|" + value + "\n");
    // Only the name goes to the remote scp: the file lands where it runs.
    EXPECT_EQ(run({"--filename-only"}, "/nonexistent/dir/3"), "");
    EXPECT_EQ(readFile(landing + "3"), "payload");
}

}  // namespace
}  // namespace scpkit::test
