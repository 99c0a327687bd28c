// The application aborts from its progress callback at each named event and
// at random points of long transfers, single and tree, up and down: the call
// returns false, what it reported as done is complete, a download that
// failed leaves no file, and the same connection runs the next transfer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include "tests/reliability/ReliabilityRig.h"

namespace scpkit::test {
namespace {

enum class Op { UploadFile, DownloadFile, UploadBinary, DownloadBinary, TreeUpload, TreeDownload };

const char* opName(Op op) {
    static const char* const names[] = {"UploadFile",     "DownloadFile",   "UploadBinary",
                                        "DownloadBinary", "SyncTreeUpload", "SyncTreeDownload"};
    return names[static_cast<int>(op)];
}

struct Trigger {
    Op op;
    std::string event;  // empty: abort at `percent`
    int percent;
};

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < text.size()) {
        size_t lf = text.find('\n', start);
        if (lf == std::string::npos) lf = text.size();
        if (lf > start) out.push_back(text.substr(start, lf - start));
        start = lf + 1;
    }
    return out;
}

// The data every case moves: a big single file, a tree, and the same tree
// with an entry that cannot be opened in two places (for uploads only: a
// remote scp source answers such an entry with an error line, which ends
// a tree download).
class Payload {
  public:
    explicit Payload(const std::string& base) : m_base(base) {
        const size_t fileSize = longTests() ? (64u << 20) : (8u << 20);
        m_single = patternBytes(fileSize, 11);
        writeFile(base + "/src/single.bin", m_single);
        std::map<std::string, std::string> tree;
        const size_t treeFile = longTests() ? (1u << 20) : (256u << 10);
        for (const char* dir : {"", "a/", "a/b/", "c/"})
            for (int i = 0; i < 3; ++i)
                tree[std::string(dir) + "f" + std::to_string(i) + ".bin"] =
                    patternBytes(treeFile, static_cast<uint32_t>(tree.size() + 100));
        makeTree(base + "/tree", tree);
        makeTree(base + "/uptree", tree);
        ::symlink("missing-target", (base + "/uptree/dangling").c_str());
        ::symlink("missing-target", (base + "/uptree/a/dangling").c_str());
        m_tree = tree;
    }
    const std::string& single() const { return m_single; }
    const std::map<std::string, std::string>& tree() const { return m_tree; }
    std::string path(const std::string& rel) const { return m_base + "/" + rel; }

  private:
    std::string m_base;
    std::string m_single;
    std::map<std::string, std::string> m_tree;
};

// Runs the operation with the callback; checks what must hold after it.
void runAborted(ClsScp& scp, const Payload& payload, const Trigger& t, int round) {
    AbortOnCue cue;
    cue.abortAtEvent = t.event;
    cue.abortAtPercent = t.event.empty() ? t.percent : -1;
    const std::string tag = std::to_string(round);
    bool ok = true;
    switch (t.op) {
        case Op::UploadFile: {
            XString local(payload.path("src/single.bin").c_str());
            XString remote(payload.path("up-" + tag + ".bin").c_str());
            ok = scp.UploadFile(local, remote, &cue);
            break;
        }
        case Op::DownloadFile: {
            XString remote(payload.path("src/single.bin").c_str());
            const std::string target = payload.path("down-" + tag + ".bin");
            XString local(target.c_str());
            ok = scp.DownloadFile(remote, local, &cue);
            EXPECT_FALSE(exists(target)) << "a failed download left its file";
            break;
        }
        case Op::UploadBinary: {
            DataBuffer bytes;
            bytes.append(payload.single().data(), payload.single().size());
            XString remote(payload.path("upbin-" + tag + ".bin").c_str());
            ok = scp.UploadBinary(remote, bytes, &cue);
            break;
        }
        case Op::DownloadBinary: {
            DataBuffer bytes;
            XString remote(payload.path("src/single.bin").c_str());
            ok = scp.DownloadBinary(remote, bytes, &cue);
            // What arrived is the start of the file, nothing else.
            EXPECT_EQ(payload.single().compare(0, bytes.getSize(),
                                               reinterpret_cast<const char*>(bytes.getData2()),
                                               bytes.getSize()),
                      0);
            break;
        }
        case Op::TreeUpload:
        case Op::TreeDownload: {
            const bool up = t.op == Op::TreeUpload;
            const std::string target = payload.path((up ? "treeup-" : "treedown-") + tag);
            std::filesystem::create_directories(target);
            XString source(payload.path(up ? "uptree" : "tree").c_str()), dest(target.c_str());
            ok = up ? scp.SyncTreeUpload(source, dest, 0, true, &cue)
                    : scp.SyncTreeDownload(source, dest, 0, true, &cue);
            // Nothing reported as copied is lost or partial. An upload
            // records a file once all its bytes are sent; the remote scp may
            // still be writing it when the aborted call returns.
            XString synced;
            scp.get_SyncedFiles(synced);
            for (const auto& rel : lines(synced.getUtf8())) {
                SCOPED_TRACE(rel);
                ASSERT_TRUE(payload.tree().count(rel));
                const std::string& want = payload.tree().at(rel);
                EXPECT_TRUE(eventually([&] { return readFile(target + "/" + rel) == want; }));
            }
            break;
        }
    }
    EXPECT_TRUE(cue.fired) << "the trigger never came";
    EXPECT_FALSE(ok) << lastError(scp);
    EXPECT_NE(lastError(scp).find("abort"), std::string::npos) << lastError(scp);
}

// After an abort, a small round trip over the same connection.
void expectUsable(ClsScp& scp, const Payload& payload, int round) {
    const std::string data = patternBytes(65536, static_cast<uint32_t>(round));
    DataBuffer bytes, back;
    bytes.append(data.data(), data.size());
    XString remote(payload.path("after-" + std::to_string(round)).c_str());
    ASSERT_TRUE(scp.UploadBinary(remote, bytes, nullptr)) << lastError(scp);
    XString again(payload.path("after-" + std::to_string(round)).c_str());
    ASSERT_TRUE(scp.DownloadBinary(again, back, nullptr)) << lastError(scp);
    EXPECT_TRUE(back.equals(data.data(), data.size()));
}

// Every named event, and a random point of each operation. `few` keeps one
// named event per direction (for the slower real connection).
std::vector<Trigger> triggers(bool few) {
    std::vector<Trigger> out = {
        {Op::TreeDownload, "scp-begin-download", 0},
        {Op::TreeUpload, "scp-localfile-uploaded", 0},
    };
    if (!few) {
        out.insert(out.end(), {{Op::TreeDownload, "scp-localdir-created", 0},
                               {Op::TreeDownload, "scp-localfile-created", 0},
                               {Op::TreeUpload, "scp-localdir-entered", 0},
                               {Op::TreeUpload, "scp-localfile-cannot-open", 0},
                               {Op::TreeUpload, "scp-localdir-leaving", 0}});
    }
    // Random points, reproducible: the seed is printed and can be forced.
    const char* forced = std::getenv("SCPKIT_ABORT_SEED");
    const unsigned seed =
        forced ? static_cast<unsigned>(std::atoi(forced)) : std::random_device{}();
    std::printf("abort points seeded with SCPKIT_ABORT_SEED=%u\n", seed);
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> percent(1, 99);
    const int perOp = longTests() ? 6 : 1;
    for (Op op : {Op::UploadFile, Op::DownloadFile, Op::UploadBinary, Op::DownloadBinary,
                  Op::TreeUpload, Op::TreeDownload})
        for (int i = 0; i < perOp; ++i) out.push_back({op, "", percent(gen)});
    return out;
}

void runAll(ClsScp& scp, const std::string& base, bool few) {
    scp.put_PollIntervalMs(1);
    Payload payload(base);
    int round = 0;
    for (const Trigger& t : triggers(few)) {
        SCOPED_TRACE(std::string(opName(t.op)) + " at " +
                     (t.event.empty() ? std::to_string(t.percent) + "%" : t.event));
        runAborted(scp, payload, t, ++round);
        expectUsable(scp, payload, round);
    }
}

TEST(Aborts, OverLocalScpProcesses) {
    ProcessRig rig;
    TempDir base("abort");
    runAll(rig.scp, base.path(), false);
}

TEST(Aborts, OverLoopbackSshd) {
    if (!SshdFixture::shared().ok()) GTEST_SKIP() << SshdFixture::shared().error();
    SshRig rig;
    ASSERT_TRUE(rig.connected) << lastError(rig.ssh);
    TempDir base("abort");
    runAll(rig.scp, base.path(), !longTests());
}

}  // namespace
}  // namespace scpkit::test
