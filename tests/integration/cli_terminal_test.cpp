// scpkit on a terminal: the progress bar is drawn in place and cleared.
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/SshdFixture.h"

namespace scpkit::test {
namespace {

TEST(CliTerminal, ProgressBarIsDrawnAndCleared) {
    const std::string program = SCPKIT_CLI_PATH;
    ASSERT_FALSE(program.empty());
    SshdFixture& sshd = SshdFixture::shared();
    if (!sshd.ok()) GTEST_SKIP() << "no sshd: " << sshd.error();
    std::string dir = sshd.makeScratchDir("cli-terminal");
    mkdir((dir + "/home").c_str(), 0755);

    std::string bytes(6 << 20, '\0');
    std::mt19937 gen(5);
    for (char& c : bytes) c = static_cast<char>(gen());
    std::ofstream(dir + "/movie.mkv", std::ios::binary) << bytes;

    ChildProcess child;
    ASSERT_TRUE(child.start(program,
                            {"-P", std::to_string(sshd.port()), "-i", sshd.clientKeyPath(),
                             "--known-hosts", sshd.knownHostsPath(), "--no-ssh-config", "put",
                             dir + "/movie.mkv", sshd.user() + "@127.0.0.1:" + dir + "/copy.mkv"},
                            {"HOME=" + dir + "/home", "SSH_AUTH_SOCK"}, "", 100));
    ChildResult r = child.finish(20000);
    ASSERT_EQ(r.exitStatus, 0) << r.out;

    const std::string& screen = r.out;
    // An upload knows its total, so even the first drawing shows it.
    EXPECT_NE(screen.find("\r  0% ["), std::string::npos) << "drawn from the start";
    EXPECT_NE(screen.find(" / 6.0 MiB"), std::string::npos) << "shows the bytes";
    EXPECT_NE(screen.find("movie.mkv"), std::string::npos) << "names the file";
    EXPECT_EQ(screen.find('\n'), std::string::npos) << "redrawn in place, never scrolled";
    ASSERT_GE(screen.size(), 4u);
    EXPECT_EQ(screen.substr(screen.size() - 4), "\r\x1b[K") << "cleared at the end";
    for (size_t p = 0; (p = screen.find('\r', p)) != std::string::npos; ++p) {
        size_t end = screen.find('\r', p + 1);
        std::string line = screen.substr(p + 1, end == std::string::npos ? end : end - p - 1);
        EXPECT_LT(line.size(), 100u + 3) << "wider than the terminal: " << line;
    }

    std::ifstream in(dir + "/copy.mkv", std::ios::binary);
    std::ostringstream copy;
    copy << in.rdbuf();
    EXPECT_TRUE(copy.str() == bytes);
}

TEST(CliTerminal, PasswordIsAskedOnTheTerminalWithoutEcho) {
    const std::string program = SCPKIT_CLI_PATH;
    SshdFixture& sshd = SshdFixture::shared();
    if (!sshd.ok()) GTEST_SKIP() << "no sshd: " << sshd.error();
    if (sshd.passwordUser().empty()) GTEST_SKIP() << "no password user";
    struct passwd* pw = getpwnam(sshd.passwordUser().c_str());
    ASSERT_NE(pw, nullptr);
    std::string landed = std::string(pw->pw_dir) + "/scpkit-cli-prompt.txt";
    std::string dir = sshd.makeScratchDir("cli-prompt");
    mkdir((dir + "/home").c_str(), 0755);  // no keys there: the password is the way in
    std::ofstream(dir + "/note.txt") << "typed in";

    ChildProcess child;
    ASSERT_TRUE(child.start(program,
                            {"-P", std::to_string(sshd.port()), "--known-hosts",
                             sshd.knownHostsPath(), "--no-ssh-config", "put", dir + "/note.txt",
                             sshd.passwordUser() + "@127.0.0.1:scpkit-cli-prompt.txt"},
                            {"HOME=" + dir + "/home", "SSH_AUTH_SOCK"}, "", 100));
    const std::string prompt = sshd.passwordUser() + "@127.0.0.1's password: ";
    child.replyWhenSeen(prompt, sshd.password() + "\n");
    ChildResult r = child.finish(20000);
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find(prompt), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find(sshd.password()), std::string::npos) << "the password was echoed";

    std::ifstream in(landed);
    std::string content;
    std::getline(in, content);
    EXPECT_EQ(content, "typed in");
    unlink(landed.c_str());
}

}  // namespace
}  // namespace scpkit::test
