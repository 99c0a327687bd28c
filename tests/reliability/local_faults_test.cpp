// Faults on the local side: entries of an upload tree that cannot be read,
// directories that cannot be made, a disk that fills up during a download.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include "tests/reliability/ReliabilityRig.h"

namespace scpkit::test {
namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) out.push_back(line);
    return out;
}

// An entry that a walk lists as a file but that cannot be opened as one.
struct Unreadable {
    const char* name;
    std::function<bool(const std::string& path)> make;
};

bool bindSocket(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    bool ok = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    if (fd >= 0) ::close(fd);
    return ok;
}

const std::vector<Unreadable>& unreadables() {
    static const std::vector<Unreadable> rows = {
        {"dangling symlink",
         [](const std::string& p) { return ::symlink("nowhere", p.c_str()) == 0; }},
        {"symlink loop", [](const std::string& p) { return ::symlink(p.c_str(), p.c_str()) == 0; }},
        // Directory links are not followed, so a cycle cannot make the walk endless.
        {"symlink to its own directory",
         [](const std::string& p) { return ::symlink(".", p.c_str()) == 0; }},
        {"fifo without a writer",
         [](const std::string& p) { return ::mkfifo(p.c_str(), 0644) == 0; }},
        {"unix socket", bindSocket},
        {"file without read permission",
         [](const std::string& p) {
             writeFile(p, "secret");
             // Root reads it anyway; the case only means something for others.
             return ::chmod(p.c_str(), 0) == 0 && ::geteuid() != 0;
         }},
    };
    return rows;
}

TEST(LocalFaults, UploadTreeGoesOnPastEntriesThatCannotBeOpened) {
    const std::map<std::string, std::string> good = {
        {"a.txt", "alpha"}, {"sub/b.bin", patternBytes(300000, 1)}, {"sub/deeper/c", "c"}};
    for (const auto& row : unreadables()) {
        for (const char* where : {"", "sub/", "sub/deeper/"}) {
            SCOPED_TRACE(std::string(row.name) + " in '" + where + "'");
            TempDir dir;
            makeTree(dir / "local", good);
            const std::string bad = dir / (std::string("local/") + where + "zz-bad");
            if (!row.make(bad)) continue;  // not possible here (see the row)
            std::filesystem::create_directories(dir / "remote");

            ProcessRig rig;
            AbortOnCue events;  // never aborts: records the events
            XString local((dir / "local").c_str()), remote((dir / "remote").c_str());
            EXPECT_TRUE(rig.scp.SyncTreeUpload(local, remote, 0, true, &events))
                << lastError(rig.scp);

            EXPECT_EQ(events.count("scp-localfile-cannot-open"), 1u);
            for (const auto& e : events.events) {
                if (e.first == "scp-localfile-cannot-open") {
                    EXPECT_EQ(e.second, bad);
                }
            }
            EXPECT_EQ(snapshot(dir / "remote"),
                      (std::map<std::string, std::string>{{"a.txt", "alpha"},
                                                          {"sub", "d"},
                                                          {"sub/b.bin", good.at("sub/b.bin")},
                                                          {"sub/deeper", "d"},
                                                          {"sub/deeper/c", "c"}}));
            XString synced;
            rig.scp.get_SyncedFiles(synced);
            auto listed = lines(synced.getUtf8());
            std::sort(listed.begin(), listed.end());
            EXPECT_EQ(listed, (std::vector<std::string>{"a.txt", "sub/b.bin", "sub/deeper/c"}));
        }
    }
}

// A local directory that cannot be made ends a tree download; nothing
// already there is replaced.
TEST(LocalFaults, TreeDownloadStopsWhereADirectoryCannotBeMade) {
    const struct {
        const char* name;
        const char* localRootBelowTemp;  // the local root, under the temp dir
        const char* blocker;             // a regular file made first, under the temp dir
    } rows[] = {
        {"a file where a subdirectory belongs", "local", "local/sub"},
        {"a file where the root belongs", "local", "local"},
        {"a file above the root", "file/local", "file"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TempDir dir;
        makeTree(dir / "remote", {{"top.txt", "top"}, {"sub/inner.txt", "inner"}});
        writeFile(dir / row.blocker, "keep me");
        ProcessRig rig;
        XString remote((dir / "remote").c_str()), local((dir / row.localRootBelowTemp).c_str());
        EXPECT_FALSE(rig.scp.SyncTreeDownload(remote, local, 0, true, nullptr));
        EXPECT_NE(lastError(rig.scp).find("errReturnLoc: 3"), std::string::npos)
            << lastError(rig.scp);
        EXPECT_EQ(readFile(dir / row.blocker), "keep me");
        EXPECT_FALSE(exists(dir / "local/sub/inner.txt"));
    }
}

// The local file is made before anything is asked of the server.
TEST(LocalFaults, DownloadIntoAMissingDirectoryOpensNoChannel) {
    TempDir dir;
    ScriptedRig rig;
    XString remote("/srv/f"), local((dir / "no/such/dir/f").c_str());
    EXPECT_FALSE(rig.scp.DownloadFile(remote, local, nullptr));
    EXPECT_EQ(rig.transport->channelsOpened(), 0);
}

// A small tmpfs: writes past its size fail with ENOSPC.
class SmallDisk {
  public:
    explicit SmallDisk(const std::string& path, const char* size) : m_path(path) {
        std::filesystem::create_directories(path);
        m_mounted =
            ::mount("tmpfs", path.c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()) == 0;
    }
    ~SmallDisk() {
        if (m_mounted) ::umount2(m_path.c_str(), MNT_DETACH);
    }
    bool ok() const { return m_mounted; }

  private:
    std::string m_path;
    bool m_mounted = false;
};

TEST(LocalFaults, FullDiskFailsTheDownloadAndKeepsNothingPartial) {
    TempDir dir;
    SmallDisk disk(dir / "disk", "1m");
    if (!disk.ok()) GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    const std::string big = patternBytes(3 << 20, 9);
    writeFile(dir / "remote/big.bin", big);
    ProcessRig rig;

    XString remote((dir / "remote/big.bin").c_str()), local((dir / "disk/big.bin").c_str());
    EXPECT_FALSE(rig.scp.DownloadFile(remote, local, nullptr));
    EXPECT_NE(lastError(rig.scp).find("Failed to write the received data to the output."),
              std::string::npos)
        << lastError(rig.scp);
    EXPECT_FALSE(exists(dir / "disk/big.bin"));

    // A tree: the small files that fit arrive whole, the big one fails the
    // walk, and whatever SyncedFiles lists is complete.
    makeTree(dir / "remote/tree", {{"a.txt", "a"}, {"b.bin", big}, {"c.txt", "c"}});
    XString remoteTree((dir / "remote/tree").c_str()), localTree((dir / "disk/tree").c_str());
    EXPECT_FALSE(rig.scp.SyncTreeDownload(remoteTree, localTree, 0, true, nullptr));
    XString synced;
    rig.scp.get_SyncedFiles(synced);
    for (const auto& rel : lines(synced.getUtf8())) {
        SCOPED_TRACE(rel);
        EXPECT_EQ(readFile(dir / ("disk/tree/" + rel)), readFile(dir / ("remote/tree/" + rel)));
        EXPECT_NE(rel, "b.bin");
    }

    // Once there is room again the same connection completes the download.
    std::filesystem::remove_all(dir / "disk/tree");
    XString smaller((dir / "remote/tree/a.txt").c_str()), target((dir / "disk/a.txt").c_str());
    EXPECT_TRUE(rig.scp.DownloadFile(smaller, target, nullptr)) << lastError(rig.scp);
    EXPECT_EQ(readFile(dir / "disk/a.txt"), "a");
}

// A device as the local path: the download writes through it and must not
// delete it when it fails. /dev/full fails every write; /dev/null takes
// everything, so there the server fails the transfer.
TEST(LocalFaults, DeviceAsTheTargetOutlivesAFailedDownload) {
    const struct {
        const char* name;
        unsigned minor;
        bool remoteExists;
        const char* logged;
    } rows[] = {
        {"always full", 7, true, "Failed to write the received data to the output."},
        {"null", 3, false, "errorResponse"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TempDir dir;
        const std::string node = dir / row.name;
        if (::mknod(node.c_str(), S_IFCHR | 0666, makedev(1, row.minor)) != 0)
            GTEST_SKIP() << "cannot make a device node here: " << std::strerror(errno);
        if (row.remoteExists) writeFile(dir / "remote.bin", patternBytes(200000, 4));
        ProcessRig rig;
        XString remote((dir / "remote.bin").c_str()), local(node.c_str());
        EXPECT_FALSE(rig.scp.DownloadFile(remote, local, nullptr));
        EXPECT_NE(lastError(rig.scp).find(row.logged), std::string::npos) << lastError(rig.scp);
        struct stat st;
        ASSERT_EQ(::lstat(node.c_str(), &st), 0) << "the device node was deleted";
        EXPECT_TRUE(S_ISCHR(st.st_mode));
    }
}

}  // namespace
}  // namespace scpkit::test
