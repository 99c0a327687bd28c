// Threads moving data over the channels of one shared connection at once,
// as the program's parallel tree sync does: each thread with a component
// of its own, two of them sharing one (its critical section serialises
// them); and the program itself copying a tree over several channels. Run
// under ThreadSanitizer by `./run test --tsan`, which builds the program
// with it too: a race makes the program fail.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include "tests/support/ChildProcess.h"
#include "tests/support/SshdFixture.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

TEST(Threads, ChannelsOfOneConnectionCarryTransfersAtOnce) {
    if (!SshdFixture::shared().ok()) GTEST_SKIP() << SshdFixture::shared().error();
    SshRig rig(20000);
    ASSERT_TRUE(rig.connected) << lastErrorText(rig.ssh);
    ScratchDir dir("threads");
    constexpr int kThreads = 4;
    const int rounds = longTests() ? 8 : 2;
    ClsScp shared;  // used by threads 2 and 3
    shared.UseSsh(rig.ssh);
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ClsScp own;
            own.UseSsh(rig.ssh);
            ClsScp& scp = t < 2 ? own : shared;
            for (int r = 0; r < rounds && failures[t].empty(); ++r) {
                // Sizes on both sides of the bulk-read threshold.
                const std::string mine = randomBytes((t % 2 ? 3u << 20 : 40000) + r, 10 * t + r);
                const std::string path =
                    dir.file("t" + std::to_string(t) + "-" + std::to_string(r));
                DataBuffer bytes, back;
                bytes.append(mine.data(), mine.size());
                XString remote(path.c_str()), again(path.c_str()), copy((path + ".copy").c_str());
                if (!scp.UploadBinary(remote, bytes, nullptr))
                    failures[t] = "upload: " + lastErrorText(scp);
                else if (!scp.DownloadBinary(again, back, nullptr))
                    failures[t] = "download: " + lastErrorText(scp);
                else if (!scp.DownloadFile(again, copy, nullptr))
                    failures[t] = "download to a file: " + lastErrorText(scp);
                else if (!back.equals(mine.data(), mine.size()) || readFile(path + ".copy") != mine)
                    failures[t] = "bytes differ in round " + std::to_string(r);
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], "") << "thread " << t;
}

// push, pull and a re-sync over four channels at once.
TEST(Threads, TheProgramCopiesATreeOverSeveralChannels) {
    const SshdFixture& sshd = SshdFixture::shared();
    if (!sshd.ok()) GTEST_SKIP() << sshd.error();
    const std::string dir = sshd.makeScratchDir("threads-program");
    for (int d = 0; d < 6; ++d)
        for (int f = 0; f < 8; ++f)
            writeFile(dir + "/src/d" + std::to_string(d) + "/f" + std::to_string(f),
                      randomBytes(1000 + 5000 * f, d * 8 + f), 1000000000 + f);
    const std::vector<std::string> env = {"HOME=" + dir, "SSH_AUTH_SOCK", "SCPKIT_PIECE_COST=4"};
    const std::string at = sshd.user() + "@127.0.0.1:";
    for (const std::string& line :
         {"push " + dir + "/src " + at + dir + "/up", "pull " + at + dir + "/up " + dir + "/down",
          "pull --mode newer " + at + dir + "/up " + dir + "/down"}) {
        std::vector<std::string> args = {"-j",
                                         "4",
                                         "-q",
                                         "-P",
                                         std::to_string(sshd.port()),
                                         "-i",
                                         sshd.clientKeyPath(),
                                         "--known-hosts",
                                         sshd.knownHostsPath(),
                                         "--no-ssh-config"};
        std::istringstream words(line);
        for (std::string w; words >> w;) args.push_back(w);
        ChildResult r = runChild(SCPKIT_CLI_PATH, args, env);
        EXPECT_EQ(r.exitStatus, 0) << line << "\n" << r.err;
    }
    EXPECT_EQ(snapshotTree(dir + "/down"), snapshotTree(dir + "/src"));
}

}  // namespace
}  // namespace scpkit::test
