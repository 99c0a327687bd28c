// Local files on a real file system: kinds, data sources and outputs, modes
// and whole-second times, and what is not a regular file being left alone.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <tuple>

#include <scpkit/base/DataSource.h>
#include <scpkit/base/FileSys.h>
#include <scpkit/base/FileTime.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include "tests/support/ScpTestHelpers.h"

namespace scpkit::test {
namespace {

bool writeTo(_vqOutput& out, const std::string& bytes, LogBase& log,
             ProgressMonitor* pm = nullptr) {
    return out.writeBytes(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), pm,
                          log);
}

VostrelFileTime at(uint32_t seconds) {
    VostrelFileTime t;
    t.fromUnixTime32(seconds, 0);
    return t;
}

// A directory holding one of every kind of entry the component meets.
class FileKinds : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(writeWholeFile(tmp.file("file"), "abc"));
        ASSERT_EQ(::mkdir(tmp.file("dir").c_str(), 0755), 0);
        ASSERT_EQ(::symlink("file", tmp.file("toFile").c_str()), 0);
        ASSERT_EQ(::symlink("dir", tmp.file("toDir").c_str()), 0);
        ASSERT_EQ(::symlink("pipe", tmp.file("toPipe").c_str()), 0);
        ASSERT_EQ(::mkfifo(tmp.file("pipe").c_str(), 0600), 0);
    }
    ScratchDir tmp{"scpkit-base"};
};

TEST_F(FileKinds, OnlyRegularFilesHaveASize) {
    // path, isFile, isDir, size
    const std::tuple<std::string, bool, bool, int64_t> cases[] = {
        {"file", true, false, 3},   {"toFile", true, false, 3}, {"dir", false, true, -1},
        {"toDir", false, true, -1}, {"pipe", false, false, -1}, {"missing", false, false, -1}};
    for (const auto& [name, isFile, isDir, size] : cases) {
        XString x(tmp.file(name).c_str());
        _vqLogger log;
        bool noAccess = true, ok = false;
        EXPECT_EQ(FileSys::fileExistsX(x, &noAccess, &log), isFile) << name;
        EXPECT_EQ(FileSys::IsExistingDirectory(x, nullptr, nullptr), isDir) << name;
        EXPECT_EQ(FileSys::fileSizeX_64(x, nullptr, ok), size) << name;
        EXPECT_TRUE(!noAccess && renderedLog(log).empty()) << "a plain \"not there\" is no fault";
    }
}

// A fifo (with a reader) stands for any device: written through, never
// truncated, retimed, chmod-ed or deleted.
TEST_F(FileKinds, WhatIsNotARegularFileIsWrittenThroughAndOtherwiseLeftAlone) {
    const std::string pipe = tmp.file("pipe");
    int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    _vqLogger log;
    std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(pipe.c_str(), log));
    ASSERT_TRUE(reader >= 0 && out && !out->isRegularFile()) << renderedLog(log);
    out->resetOutput(log);
    EXPECT_TRUE(writeTo(*out, "through", log) &&
                out->setFileTimeUtc_3(at(1234567890), at(1234567890), at(1234567890), &log));
    out->closeHandle();
    char got[16] = {};
    EXPECT_EQ(::read(reader, got, sizeof got), 7);
    EXPECT_STREQ(got, "through");
    ::close(reader);
    EXPECT_NE(fileMtime(pipe), 1234567890);
    EXPECT_EQ(renderedLog(log), "");
    for (const char* name : {"pipe", "toPipe"})
        EXPECT_FALSE(FileSys::setPerm(XString(tmp.file(name).c_str()), 0644, nullptr));
    EXPECT_FALSE(FileSys::deleteFileUtf8(pipe.c_str(), nullptr));
    EXPECT_FALSE(FileSys::deleteFileUtf8(tmp.file("dir").c_str(), nullptr));
    EXPECT_TRUE(FileSys::deleteFileUtf8(tmp.file("toPipe").c_str(), nullptr));  // the link only
    EXPECT_TRUE(FileSys::setPerm(XString(tmp.file("dir").c_str()), 0700, nullptr));
    EXPECT_EQ(fileMode(pipe) * 010000 + fileMode(tmp.file("dir")), 0600u * 010000 + 0700u);
    EXPECT_TRUE(pathExists(pipe) && !pathExists(tmp.file("toPipe")));
}

TEST_F(FileKinds, WhatCannotBeReadOrWrittenFailsWithTheReasonLogged) {
    const std::tuple<std::string, const char*, const char*> cases[] = {
        {"dir", "fileKind: directory", "osError: Is a directory"},
        {"pipe", "fileKind: fifo", "osError: No such device or address"}};  // no reader: no wait
    for (const auto& [name, readReason, writeReason] : cases) {
        const std::string path = tmp.file(name);
        _vqFileDataSource src;
        _vqLogger log;
        EXPECT_FALSE(src.openDataSourceFile(XString(path.c_str()), log));
        EXPECT_LT(src.getFileSize64(nullptr), 0);  // nothing stays open
        EXPECT_EQ(OutputFile::createFileUtf8(path.c_str(), log), nullptr);
        for (const char* reason : {readReason, writeReason})
            EXPECT_NE(renderedLog(log).find("Path: " + path + "\n" + reason), std::string::npos)
                << renderedLog(log);
    }
    ::signal(SIGPIPE, SIG_IGN);  // a write fails: the fifo's reader has gone
    int reader = ::open(tmp.file("pipe").c_str(), O_RDONLY | O_NONBLOCK);
    _vqLogger log;
    std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(tmp.file("pipe").c_str(), log));
    ::close(reader);
    ASSERT_TRUE(out);
    EXPECT_FALSE(writeTo(*out, "abc", log));
    EXPECT_NE(renderedLog(log).find("osError: Broken pipe"), std::string::npos);
}

// Written through an OutputFile over a longer file, read back through both
// data sources: exact bytes, mode bits and times to the second.
TEST(RegularFiles, OutputAndDataSourcesAgreeOnBytesModeAndTimes) {
    ScratchDir tmp("scpkit-base");
    const std::string path = tmp.file("data.bin");
    std::string content(300007, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 + i / 251);
    ASSERT_TRUE(writeWholeFile(path, std::string(400000, 'o')));
    _vqLogger log;
    std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(path.c_str(), log));
    ASSERT_TRUE(out && out->isRegularFile() && writeTo(*out, "first", log));
    out->resetOutput(log);  // starts over from the first byte, leaving no hole
    EXPECT_TRUE(writeTo(*out, content, log) &&
                out->setFileTimeUtc_3(at(1), at(1500000000), at(1400000000), nullptr));
    out->closeHandle();  // closing after the times must not move them
    EXPECT_FALSE(writeTo(*out, "more", log));
    ASSERT_TRUE(FileSys::setPerm(XString(path.c_str()), 0174751, nullptr));

    _vqFileDataSource src;
    unsigned perms = 0;
    VostrelFileTime created, accessed, modified;
    ASSERT_TRUE(src.openDataSourceFile(XString(path.c_str()), log));
    EXPECT_TRUE(src.getUnixModePerms(perms, log) && src.getFileTime(created, accessed, modified));
    EXPECT_EQ(perms, 04751u);
    EXPECT_EQ(modified.toUnixTime64(), 1400000000);
    EXPECT_EQ(src.getFileSize64(&log), 300007);
    DataBuffer app;
    app.append(content.data(), content.size());
    {
        _vqMemoryDataSource memory;
        memory.takeDataBuffer(app);
        EXPECT_EQ(app.getSize(), 0u);  // taken over, not copied
        for (_vqDataSource* source : std::initializer_list<_vqDataSource*>{&src, &memory}) {
            std::string got(1 << 17, '\0'), all;
            for (size_t n = 1; n > 0; all.append(got, 0, n))
                ASSERT_TRUE(source->readSourceChunk(reinterpret_cast<unsigned char*>(got.data()),
                                                    got.size(), n, log));
            EXPECT_TRUE(all == content);
        }
    }
    EXPECT_EQ(app.getSize(), content.size());  // handed back
    EXPECT_TRUE(FileSys::GetFileLastModTimeGmt(XString(path.c_str()), created, nullptr));
    EXPECT_EQ(created.toUnixTime64(), 1400000000);
    EXPECT_EQ(accessed.toUnixTime64(), 1500000000);
    EXPECT_EQ(renderedLog(log), "The local file is closed.\n");  // and nothing else
}

TEST(OutputDataBuffer, AppendsCountsOnlyWhenAskedAndStopsOnAbort) {
    struct StopAtHalf : ProgressEvent {
        void OnPercent(int percent, bool& abort) override { abort = percent >= 50; }
    } callback;
    ProgressMonitor pm(&callback, 0, 100, 100);
    DataBuffer db;
    db.appendStr("keep");
    OutputDataBuffer out(&db);
    _vqLogger log;
    out.expectBytes(1LL << 62);  // a size a server may lie about: no huge allocation
    EXPECT_TRUE(writeTo(out, std::string("a\0b", 3), log, &pm) && pm.done() == 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize()),
              std::string("keepa\0b", 7));
    out.resetOutput(log);
    out.m_reportsProgress = true;
    EXPECT_TRUE(writeTo(out, std::string(10, 'x'), log, &pm));
    EXPECT_FALSE(writeTo(out, std::string(40, 'y'), log, &pm));  // 50 %: the application says stop
    EXPECT_EQ(pm.done() * 1000 + db.getSize(), 50050);           // what was written stays written
}

}  // namespace
}  // namespace scpkit::test
