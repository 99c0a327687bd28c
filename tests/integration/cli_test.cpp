// The scpkit program end to end against the throwaway sshd: every command,
// what it prints, its exit statuses, pipes, filters and properties.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/SshdFixture.h"

namespace scpkit::test {
namespace {

const std::string kProgram = SCPKIT_CLI_PATH;

// ---- files -----------------------------------------------------------------

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    ASSERT_TRUE(out.good()) << path;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

unsigned modeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

void makeDirs(const std::string& path) {
    std::string sofar;
    std::istringstream parts(path);
    for (std::string part; std::getline(parts, part, '/');) {
        sofar += part + "/";
        mkdir(sofar.c_str(), 0755);
    }
}

void setMtime(const std::string& path, time_t when) {
    struct timeval tv[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimes(path.c_str(), tv), 0) << path;
}

std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(gen() & 0xFF);
    return s;
}

// Relative paths of the regular files below root.
std::set<std::string> filesBelow(const std::string& root) {
    std::set<std::string> found;
    std::function<void(const std::string&)> walk = [&](const std::string& rel) {
        std::string dir = rel.empty() ? root : root + "/" + rel;
        ChildResult ls = runChild("/usr/bin/find", {dir, "-mindepth", "1", "-maxdepth", "1"}, {});
        std::istringstream lines(ls.out);
        for (std::string line; std::getline(lines, line);) {
            std::string name = line.substr(dir.size() + 1);
            std::string childRel = rel.empty() ? name : rel + "/" + name;
            struct stat st;
            if (lstat(line.c_str(), &st) != 0) continue;
            if (S_ISDIR(st.st_mode)) walk(childRel);
            if (S_ISREG(st.st_mode)) found.insert(childRel);
        }
    };
    walk("");
    return found;
}

std::set<std::string> linesOf(const std::string& text) {
    std::set<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.insert(line);
    return lines;
}

size_t lineCount(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

int unusedPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

// ---- the program against the shared sshd ------------------------------------

class CliTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(kProgram.empty()) << "the scpkit program was not built";
        sshd = &SshdFixture::shared();
        if (!sshd->ok()) GTEST_SKIP() << "no sshd: " << sshd->error();
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = sshd->makeScratchDir(std::string("cli-") + info->name());
        home = dir + "/home";
        local = dir + "/local";
        remoteRoot = dir + "/remote";
        makeDirs(home + "/.ssh");
        makeDirs(local);
        makeDirs(remoteRoot);
    }

    // The connection options every command needs, as a user would pass them.
    std::vector<std::string> connection(int port = 0, const std::string& key = "",
                                        const std::string& knownHosts = "") const {
        return {"-P",
                std::to_string(port ? port : sshd->port()),
                "-i",
                key.empty() ? sshd->clientKeyPath() : key,
                "--known-hosts",
                knownHosts.empty() ? sshd->knownHostsPath() : knownHosts,
                "--no-ssh-config"};
    }

    std::string remote(const std::string& path) const {
        return sshd->user() + "@127.0.0.1:" + path;
    }

    // Runs scpkit with a private HOME and no agent, so nothing of the user
    // running the tests takes part.
    ChildResult scpkit(std::vector<std::string> args, const std::string& input = "",
                       std::vector<std::string> conn = {},
                       const std::vector<std::string>& extraEnv = {}) {
        if (conn.empty()) conn = connection();
        conn.insert(conn.end(), args.begin(), args.end());
        std::vector<std::string> env = environment();
        env.insert(env.end(), extraEnv.begin(), extraEnv.end());
        return runChild(kProgram, conn, env, input, 60000);
    }

    std::vector<std::string> environment() const {
        return {"HOME=" + home, "SSH_AUTH_SOCK", "SSH_AGENT_PID"};
    }

    SshdFixture* sshd = nullptr;
    std::string dir, home, local, remoteRoot;
};

#define EXPECT_CLEAN_SUCCESS(r)                                                 \
    do {                                                                        \
        EXPECT_EQ((r).exitStatus, 0) << (r).err;                                \
        EXPECT_EQ((r).err, "") << "nothing on standard error when all is well"; \
    } while (0)

TEST_F(CliTest, PutAndGetCopyFilesByteForByte) {
    std::string bytes = randomBytes(300 * 1024 + 7, 1);
    writeFile(local + "/data.bin", bytes);

    ChildResult put = scpkit({"put", local + "/data.bin", remote(remoteRoot + "/copy.bin")});
    EXPECT_CLEAN_SUCCESS(put);
    EXPECT_EQ(put.out, "");
    EXPECT_EQ(readFile(remoteRoot + "/copy.bin"), bytes);

    // A remote directory (trailing slash) keeps the local name.
    ChildResult intoDir = scpkit({"put", local + "/data.bin", remote(remoteRoot + "/")});
    EXPECT_CLEAN_SUCCESS(intoDir);
    EXPECT_EQ(readFile(remoteRoot + "/data.bin"), bytes);

    ChildResult get = scpkit({"get", remote(remoteRoot + "/copy.bin"), local + "/back.bin"});
    EXPECT_CLEAN_SUCCESS(get);
    EXPECT_EQ(get.out, "");
    EXPECT_EQ(readFile(local + "/back.bin"), bytes);

    // A local directory keeps the remote name.
    makeDirs(local + "/in");
    ChildResult getDir = scpkit({"get", remote(remoteRoot + "/copy.bin"), local + "/in"});
    EXPECT_CLEAN_SUCCESS(getDir);
    EXPECT_EQ(readFile(local + "/in/copy.bin"), bytes);
}

TEST_F(CliTest, StandardInputAndOutputCarryEveryByte) {
    std::string bytes;
    for (int round = 0; round < 4; ++round) {
        for (int b = 0; b < 256; ++b) bytes += static_cast<char>(b);
    }
    bytes += "\r\n\n\r\x1b[2J" + randomBytes(1 << 20, 2);

    ChildResult put = scpkit({"put", "-", remote(remoteRoot + "/piped.bin")}, bytes);
    EXPECT_CLEAN_SUCCESS(put);
    EXPECT_EQ(readFile(remoteRoot + "/piped.bin"), bytes);

    ChildResult get = scpkit({"get", remote(remoteRoot + "/piped.bin"), "-"});
    EXPECT_CLEAN_SUCCESS(get);
    ASSERT_EQ(get.out.size(), bytes.size());
    EXPECT_TRUE(get.out == bytes);

    ChildResult empty = scpkit({"put", "-", remote(remoteRoot + "/empty")}, "");
    EXPECT_CLEAN_SUCCESS(empty);
    EXPECT_TRUE(exists(remoteRoot + "/empty"));
    EXPECT_EQ(readFile(remoteRoot + "/empty"), "");
}

TEST_F(CliTest, PushAndPullListExactlyTheFilesCopied) {
    std::string src = local + "/tree";
    makeDirs(src + "/sub/deep");
    makeDirs(src + "/void");
    writeFile(src + "/a.txt", "alpha\n");
    writeFile(src + "/sub/b.txt", "beta\n");
    writeFile(src + "/sub/deep/c.bin", randomBytes(70000, 3));
    writeFile(src + "/with space.txt", "blank in the name\n");
    time_t anHourAgo = time(nullptr) - 3600;
    for (const char* f : {"/a.txt", "/sub/b.txt", "/sub/deep/c.bin", "/with space.txt"}) {
        setMtime(src + f, anHourAgo);
    }
    const std::set<std::string> all = {"a.txt", "sub/b.txt", "sub/deep/c.bin", "with space.txt"};
    std::string dst = remoteRoot + "/tree";
    makeDirs(dst);

    ChildResult push = scpkit({"push", src, remote(dst)});
    EXPECT_CLEAN_SUCCESS(push);
    EXPECT_EQ(linesOf(push.out), all) << push.out;
    EXPECT_EQ(lineCount(push.out), all.size());
    EXPECT_EQ(filesBelow(dst), all);
    EXPECT_EQ(readFile(dst + "/sub/deep/c.bin"), readFile(src + "/sub/deep/c.bin"));

    writeFile(src + "/sub/b.txt", "beta, second edition\n");
    ChildResult newer = scpkit({"push", "--mode", "newer", src, remote(dst)});
    EXPECT_CLEAN_SUCCESS(newer);
    EXPECT_EQ(newer.out, "sub/b.txt\n");
    EXPECT_EQ(readFile(dst + "/sub/b.txt"), "beta, second edition\n");

    ChildResult nothing = scpkit({"push", "--mode", "newer", src, remote(dst)});
    EXPECT_CLEAN_SUCCESS(nothing);
    EXPECT_EQ(nothing.out, "") << "times travel with the files, so nothing is newer now";

    std::string pulled = local + "/pulled";
    ChildResult pull = scpkit({"pull", remote(dst), pulled});
    EXPECT_CLEAN_SUCCESS(pull);
    EXPECT_EQ(linesOf(pull.out), all) << pull.out;
    EXPECT_EQ(filesBelow(pulled), all);
    for (const std::string& f : all) EXPECT_EQ(readFile(pulled + "/" + f), readFile(src + "/" + f));

    ChildResult missing = scpkit({"pull", "--mode", "missing", remote(dst), pulled});
    EXPECT_CLEAN_SUCCESS(missing);
    EXPECT_EQ(missing.out, "");

    ChildResult quiet = scpkit({"-q", "pull", remote(dst), local + "/quiet"});
    EXPECT_CLEAN_SUCCESS(quiet);
    EXPECT_EQ(quiet.out, "") << "--quiet lists nothing";
    EXPECT_EQ(filesBelow(local + "/quiet"), all);
}

TEST_F(CliTest, FiltersChooseFilesAndDirectories) {
    std::string src = local + "/mixed";
    makeDirs(src + "/cache");
    makeDirs(src + "/src");
    for (const char* f :
         {"/keep.txt", "/skip.log", "/notes.md", "/cache/x.txt", "/src/y.txt", "/src/tmp-z.txt"}) {
        writeFile(src + f, f);
    }
    struct Case {
        const char* name;
        std::vector<std::string> options;
        std::set<std::string> copied;
    };
    const Case cases[] = {
        {"files by pattern, repeated options add up",
         {"--match", "*.txt", "--match", "*.md", "--exclude", "tmp-*", "--exclude-dir", "cache"},
         {"keep.txt", "notes.md", "src/y.txt"}},
        {"patterns separated by ;",
         {"--exclude", "*.log;*.md"},
         {"keep.txt", "cache/x.txt", "src/y.txt", "src/tmp-z.txt"}},
        {"no recursion", {"--no-recurse"}, {"keep.txt", "skip.log", "notes.md"}},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string dst = remoteRoot + "/f" + std::to_string(n++);
        makeDirs(dst);
        std::vector<std::string> args = {"push"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        args.push_back(src);
        args.push_back(remote(dst));
        ChildResult r = scpkit(args);
        EXPECT_CLEAN_SUCCESS(r);
        EXPECT_EQ(linesOf(r.out), c.copied) << r.out;
        EXPECT_EQ(filesBelow(dst), c.copied);
    }
}

TEST_F(CliTest, PullFiltersTheRemoteTree) {
    std::string src = remoteRoot + "/site";
    makeDirs(src + "/cache");
    makeDirs(src + "/src");
    for (const char* f : {"/keep.txt", "/skip.log", "/cache/x.txt", "/src/y.txt"}) {
        writeFile(src + f, f);
    }
    ChildResult r = scpkit(
        {"pull", "--exclude", "*.log", "--exclude-dir", "cache", remote(src), local + "/site"});
    EXPECT_CLEAN_SUCCESS(r);
    const std::set<std::string> expected = {"keep.txt", "src/y.txt"};
    EXPECT_EQ(linesOf(r.out), expected) << r.out;
    EXPECT_EQ(filesBelow(local + "/site"), expected);
}

TEST_F(CliTest, ChmodForcesThePermissionsOfUploads) {
    writeFile(local + "/plain", "x");
    chmod((local + "/plain").c_str(), 0644);
    ChildResult put =
        scpkit({"put", "--chmod", "0600", local + "/plain", remote(remoteRoot + "/p")});
    EXPECT_CLEAN_SUCCESS(put);
    EXPECT_EQ(modeOf(remoteRoot + "/p"), 0600u);

    makeDirs(local + "/t/d");
    writeFile(local + "/t/d/f", "y");
    chmod((local + "/t/d/f").c_str(), 0644);
    makeDirs(remoteRoot + "/t");
    ChildResult push = scpkit({"push", "--chmod", "640", local + "/t", remote(remoteRoot + "/t")});
    EXPECT_CLEAN_SUCCESS(push);
    EXPECT_EQ(modeOf(remoteRoot + "/t/d/f"), 0640u);

    ChildResult plain = scpkit({"put", local + "/plain", remote(remoteRoot + "/q")});
    EXPECT_CLEAN_SUCCESS(plain);
    EXPECT_EQ(modeOf(remoteRoot + "/q"), 0644u) << "without --chmod the local mode travels";
}

TEST_F(CliTest, ExitStatusesTellWhatWentWrong) {
    std::string otherKey = dir + "/other_key";
    ASSERT_EQ(runChild("/usr/bin/ssh-keygen", {"-q", "-t", "ed25519", "-N", "", "-f", otherKey}, {})
                  .exitStatus,
              0);
    std::string emptyKnownHosts = dir + "/empty_known_hosts";
    writeFile(emptyKnownHosts, "");
    writeFile(local + "/f", "data");

    struct Case {
        const char* name;
        std::vector<std::string> conn;
        std::vector<std::string> args;
        int status;
        const char* says;
        bool afterLibraryCall;  // then the line says how to get the full log
    };
    const Case cases[] = {
        {"nothing listens on the port",
         connection(unusedPort()),
         {"put", local + "/f", remote(remoteRoot + "/x")},
         3,
         "cannot connect",
         true},
        {"the server does not know the key",
         connection(0, otherKey),
         {"put", local + "/f", remote(remoteRoot + "/x")},
         3,
         "authentication failed",
         true},
        {"unknown host key under yes",
         connection(0, "", emptyKnownHosts),
         {"put", local + "/f", remote(remoteRoot + "/x")},
         3,
         "Host key verification failed",
         true},
        {"missing remote file",
         {},
         {"get", remote(remoteRoot + "/no-such-file"), local + "/got"},
         1,
         "No such file or directory",
         true},
        {"missing local file",
         {},
         {"put", local + "/no-such-file", remote(remoteRoot + "/x")},
         1,
         "no-such-file",
         false},
        {"a directory given to put",
         {},
         {"put", local, remote(remoteRoot + "/x")},
         1,
         "push copies directories",
         false},
        {"local directory missing",
         {},
         {"get", remote(remoteRoot + "/x"), local + "/no/dir/file"},
         1,
         "get",
         true},
        {"passphrase variable not set",
         {},
         {"--passphrase-env", "SCPKIT_TEST_UNSET", "put", local + "/f", remote(remoteRoot + "/x")},
         2,
         "SCPKIT_TEST_UNSET",
         false},
    };
    writeFile(remoteRoot + "/x", "present");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ChildResult r = scpkit(c.args, "", c.conn);
        EXPECT_EQ(r.exitStatus, c.status) << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(lineCount(r.err), 1u) << "one clear line: " << r.err;
        EXPECT_EQ(r.err.rfind("scpkit: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("--log FILE") != std::string::npos, c.afterLibraryCall) << r.err;
    }
    EXPECT_FALSE(exists(local + "/got")) << "a failed get leaves no file";
}

TEST_F(CliTest, UsageErrorsNeverConnect) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"put", "only-one"},
        {"fetch", "a", "b"},
        {"get", "no-colon-here", "x"},
        {"push", "--mode", "bogus", local, remote(remoteRoot)},
        {"put", "--chmod", "9", local, remote(remoteRoot)},
        {"put", "-", remote("")},
        {"get", remote(remoteRoot + "/x"), local, "--exclude", "*.o"},
    };
    for (const auto& args : cases) {
        // An unused port: a usage error must come before any connection.
        ChildResult r = scpkit(args, "", connection(unusedPort()));
        EXPECT_EQ(r.exitStatus, 2) << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("scpkit: ", 0), 0u) << r.err;
        EXPECT_EQ(r.err.find("cannot connect"), std::string::npos) << r.err;
    }
    ChildResult help = runChild(kProgram, {"--help"}, environment());
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_NE(help.out.find("Usage"), std::string::npos);
    ChildResult version = runChild(kProgram, {"--version"}, environment());
    EXPECT_EQ(version.exitStatus, 0);
    EXPECT_EQ(version.out.rfind("scpkit ", 0), 0u);
}

TEST_F(CliTest, LogFileHoldsTheWholeStory) {
    std::string logPath = dir + "/run.log";
    ChildResult r =
        scpkit({"--log", logPath, "get", remote(remoteRoot + "/absent"), local + "/absent"});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.err.find("full log in " + logPath), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("--log FILE"), std::string::npos);
    std::string log = readFile(logPath);
    EXPECT_NE(log.find("DownloadFile:"), std::string::npos) << log;
    EXPECT_NE(log.find("--DownloadFile"), std::string::npos);
    EXPECT_NE(log.find("No such file or directory"), std::string::npos);
    EXPECT_NE(log.find("Failed."), std::string::npos);
    EXPECT_EQ(log.find("fileSize:"), std::string::npos) << "not verbose unless asked";

    // A successful call, logged in detail, and the library's own debug file.
    writeFile(remoteRoot + "/present", "12345");
    std::string verbosePath = dir + "/verbose.log", debugPath = dir + "/debug.log";
    ChildResult ok = scpkit({"--log", verbosePath, "--verbose-log", "--debug-log", debugPath, "get",
                             remote(remoteRoot + "/present"), local + "/present"});
    EXPECT_CLEAN_SUCCESS(ok);
    std::string verbose = readFile(verbosePath);
    EXPECT_NE(verbose.find("fileSize: 5"), std::string::npos) << verbose;
    EXPECT_NE(verbose.find("Success."), std::string::npos);
    EXPECT_NE(readFile(debugPath).find("DownloadFile"), std::string::npos);
}

TEST_F(CliTest, ServerTextReachesTheTerminalWithoutControlCharacters) {
    // The remote scp quotes the name back in its error message.
    std::string hostile = remoteRoot +
                          "/no\x1b[2Jsuch\x07\x1b[31m\xc2\x9b"
                          "file";
    ChildResult r = scpkit({"get", remote(hostile), local + "/h"});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.err.find("No such file or directory"), std::string::npos) << r.err;
    for (unsigned char c : r.err.substr(0, r.err.size() - 1)) {
        EXPECT_FALSE(c < 0x20 || c == 0x7f) << "control byte " << int(c) << " in " << r.err;
    }
}

TEST_F(CliTest, AcceptNewRemembersTheHostKey) {
    std::string knownHosts = dir + "/fresh_known_hosts";
    writeFile(knownHosts, "");
    writeFile(local + "/f", "data");
    std::vector<std::string> conn = connection(0, "", knownHosts);
    std::vector<std::string> acceptNew = conn;
    acceptNew.insert(acceptNew.end(), {"--host-key-check", "accept-new"});
    ChildResult first = scpkit({"put", local + "/f", remote(remoteRoot + "/f")}, "", acceptNew);
    EXPECT_CLEAN_SUCCESS(first);
    EXPECT_FALSE(readFile(knownHosts).empty());
    ChildResult again = scpkit({"put", local + "/f", remote(remoteRoot + "/g")}, "", conn);
    EXPECT_CLEAN_SUCCESS(again);
}

TEST_F(CliTest, UsesTheUsersSshSetupLikeSsh) {
    // Everything from ~/.ssh: the alias, port and user from config, the
    // server's key from known_hosts, and a default key file.
    writeFile(home + "/.ssh/config", "Host sandbox\n    HostName 127.0.0.1\n    Port " +
                                         std::to_string(sshd->port()) + "\n    User " +
                                         sshd->user() + "\n");
    writeFile(home + "/.ssh/known_hosts", readFile(sshd->knownHostsPath()));
    writeFile(home + "/.ssh/id_ed25519", readFile(sshd->clientKeyPath()));
    chmod((home + "/.ssh/id_ed25519").c_str(), 0600);
    writeFile(home + "/.ssh/id_ed25519.pub", readFile(sshd->clientKeyPath() + ".pub"));
    writeFile(remoteRoot + "/motd", "welcome\n");

    ChildResult r =
        runChild(kProgram, {"get", "sandbox:" + remoteRoot + "/motd", "-"}, environment());
    EXPECT_CLEAN_SUCCESS(r);
    EXPECT_EQ(r.out, "welcome\n");

    // --no-ssh-config: "sandbox" is no host name any more.
    ChildResult plain =
        runChild(kProgram, {"--no-ssh-config", "get", "sandbox:" + remoteRoot + "/motd", "-"},
                 environment());
    EXPECT_EQ(plain.exitStatus, 3) << plain.err;
    EXPECT_EQ(plain.out, "");
}

TEST_F(CliTest, PasswordComesFromTheNamedVariable) {
    if (sshd->passwordUser().empty()) GTEST_SKIP() << "no password user";
    struct passwd* pw = getpwnam(sshd->passwordUser().c_str());
    ASSERT_NE(pw, nullptr);
    std::string landed = std::string(pw->pw_dir) + "/scpkit-cli-password.txt";
    writeFile(local + "/f", "by password");
    std::vector<std::string> conn = {"-P",
                                     std::to_string(sshd->port()),
                                     "--known-hosts",
                                     sshd->knownHostsPath(),
                                     "--no-ssh-config",
                                     "--password-env",
                                     "SCPKIT_TEST_PASSWORD"};
    std::string target = sshd->passwordUser() + "@127.0.0.1:scpkit-cli-password.txt";

    ChildResult good = scpkit({"put", local + "/f", target}, "", conn,
                              {"SCPKIT_TEST_PASSWORD=" + sshd->password()});
    EXPECT_CLEAN_SUCCESS(good);
    EXPECT_EQ(readFile(landed), "by password");
    unlink(landed.c_str());

    ChildResult bad = scpkit({"put", local + "/f", target}, "", conn,
                             {"SCPKIT_TEST_PASSWORD=not-" + sshd->password()});
    EXPECT_EQ(bad.exitStatus, 3) << bad.err;
    EXPECT_NE(bad.err.find("authentication failed"), std::string::npos) << bad.err;
    EXPECT_FALSE(exists(landed));
}

TEST_F(CliTest, ProgressAppearsOnlyOnStandardErrorAndOnlyWhenAsked) {
    std::string bytes = randomBytes(4 << 20, 4);
    writeFile(local + "/big", bytes);
    ChildResult quiet = scpkit({"put", local + "/big", remote(remoteRoot + "/big")});
    EXPECT_CLEAN_SUCCESS(quiet);  // standard error is a pipe here: no bar

    ChildResult forced = scpkit({"--progress", "get", remote(remoteRoot + "/big"), "-"});
    EXPECT_EQ(forced.exitStatus, 0) << forced.err;
    EXPECT_TRUE(forced.out == bytes) << "the bar never mixes into the data";
    EXPECT_NE(forced.err.find("%"), std::string::npos);
    ASSERT_GE(forced.err.size(), 4u);
    EXPECT_EQ(forced.err.substr(forced.err.size() - 4), "\r\x1b[K") << "cleared at the end";
    EXPECT_EQ(forced.err.find('\n'), std::string::npos);
}

TEST_F(CliTest, CtrlCStopsATransferAndLeavesNoPartialFile) {
    // A sparse remote file far too big to finish before the interrupt.
    std::string tree = remoteRoot + "/big";
    makeDirs(tree);
    std::string big = tree + "/huge.img";
    {
        int fd = open(big.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, off_t(8) << 30), 0);
        close(fd);
    }
    struct Case {
        std::vector<std::string> args;
        std::string partial;  // where the bytes land while the transfer runs
    };
    const Case cases[] = {
        {{"get", remote(big), local + "/huge.img"}, local + "/huge.img"},
        // A pull cleans up only with a callback, that is with the bar.
        {{"--progress", "pull", remote(tree), local + "/tree"}, local + "/tree/huge.img"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0]);
        std::vector<std::string> args = connection();
        args.insert(args.end(), c.args.begin(), c.args.end());
        ChildProcess child;
        ASSERT_TRUE(child.start(kProgram, args, environment()));
        bool growing = false;
        for (int i = 0; i < 2000 && !growing; ++i) {  // at most 20 s
            struct stat st;
            growing = stat(c.partial.c_str(), &st) == 0 && st.st_size > 0;
            if (!growing) usleep(10000);
        }
        ASSERT_TRUE(growing) << "the download never started";
        kill(child.pid(), SIGINT);
        ChildResult r = child.finish(30000);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitStatus, 130) << r.err;
        EXPECT_NE(r.err.find("interrupted"), std::string::npos) << r.err;
        EXPECT_FALSE(exists(c.partial)) << "the partial file was left behind";
    }
    unlink(big.c_str());
}

// ---- a server that shows what the remote scp received -----------------------

TEST(CliRemoteEnvironment, EnvAndFilenameOnlyReachTheRemoteScp) {
    ASSERT_FALSE(kProgram.empty());
    char tmpl[] = "/tmp/scpkit-cli-env-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string root = tmpl;
    struct RemoveAtEnd {
        std::string path;
        ~RemoveAtEnd() { runChild("/bin/rm", {"-rf", path}, {}); }
    } cleanup{root};
    makeDirs(root + "/landing");
    makeDirs(root + "/home/.ssh");
    // Records the variables, then runs the requested command in a known
    // directory, where a bare file name lands.
    std::string wrapper = root + "/wrapper.sh";
    writeFile(wrapper,
              "#!/bin/sh\n"
              "printf '%s|%s\\n' \"${SCPKIT_PROBE_A-unset}\" \"${SCPKIT_PROBE_B-unset}\" >> " +
                  root +
                  "/env.log\n"
                  "cd " +
                  root + "/landing && exec /bin/sh -c \"$SSH_ORIGINAL_COMMAND\"\n");
    chmod(wrapper.c_str(), 0755);
    chmod(root.c_str(), 0755);

    SshdOptions options;
    options.extraConfig = "AcceptEnv SCPKIT_PROBE_*\nForceCommand " + wrapper + "\n";
    SshdFixture sshd(options);
    if (!sshd.ok()) GTEST_SKIP() << "no sshd: " << sshd.error();
    std::vector<std::string> env = {"HOME=" + root + "/home", "SSH_AUTH_SOCK"};
    auto run = [&](std::vector<std::string> args) {
        std::vector<std::string> all = {"-P",
                                        std::to_string(sshd.port()),
                                        "-i",
                                        sshd.clientKeyPath(),
                                        "--known-hosts",
                                        sshd.knownHostsPath(),
                                        "--no-ssh-config"};
        all.insert(all.end(), args.begin(), args.end());
        return runChild(kProgram, all, env, "", 60000);
    };
    std::string dest = sshd.user() + "@127.0.0.1:" + root + "/landing/";
    writeFile(root + "/file.txt", "payload");

    ChildResult withEnv =
        run({"--env", "SCPKIT_PROBE_A=hello", "--env", "SCPKIT_PROBE_B=two words \"quoted\"", "put",
             root + "/file.txt", dest + "one.txt"});
    EXPECT_EQ(withEnv.exitStatus, 0) << withEnv.err;
    ChildResult without = run({"put", root + "/file.txt", dest + "two.txt"});
    EXPECT_EQ(without.exitStatus, 0) << without.err;
    EXPECT_EQ(readFile(root + "/env.log"), "hello|two words \"quoted\"\nunset|unset\n");

    // Only the name goes to the remote scp: the file lands where it runs,
    // not in the directory the path names.
    ChildResult nameOnly = run({"--filename-only", "put", root + "/file.txt",
                                sshd.user() + "@127.0.0.1:/nonexistent/dir/three.txt"});
    EXPECT_EQ(nameOnly.exitStatus, 0) << nameOnly.err;
    EXPECT_EQ(readFile(root + "/landing/three.txt"), "payload");
}

}  // namespace
}  // namespace scpkit::test
