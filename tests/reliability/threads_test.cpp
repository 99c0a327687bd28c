// Transfers from several threads at once over the loopback sshd: each
// thread with its own objects, and threads sharing one component (its
// critical section serialises them) while others read and write its
// properties. Run under ThreadSanitizer by `./run test --tsan`.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include "tests/support/SshdFixture.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

std::string str(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

TEST(Threads, EightConnectionsTransferAtOnce) {
    if (!SshdFixture::shared().ok()) GTEST_SKIP() << SshdFixture::shared().error();
    ScratchDir dir("threads");
    constexpr int kThreads = 8;
    const size_t size = longTests() ? (16u << 20) : (1u << 20);
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string mine = randomBytes(size, 1000 + t);
            const std::string base = dir.file("t" + std::to_string(t));
            writeFile(base + "/up.bin", mine);
            SshRig rig;
            if (!rig.connected) {
                failures[t] = "connect: " + lastErrorText(rig.ssh);
                return;
            }
            XString local((base + "/up.bin").c_str()), remote((base + "/remote.bin").c_str());
            XString back((base + "/back.bin").c_str()), remoteAgain((base + "/remote.bin").c_str());
            DataBuffer inMemory;
            XString remoteThird((base + "/remote.bin").c_str());
            if (!rig.scp.UploadFile(local, remote, nullptr))
                failures[t] = "upload: " + lastErrorText(rig.scp);
            else if (!rig.scp.DownloadFile(remoteAgain, back, nullptr))
                failures[t] = "download: " + lastErrorText(rig.scp);
            else if (!rig.scp.DownloadBinary(remoteThird, inMemory, nullptr))
                failures[t] = "in memory: " + lastErrorText(rig.scp);
            else if (readFile(base + "/remote.bin") != mine ||
                     readFile(base + "/back.bin") != mine || str(inMemory) != mine)
                failures[t] = "bytes differ";
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], "") << "thread " << t;
}

TEST(Threads, FourThreadsShareOneComponentWhileItsPropertiesAreRead) {
    if (!SshdFixture::shared().ok()) GTEST_SKIP() << SshdFixture::shared().error();
    SshRig rig;
    ASSERT_TRUE(rig.connected) << lastErrorText(rig.ssh);
    ScratchDir dir("threads");
    constexpr int kThreads = 4;
    const int rounds = longTests() ? 20 : 3;
    std::vector<std::string> failures(kThreads);
    std::atomic<int> running{kThreads};
    std::atomic<int> propertyReads{0};
    std::string propertyFailure;

    // Reads and writes properties while the transfers run: every value read
    // must be one that was written whole.
    std::thread reader([&] {
        int i = 0;
        while (running.load() > 0) {
            XString value(("*.t" + std::to_string(i % 3)).c_str()), got;
            rig.scp.put_SyncMustMatch(value);
            rig.scp.get_SyncMustMatch(got);
            const std::string g = got.getUtf8();
            if (g != "*.t0" && g != "*.t1" && g != "*.t2") propertyFailure = "SyncMustMatch: " + g;
            XString perms("0600"), permsBack, env, synced;
            rig.scp.put_UnixPermOverride(perms);
            rig.scp.get_UnixPermOverride(permsBack);
            if (std::string(permsBack.getUtf8()) != "0600")
                propertyFailure = std::string("UnixPermOverride: ") + permsBack.getUtf8();
            rig.scp.get_SendEnv(env);
            rig.scp.get_SyncedFiles(synced);
            (void)rig.scp.get_VerboseLogging();
            ++propertyReads;
            ++i;
        }
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int r = 0; r < rounds && failures[t].empty(); ++r) {
                const std::string mine = randomBytes(256 << 10, 100 * t + r);
                const std::string path =
                    dir.file(("t" + std::to_string(t)) + "-" + std::to_string(r));
                DataBuffer bytes, back;
                bytes.append(mine.data(), mine.size());
                XString remote(path.c_str()), again(path.c_str());
                if (!rig.scp.UploadBinary(remote, bytes, nullptr))
                    failures[t] = "upload " + std::to_string(r);
                else if (!rig.scp.DownloadBinary(again, back, nullptr))
                    failures[t] = "download " + std::to_string(r);
                else if (str(back) != mine || readFile(path) != mine)
                    failures[t] = "bytes differ in round " + std::to_string(r);
            }
            --running;
        });
    }
    for (auto& th : threads) th.join();
    reader.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], "") << "thread " << t;
    EXPECT_EQ(propertyFailure, "");
    EXPECT_GT(propertyReads.load(), 0);
    // The override applied while the transfers ran is an upload setting: the
    // files made after it carry it.
    struct stat st;
    ASSERT_EQ(::stat((dir.file(("t0-" + std::to_string(rounds - 1)))).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

}  // namespace
}  // namespace scpkit::test
