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
#include "tests/support/TestKit.h"

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
        ASSERT_TRUE(writeFile(tmp.file("file"), "abc"));
        ASSERT_EQ(::mkdir(tmp.file("dir").c_str(), 0755), 0);
        ASSERT_EQ(::symlink("file", tmp.file("toFile").c_str()), 0);
        ASSERT_EQ(::symlink("dir", tmp.file("toDir").c_str()), 0);
        ASSERT_EQ(::symlink("pipe", tmp.file("toPipe").c_str()), 0);
        ASSERT_EQ(::mkfifo(tmp.file("pipe").c_str(), 0600), 0);
    }
    ScratchDir tmp{"scpkit-base"};
};

// Only a regular file has a size, is read as a source or is opened as an
// output without a reason logged (a fifo without a reader must not block).
TEST_F(FileKinds, OnlyRegularFilesAreFilesAndWhatIsRefusedSaysWhy) {
    const std::tuple<std::string, bool, int64_t, const char*, const char*> cases[] = {
        {"file", false, 3, nullptr, nullptr},
        {"toFile", false, 3, nullptr, nullptr},
        {"dir", true, -1, "fileKind: directory", "osError: Is a directory"},
        {"toDir", true, -1, "fileKind: directory", "osError: Is a directory"},
        {"pipe", false, -1, "fileKind: fifo", "osError: No such device or address"},
        {"no/x", false, -1, "osError: No such file or directory",
         "osError: No such file or directory"}};
    for (const auto& [name, isDir, size, readReason, writeReason] : cases) {
        const std::string path = tmp.file(name);
        XString x(path.c_str());
        _vqLogger log;
        bool noAccess = true, ok = false;
        EXPECT_EQ(FileSys::fileExistsX(x, &noAccess, &log), size >= 0) << name;
        EXPECT_EQ(FileSys::IsExistingDirectory(x, nullptr, &log), isDir) << name;
        EXPECT_EQ(FileSys::fileSizeX_64(x, nullptr, ok), size) << name;
        EXPECT_TRUE(!noAccess && renderedLog(log).empty()) << "a plain \"not there\" is no fault";
        _vqFileDataSource src;
        EXPECT_EQ(src.openDataSourceFile(x, log), !readReason) << name;
        std::unique_ptr<OutputFile> out(  // (regular files are written below)
            writeReason ? OutputFile::createFileUtf8(path.c_str(), log) : nullptr);
        EXPECT_FALSE(out) << name;
        for (const char* reason : {readReason, writeReason})
            EXPECT_TRUE(!reason ||
                        renderedLog(log).find("Path: " + path + "\n" + reason) != std::string::npos)
                << renderedLog(log);
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
    EXPECT_NE(fileMtime(pipe), 1234567890);
    EXPECT_EQ(renderedLog(log), "");
    for (const char* name : {"pipe", "toPipe"})
        EXPECT_FALSE(FileSys::setPerm(XString(tmp.file(name).c_str()), 0644, nullptr));
    for (const char* name : {"pipe", "dir"})
        EXPECT_FALSE(FileSys::deleteFileUtf8(tmp.file(name).c_str(), nullptr));
    EXPECT_TRUE(FileSys::deleteFileUtf8(tmp.file("toPipe").c_str(), nullptr));  // the link only
    EXPECT_TRUE(FileSys::setPerm(XString(tmp.file("dir").c_str()), 0700, nullptr));
    EXPECT_EQ(fileMode(pipe) * 010000 + fileMode(tmp.file("dir")), 0600u * 010000 + 0700u);
    EXPECT_TRUE(pathExists(pipe) && !pathExists(tmp.file("toPipe")));

    ::signal(SIGPIPE, SIG_IGN);  // a write that fails: the reader has gone
    out.reset(OutputFile::createFileUtf8(pipe.c_str(), log));
    ::close(reader);
    EXPECT_FALSE(out && writeTo(*out, "abc", log));
    EXPECT_NE(renderedLog(log).find("osError: Broken pipe"), std::string::npos);
}

// Written through an OutputFile over a longer file, read back through both
// data sources: exact bytes, mode bits and times to the second.
TEST(RegularFiles, OutputAndDataSourcesAgreeOnBytesModeAndTimes) {
    ScratchDir tmp("scpkit-base");
    const std::string path = tmp.file("data.bin");
    std::string content(300007, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 + i / 251);
    ASSERT_TRUE(writeFile(path, std::string(400000, 'o')));
    _vqLogger log;
    std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(path.c_str(), log));
    ASSERT_TRUE(out && out->isRegularFile() && readFile(path).empty());  // truncated
    ASSERT_TRUE(writeTo(*out, "first", log));
    out->resetOutput(log);  // starts over from the first byte, leaving no hole
    EXPECT_TRUE(writeTo(*out, content, log) &&
                out->setFileTimeUtc_3(at(1), at(1500000000), at(1400000000), nullptr));
    out->closeHandle();  // closing after the times must not move them
    ASSERT_TRUE(FileSys::setPerm(XString(path.c_str()), 0174751, nullptr));

    _vqFileDataSource src;
    unsigned perms = 0;
    VostrelFileTime created, accessed, modified;
    ASSERT_TRUE(src.openDataSourceFile(XString(path.c_str()), log));
    EXPECT_TRUE(src.getUnixModePerms(perms, log) && src.getFileTime(created, accessed, modified));
    EXPECT_EQ(perms, 04751u);
    EXPECT_EQ(accessed.toUnixTime64(), 1500000000);
    EXPECT_EQ(modified.toUnixTime64(), 1400000000);
    EXPECT_EQ(src.getFileSize64(&log), 300007);
    EXPECT_TRUE(FileSys::GetFileLastModTimeGmt(XString(path.c_str()), created, nullptr));
    EXPECT_EQ(created.toUnixTime64(), 1400000000);
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
    EXPECT_EQ(renderedLog(log), "");
}

}  // namespace
}  // namespace scpkit::test
