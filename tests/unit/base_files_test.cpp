// Local files and directories on a real file system: listing, kinds and
// sizes, data sources and outputs, permission bits, whole-second times.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <set>
#include <tuple>

#include <scpkit/base/DataSource.h>
#include <scpkit/base/FileIterator.h>
#include <scpkit/base/FileSys.h>
#include <scpkit/base/FileTime.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include "tests/unit/BaseTestHelpers.h"

namespace scpkit::test {
namespace {

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st;
}

bool writeTo(_vqOutput& out, const std::string& bytes, ProgressMonitor* pm, LogBase& log) {
    return out.writeBytes(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), pm,
                          log);
}

// Every byte value, in an order that shows a shift or a repeat.
std::string patternBytes(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 7 + i / 251);
    return s;
}

// A directory holding one of every kind of entry the walks meet.
class FileKinds : public ::testing::Test {
  protected:
    void SetUp() override {
        tmp.write("file", "abc");
        ::mkdir((tmp / "dir").c_str(), 0755);
        tmp.write("dir/inner", "");
        ASSERT_EQ(::symlink("file", (tmp / "toFile").c_str()), 0);
        ASSERT_EQ(::symlink("dir", (tmp / "toDir").c_str()), 0);
        ASSERT_EQ(::symlink("nowhere", (tmp / "dangling").c_str()), 0);
        ASSERT_EQ(::mkfifo((tmp / "pipe").c_str(), 0600), 0);  // no peer: nothing may wait on it
    }
    TempDir tmp;
};

TEST_F(FileKinds, IteratorListsEveryEntryOnceAndNoLinkAsADirectory) {
    std::unique_ptr<_vqFileIterator> it(_vqFileIterator::createNewObject());
    _vqLogger log;
    for (const auto& [dir, expected] :
         {std::make_pair(tmp.path, "../ ./ dangling dir/ file pipe toDir toFile "),
          std::make_pair(tmp / "dir", "../ ./ inner ")}) {
        ASSERT_TRUE(it->openDirectory(XString(dir.c_str()), log));
        std::multiset<std::string> seen;
        XString name;
        for (int guard = 0; it->m_hasEntry && guard < 100; ++guard, it->advanceToNext(log)) {
            EXPECT_TRUE(it->getFfFilename(name, log));
            seen.insert(std::string(name.getUtf8()) + (it->isDirectory() ? "/" : ""));
        }
        std::string listed;
        for (const std::string& s : seen) listed += s + " ";
        EXPECT_EQ(listed, expected);
        EXPECT_FALSE(it->advanceToNext(log) || it->getFfFilename(name, log));  // stays at the end
    }
}

TEST_F(FileKinds, FileSysTellsRegularFilesFromDirectoriesAndEverythingElse) {
    // isFile, isDir, noAccess, size (only regular files have one)
    const std::tuple<std::string, bool, bool, bool, int64_t> cases[] = {
        {tmp / "file", true, false, false, 3},
        {tmp / "dir", false, true, false, -1},
        {tmp / "toDir", false, true, false, -1},
        {tmp / "dangling", false, false, false, -1},
        {tmp / "pipe", false, false, false, -1},
        {tmp / std::string(300, 'n'), false, false, true, -1},  // cannot be examined at all
    };
    for (const auto& [path, isFile, isDir, noAccess, size] : cases) {
        XString x(path.c_str());
        _vqLogger log;
        bool fileNoAccess = !noAccess, dirNoAccess = !noAccess, sizeOk = false;
        EXPECT_EQ(FileSys::fileExistsX(x, &fileNoAccess, &log), isFile) << path;
        EXPECT_EQ(FileSys::IsExistingDirectory(x, &dirNoAccess, nullptr), isDir) << path;
        EXPECT_EQ(FileSys::fileSizeX_64(x, nullptr, sizeOk), size) << path;
        EXPECT_TRUE(fileNoAccess == noAccess && dirNoAccess == noAccess && sizeOk == (size >= 0));
        EXPECT_EQ(logText(log).empty(), !noAccess) << "a plain \"not there\" is not logged";
    }
}

TEST_F(FileKinds, DataSourceAndOutputFileRefuseWhatIsNotARegularFileWithoutBlocking) {
    const std::tuple<std::string, const char*, const char*> cases[] = {
        {tmp / "dir", "fileKind: directory", "osError: Is a directory"},
        {tmp / "pipe", "fileKind: fifo", "osError: No such device or address"},
        {"/dev/zero", "fileKind: character device", nullptr},  // would stream without end
        {tmp / "dangling", "osError: No such file or directory", nullptr},
        {tmp / "missing/out", nullptr, "osError: No such file or directory"},
    };
    for (const auto& [path, readReason, writeReason] : cases) {
        _vqFileDataSource src;
        _vqLogger log;
        EXPECT_FALSE(readReason && src.openDataSourceFile(XString(path.c_str()), log));
        EXPECT_LT(src.getFileSize64(nullptr), 0);  // nothing stays open
        EXPECT_EQ(writeReason ? OutputFile::createFileUtf8(path.c_str(), log) : nullptr, nullptr);
        for (const char* reason : {readReason, writeReason})
            EXPECT_TRUE(!reason || logHas(log, "localFilePath: " + path + "\n" + reason))
                << logText(log);
    }
    _vqLogger log;
    std::unique_ptr<OutputFile> full(OutputFile::createFileUtf8("/dev/full", log));
    ASSERT_TRUE(full) << logText(log);
    EXPECT_FALSE(writeTo(*full, "abc", nullptr, log));
    EXPECT_TRUE(logHas(log, "osError: No space left on device")) << logText(log);
}

TEST(DataSources, ReadExactBytesAndTheFilesModeAndWholeSecondTimes) {
    TempDir tmp;
    const std::string content = patternBytes(300007), path = tmp.write("data.bin", content);
    ASSERT_EQ(::chmod(path.c_str(), 04751), 0);
    const struct timespec times[2] = {{1500000000, 999999999}, {1400000000, 500000000}};
    for (size_t chunk : {size_t{1} << 18, size_t{7}}) {
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);  // reading moves the atime
        _vqFileDataSource src;
        _vqLogger log;
        unsigned perms = 0;
        VostrelFileTime created, accessed, modified;
        ASSERT_TRUE(src.openDataSourceFile(XString(path.c_str()), log));
        EXPECT_TRUE(src.getUnixModePerms(perms, log) &&
                    src.getFileTime(created, accessed, modified));
        EXPECT_EQ(perms, 04751u);
        EXPECT_EQ(accessed.toUnixTime64(), 1500000000);
        EXPECT_EQ(modified.toUnixTime64(), 1400000000);
        EXPECT_EQ(src.getFileSize64(&log), 300007);
        DataBuffer app = bufferOf(content);
        const unsigned char* storage = app.getData2();
        {
            _vqMemoryDataSource memory;
            memory.takeDataBuffer(app);
            EXPECT_EQ(app.getSize(), 0u);  // taken over, not copied
            for (_vqDataSource* source : std::initializer_list<_vqDataSource*>{&src, &memory}) {
                std::string got(chunk, '\0'), all;
                for (size_t n = 1; n > 0; all.append(got, 0, n))
                    ASSERT_TRUE(source->readSourceChunk(
                        reinterpret_cast<unsigned char*>(got.data()), chunk, n, log));
                EXPECT_TRUE(all == content) << "chunk " << chunk;
            }
        }
        EXPECT_TRUE(app.getData2() == storage && bytesOf(app) == content);  // and handed back
    }
    VostrelFileTime modified;
    bool ok = false;
    EXPECT_TRUE(FileSys::GetFileLastModTimeGmt(XString(path.c_str()), modified, nullptr) &&
                FileSys::setPerm(XString(path.c_str()), 0174750, nullptr));
    EXPECT_EQ(modified.toUnixTime64(), 1400000000);
    EXPECT_EQ(FileSys::getUnixPerms(XString(path.c_str()), nullptr, ok), 04750u);
}

TEST(OutputFile, TruncatesWritesExactBytesAndSetsWholeSecondTimes) {
    TempDir tmp;
    const std::string path = tmp.write("out", std::string(5000, 'o')), big = patternBytes(70000);
    _vqLogger log;
    std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(path.c_str(), log));
    ASSERT_TRUE(out && statOf(path).st_size == 0) << logText(log);
    EXPECT_TRUE(writeTo(*out, big, nullptr, log) && writeTo(*out, "tail", nullptr, log));
    EXPECT_TRUE(TempDir::read(path) == big + "tail");
    out->resetOutput(log);  // starts over from the first byte, leaving no hole
    VostrelFileTime modified, accessed;
    modified.fromUnixTime32(1234567890, 0);
    accessed.fromUnixTime32(1111111111, 0);
    EXPECT_TRUE(writeTo(*out, "tail", nullptr, log) &&
                out->setFileTimeUtc_3(modified, accessed, modified, nullptr));
    out->closeHandle();  // closing after the times must not move them
    EXPECT_EQ(logText(log), "");
    EXPECT_FALSE(writeTo(*out, "more", nullptr, log));
    struct stat st = statOf(path);
    EXPECT_EQ(TempDir::read(path), "tail");
    EXPECT_EQ(st.st_mtim.tv_sec * 1000000000 + st.st_mtim.tv_nsec, 1234567890000000000);
    EXPECT_EQ(st.st_atim.tv_sec, 1111111111);
}

TEST(OutputDataBuffer, AppendsCountsOnlyWhenAskedAndStopsOnAbort) {
    struct StopAtHalf : ProgressEvent {
        void OnPercent(int percent, bool& abort) override { abort = percent >= 50; }
    } callback;
    ProgressMonitor pm(&callback, 0, 100, 100);
    DataBuffer db = bufferOf("keep");
    OutputDataBuffer out(&db);
    _vqLogger log;
    EXPECT_TRUE(writeTo(out, std::string("a\0b", 3), &pm, log) && pm.done() == 0);  // not counted
    EXPECT_EQ(bytesOf(db), std::string("keepa\0b", 7));
    out.resetOutput(log);
    out.m_reportsProgress = true;
    EXPECT_TRUE(writeTo(out, std::string(10, 'x'), &pm, log));
    EXPECT_FALSE(writeTo(out, std::string(40, 'y'), &pm, log));  // 50 %: the application says stop
    EXPECT_EQ(pm.done() * 1000 + db.getSize(), 50050);           // what was written stays written
}

TEST(OutputDataBuffer, MakesRoomOnceForAnnouncedBytesAndIgnoresImpossibleCounts) {
    DataBuffer db = bufferOf("head");
    OutputDataBuffer out(&db);
    _vqLogger log;
    const std::string chunk(4096, 'z');
    out.expectBytes(256 * 4096);
    const unsigned char* where = db.getData2();
    for (int i = 0; i < 256; ++i) ASSERT_TRUE(writeTo(out, chunk, nullptr, log));
    EXPECT_EQ(db.getData2(), where);  // never regrown, so never copied
    EXPECT_EQ(db.getSize(), 4u + 256 * 4096);
    out.expectBytes(LLONG_MAX);  // more than can be reserved: the buffer just grows later
    out.expectBytes(-1);
    EXPECT_TRUE(writeTo(out, "tail", nullptr, log));
    EXPECT_EQ(bytesOf(db).substr(0, 5) + bytesOf(db).substr(db.getSize() - 5), "headzztail");
    EXPECT_EQ(logText(log), "");
}

}  // namespace
}  // namespace scpkit::test
