// Data sources and outputs on real files and buffers: what is refused, the
// exact bytes read and written, times, truncation, write errors, progress.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "base/DataBuffer.h"
#include "base/DataSource.h"
#include "base/FileTime.h"
#include "base/Output.h"
#include "base/Progress.h"
#include "base/XString.h"
#include "tests/unit/RecordingLog.h"
#include "tests/unit/ScratchDir.h"

namespace scpkit::test {
namespace {

// Bytes of every value, in an order that shows any shift or repeat.
std::string patternBytes(size_t n) {
    std::string s(n, '\0');
    uint32_t x = 12345;
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245u + 12345u;
        s[i] = static_cast<char>(x >> 24);
    }
    return s;
}

std::string readAll(_vqDataSource& src, size_t chunk, LogBase& log) {
    std::string out;
    std::string buf(chunk, '\0');
    for (int guard = 0; guard < 10000000; ++guard) {
        size_t n = 99;
        EXPECT_TRUE(
            src.readSourceChunk(reinterpret_cast<unsigned char*>(buf.data()), chunk, n, log));
        if (n == 0) break;
        EXPECT_LE(n, chunk);
        out.append(buf, 0, n);
    }
    return out;
}

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st;
}

TEST(FileDataSource, RefusesWhatIsNotARegularFileWithoutBlocking) {
    ScratchDir tmp;
    const std::string fifo = tmp / "pipe";  // no writer: opening must not wait
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    struct Case {
        std::string path;
        const char* reason;
    } cases[] = {
        {tmp.mkdir("dir"), "fileKind: directory"},
        {fifo, "fileKind: fifo"},
        {"/dev/zero", "fileKind: character device"},  // would stream without end
        {tmp / "missing", "osError: No such file or directory"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        _vqFileDataSource src;
        RecordingLog log;
        EXPECT_FALSE(src.openDataSourceFile(XString(c.path.c_str()), log));
        EXPECT_TRUE(log.contains(c.reason)) << log.all();
        EXPECT_TRUE(log.contains("localFilePath: " + c.path)) << log.all();
        // Nothing stays open to read from.
        EXPECT_LT(src.getFileSize64(nullptr), 0);
        unsigned char b[4];
        size_t n = 7;
        EXPECT_FALSE(src.readSourceChunk(b, sizeof b, n, log));
        EXPECT_EQ(n, 0u);
    }
}

TEST(FileDataSource, ReadsExactlyTheFileBytesInAnyChunking) {
    ScratchDir tmp;
    const std::string content = patternBytes(300007);
    const std::string path = tmp.write("data.bin", content);
    ASSERT_EQ(::symlink("data.bin", (tmp / "link").c_str()), 0);
    for (const std::string& p : {path, tmp / "link"}) {
        for (size_t chunk : {size_t{1} << 18, size_t{4096}, size_t{7}}) {
            SCOPED_TRACE(p + " chunk " + std::to_string(chunk));
            _vqFileDataSource src;
            RecordingLog log;
            ASSERT_TRUE(src.openDataSourceFile(XString(p.c_str()), log)) << log.all();
            EXPECT_EQ(src.getFileSize64(&log), static_cast<int64_t>(content.size()));
            EXPECT_TRUE(readAll(src, chunk, log) == content);
            EXPECT_FALSE(log.hasError()) << log.all();
        }
    }
    _vqFileDataSource empty;
    RecordingLog log;
    ASSERT_TRUE(empty.openDataSourceFile(XString(tmp.write("empty", "").c_str()), log));
    EXPECT_EQ(empty.getFileSize64(&log), 0);
    EXPECT_EQ(readAll(empty, 16, log), "");
}

TEST(FileDataSource, ModeAndTimesComeFromTheOpenFile) {
    ScratchDir tmp;
    const std::string path = tmp.write("f", "abc");
    ASSERT_EQ(::chmod(path.c_str(), 04751), 0);
    struct timespec times[2] = {{1500000000, 999999999}, {1400000000, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);

    _vqFileDataSource src;
    RecordingLog log;
    unsigned perms = 0123;
    VostrelFileTime created, accessed, modified;
    // Not open yet: nothing is known and nothing is changed.
    EXPECT_FALSE(src.getUnixModePerms(perms, log));
    EXPECT_EQ(perms, 0123u);
    EXPECT_FALSE(src.getFileTime(created, accessed, modified));

    ASSERT_TRUE(src.openDataSourceFile(XString(path.c_str()), log));
    EXPECT_TRUE(src.getUnixModePerms(perms, log));
    EXPECT_EQ(perms, 04751u);
    ASSERT_TRUE(src.getFileTime(created, accessed, modified));
    EXPECT_EQ(accessed.toUnixTime64(), 1500000000);  // sub-second parts dropped
    EXPECT_EQ(modified.toUnixTime64(), 1400000000);

    // Reopening on a missing path leaves nothing open.
    EXPECT_FALSE(src.openDataSourceFile(XString((tmp / "gone").c_str()), log));
    EXPECT_FALSE(src.getFileTime(created, accessed, modified));
}

TEST(MemoryDataSource, ReadsTheBufferAndHandsItBackUncopied) {
    const std::string content = patternBytes(10000);
    DataBuffer app;
    app.append(content.data(), content.size());
    const unsigned char* storage = app.getData2();
    {
        _vqMemoryDataSource src;
        src.takeDataBuffer(app);
        EXPECT_EQ(app.getSize(), 0u);  // taken over, not copied
        RecordingLog log;
        EXPECT_TRUE(readAll(src, 333, log) == content);
        EXPECT_EQ(readAll(src, 333, log), "");  // stays at the end
    }
    ASSERT_EQ(app.getSize(), content.size());
    EXPECT_EQ(app.getData2(), storage);
    EXPECT_TRUE(app.equals(content.data(), content.size()));

    _vqMemoryDataSource none;  // nothing taken: an empty source
    RecordingLog log;
    EXPECT_EQ(readAll(none, 8, log), "");
}

TEST(OutputFile, CreatesOrTruncatesAndWritesExactBytes) {
    ScratchDir tmp;
    ::mode_t saved = ::umask(022);
    const std::string path = tmp.write("out", std::string(5000, 'o'));
    RecordingLog log;
    std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(path.c_str(), log));
    ASSERT_TRUE(out) << log.all();
    EXPECT_EQ(statOf(path).st_size, 0);  // truncated on creation
    std::unique_ptr<OutputFile> fresh(OutputFile::createFileUtf8((tmp / "new").c_str(), log));
    ::umask(saved);
    ASSERT_TRUE(fresh);
    EXPECT_EQ(statOf(tmp / "new").st_mode & 07777, 0644u);

    const std::string a = patternBytes(70000), b = "tail";
    EXPECT_TRUE(
        out->writeBytes(reinterpret_cast<const unsigned char*>(a.data()), a.size(), nullptr, log));
    EXPECT_TRUE(
        out->writeBytes(reinterpret_cast<const unsigned char*>(b.data()), b.size(), nullptr, log));
    EXPECT_TRUE(ScratchDir::read(path) == a + b);

    // Reset starts the file over from its first byte, leaving no hole.
    out->resetOutput(log);
    EXPECT_EQ(statOf(path).st_size, 0);
    EXPECT_TRUE(
        out->writeBytes(reinterpret_cast<const unsigned char*>(b.data()), b.size(), nullptr, log));
    EXPECT_EQ(ScratchDir::read(path), "tail");
    EXPECT_FALSE(log.hasError()) << log.all();

    // Closed (twice): later writes fail cleanly, the content stays.
    out->closeHandle();
    out->closeHandle();
    EXPECT_FALSE(
        out->writeBytes(reinterpret_cast<const unsigned char*>(b.data()), b.size(), nullptr, log));
    EXPECT_TRUE(log.hasError());
    EXPECT_EQ(ScratchDir::read(path), "tail");
}

TEST(OutputFile, SetsAccessAndModificationTimesInThatOrder) {
    ScratchDir tmp;
    const std::string path = tmp / "t";
    RecordingLog log;
    std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(path.c_str(), log));
    ASSERT_TRUE(out);
    const unsigned char byte = 'x';
    ASSERT_TRUE(out->writeBytes(&byte, 1, nullptr, log));
    VostrelFileTime modified, accessed;
    modified.fromUnixTime32(1234567890, 0);
    accessed.fromUnixTime32(1111111111, 0);
    // As the download does it: (last-modified, last-access, last-modified).
    EXPECT_TRUE(out->setFileTimeUtc_3(modified, accessed, modified, nullptr));
    out->closeHandle();  // closing after the times must not move them
    struct stat st = statOf(path);
    EXPECT_EQ(st.st_mtim.tv_sec, 1234567890);
    EXPECT_EQ(st.st_mtim.tv_nsec, 0);
    EXPECT_EQ(st.st_atim.tv_sec, 1111111111);
    EXPECT_FALSE(out->setFileTimeUtc_3(modified, accessed, modified, &log));
}

TEST(OutputFile, ReportsWhyItCannotCreateOrWrite) {
    ScratchDir tmp;
    const std::string fifo = tmp / "pipe";  // no reader: creating must not wait
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    struct Case {
        std::string path;
        const char* reason;
    } cases[] = {
        {tmp / "missing/out", "No such file or directory"},
        {tmp.mkdir("dir"), "Is a directory"},
        {fifo, "No such device or address"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        RecordingLog log;
        EXPECT_EQ(OutputFile::createFileUtf8(c.path.c_str(), log), nullptr);
        EXPECT_TRUE(log.contains("localFilePath: " + c.path)) << log.all();
        EXPECT_TRUE(log.contains(std::string("osError: ") + c.reason)) << log.all();
    }

    RecordingLog log;
    std::unique_ptr<OutputFile> full(OutputFile::createFileUtf8("/dev/full", log));
    ASSERT_TRUE(full) << log.all();
    const unsigned char bytes[3] = {1, 2, 3};
    EXPECT_FALSE(full->writeBytes(bytes, sizeof bytes, nullptr, log));
    EXPECT_TRUE(log.contains("osError: No space left on device")) << log.all();
}

TEST(OutputDataBuffer, AppendsAndResetClears) {
    DataBuffer db;
    db.appendStr("keep");
    OutputDataBuffer out(&db);
    RecordingLog log;
    EXPECT_TRUE(out.writeBytes(reinterpret_cast<const unsigned char*>("ab"), 2, nullptr, log));
    EXPECT_TRUE(out.writeBytes(reinterpret_cast<const unsigned char*>("c\0d"), 3, nullptr, log));
    EXPECT_TRUE(db.equals("keepabc\0d", 9));
    out.resetOutput(log);
    EXPECT_EQ(db.getSize(), 0u);
    EXPECT_TRUE(out.writeBytes(reinterpret_cast<const unsigned char*>("z"), 1, nullptr, log));
    EXPECT_TRUE(db.equals("z", 1));
}

// Asks to stop as soon as half of the work is reported done.
class StopAtHalf : public ProgressEvent {
  public:
    void OnPercent(int percent, bool& abort) override {
        if (percent >= 50) abort = true;
    }
};

TEST(OutputDataBuffer, CountsIntoTheMonitorOnlyWhenAskedAndStopsOnAbort) {
    StopAtHalf callback;
    ProgressMonitor pm(&callback, 0, 100, 100);
    DataBuffer db;
    OutputDataBuffer out(&db);
    RecordingLog log;
    const std::string ten(10, 'x'), forty(40, 'y');
    auto write = [&](const std::string& s) {
        return out.writeBytes(reinterpret_cast<const unsigned char*>(s.data()), s.size(), &pm, log);
    };

    EXPECT_TRUE(write(forty));
    EXPECT_EQ(pm.done(), 0);  // flag not set: not counted
    out.m_reportsProgress = true;
    EXPECT_TRUE(write(ten));
    EXPECT_EQ(pm.done(), 10);
    EXPECT_TRUE(out.writeBytes(nullptr, 0, &pm, log));
    EXPECT_EQ(pm.done(), 10);
    EXPECT_FALSE(write(forty));  // 50 %: the application says stop
    EXPECT_EQ(pm.done(), 50);
    EXPECT_EQ(db.getSize(), 90u);  // what was written stays written
    // No monitor: nothing to count, nothing to stop.
    EXPECT_TRUE(out.writeBytes(reinterpret_cast<const unsigned char*>("q"), 1, nullptr, log));
}

}  // namespace
}  // namespace scpkit::test
