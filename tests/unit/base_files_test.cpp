// Local files and directories on a real file system: listing, existence,
// sizes, permissions, times, directory creation.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>

#include "base/FileIterator.h"
#include "base/FileSys.h"
#include "base/FileTime.h"
#include "base/XString.h"
#include "tests/unit/RecordingLog.h"
#include "tests/unit/ScratchDir.h"

namespace scpkit::test {
namespace {

// Restores the process umask at scope exit.
class UmaskGuard {
  public:
    explicit UmaskGuard(mode_t mask) : m_saved(::umask(mask)) {}
    ~UmaskGuard() { ::umask(m_saved); }

  private:
    mode_t m_saved;
};

mode_t modeOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st.st_mode;
}

// name -> isDirectory for every entry, counting repeats as failures.
std::map<std::string, bool> listAll(const std::string& dir, _vqFileIterator& it, LogBase& log) {
    std::map<std::string, bool> seen;
    EXPECT_TRUE(it.openDirectory(XString(dir.c_str()), log));
    for (int guard = 0; it.m_hasEntry && guard < 1000; ++guard) {
        XString name;
        EXPECT_TRUE(it.getFfFilename(name, log));
        EXPECT_TRUE(seen.emplace(name.getUtf8(), it.isDirectory()).second)
            << "entry listed twice: " << name.getUtf8();
        if (!it.advanceToNext(log)) break;
    }
    return seen;
}

TEST(FileIterator, ListsEveryEntryOnceAndNeverTakesALinkForADirectory) {
    ScratchDir tmp;
    tmp.write("plain.txt", "x");
    tmp.mkdir("sub");
    tmp.write("sub/inner", "y");  // not listed: only one level
    ASSERT_EQ(::symlink("sub", (tmp / "linkToDir").c_str()), 0);
    ASSERT_EQ(::symlink("plain.txt", (tmp / "linkToFile").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (tmp / "dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo((tmp / "pipe").c_str(), 0600), 0);

    std::unique_ptr<_vqFileIterator> it(_vqFileIterator::createNewObject());
    ASSERT_TRUE(it);
    RecordingLog log;
    const std::map<std::string, bool> expected = {
        {".", true},          {"..", true},          {"plain.txt", false}, {"sub", true},
        {"linkToDir", false}, {"linkToFile", false}, {"dangling", false},  {"pipe", false},
    };
    EXPECT_EQ(listAll(tmp.path(), *it, log), expected);

    // At the end it stays at the end and names nothing.
    EXPECT_FALSE(it->m_hasEntry);
    EXPECT_FALSE(it->advanceToNext(log));
    XString name;
    EXPECT_FALSE(it->getFfFilename(name, log));
    EXPECT_FALSE(log.contains("osError")) << log.all();

    // The same object lists another directory after being closed (twice).
    it->closeDirectory();
    it->closeDirectory();
    const std::map<std::string, bool> inner = {{".", true}, {"..", true}, {"inner", false}};
    EXPECT_EQ(listAll(tmp / "sub", *it, log), inner);
}

TEST(FileIterator, OpenFailsOnWhatIsNotAListableDirectory) {
    ScratchDir tmp;
    const std::string file = tmp.write("f", "data");
    struct Case {
        std::string path;
        const char* reason;
    } cases[] = {
        {tmp / "missing", "No such file or directory"},
        {file, "Not a directory"},
        {file + "/below", "Not a directory"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        std::unique_ptr<_vqFileIterator> it(_vqFileIterator::createNewObject());
        RecordingLog log;
        EXPECT_FALSE(it->openDirectory(XString(c.path.c_str()), log));
        EXPECT_FALSE(it->m_hasEntry);
        EXPECT_FALSE(it->advanceToNext(log));
        EXPECT_TRUE(log.contains("path: " + c.path)) << log.all();
        EXPECT_TRUE(log.contains(std::string("osError: ") + c.reason)) << log.all();
    }
}

TEST(FileSys, TellsFilesFromDirectoriesAndEverythingElse) {
    ScratchDir tmp;
    tmp.write("file", "abc");
    tmp.mkdir("dir");
    ASSERT_EQ(::symlink("file", (tmp / "toFile").c_str()), 0);
    ASSERT_EQ(::symlink("dir", (tmp / "toDir").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (tmp / "dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo((tmp / "pipe").c_str(), 0600), 0);

    struct Case {
        std::string path;
        bool isFile, isDir, noAccess;
    } cases[] = {
        {tmp / "file", true, false, false},
        {tmp / "dir", false, true, false},
        {tmp / "toFile", true, false, false},
        {tmp / "toDir", false, true, false},
        {tmp / "dangling", false, false, false},
        {tmp / "pipe", false, false, false},
        {tmp / "missing", false, false, false},
        {tmp / "file/below", false, false, false},
        // Cannot be examined at all: reported as no access, with the reason.
        {tmp / std::string(300, 'n'), false, false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        XString path(c.path.c_str());
        RecordingLog log;
        bool noAccess = !c.noAccess;
        EXPECT_EQ(FileSys::fileExistsX(path, &noAccess, &log), c.isFile);
        EXPECT_EQ(noAccess, c.noAccess);
        noAccess = !c.noAccess;
        EXPECT_EQ(FileSys::IsExistingDirectory(path, &noAccess, &log), c.isDir);
        EXPECT_EQ(noAccess, c.noAccess);
        // A plain "not there" is an answer, not something to log.
        EXPECT_EQ(log.hasError(), c.noAccess) << log.all();
        // The flag and the log are optional.
        EXPECT_EQ(FileSys::fileExistsX(path, nullptr, nullptr), c.isFile);
    }
}

TEST(FileSys, SizeOnlyOfRegularFiles) {
    ScratchDir tmp;
    const std::string big(100003, 'z');
    struct Case {
        std::string path;
        bool ok;
        int64_t size;
    } cases[] = {
        {tmp.write("big", big), true, 100003},
        {tmp.write("empty", ""), true, 0},
        {tmp.mkdir("dir"), false, -1},
        {tmp / "missing", false, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        RecordingLog log;
        bool ok = !c.ok;
        EXPECT_EQ(FileSys::fileSizeX_64(XString(c.path.c_str()), &log, ok), c.size);
        EXPECT_EQ(ok, c.ok);
        EXPECT_EQ(log.hasError(), !c.ok) << log.all();
    }
}

TEST(FileSys, PermissionBitsSetAndReadBack) {
    ScratchDir tmp;
    const std::string file = tmp.write("f", "x");
    const std::string dir = tmp.mkdir("d");
    for (unsigned mode : {0600u, 0644u, 0755u, 0000u, 04755u, 02750u, 01777u}) {
        for (const std::string& path : {file, dir}) {
            SCOPED_TRACE(path + " mode " + std::to_string(mode));
            XString p(path.c_str());
            RecordingLog log;
            EXPECT_TRUE(FileSys::setPerm(p, mode, &log)) << log.all();
            EXPECT_EQ(modeOf(path) & 07777, mode);
            bool ok = false;
            EXPECT_EQ(FileSys::getUnixPerms(p, &log, ok), mode);
            EXPECT_TRUE(ok);
        }
    }
    // Only permission bits are passed to the system, whatever the caller gives.
    XString p(file.c_str());
    EXPECT_TRUE(FileSys::setPerm(p, 0170644, nullptr));
    EXPECT_TRUE(S_ISREG(modeOf(file)));
    EXPECT_EQ(modeOf(file) & 07777, 0644u);

    XString missing((tmp / "missing").c_str());
    RecordingLog log;
    bool ok = true;
    FileSys::getUnixPerms(missing, &log, ok);
    EXPECT_FALSE(ok);
    EXPECT_FALSE(FileSys::setPerm(missing, 0644, &log));
    EXPECT_TRUE(log.contains("osError: No such file or directory")) << log.all();
}

TEST(FileSys, LastModifiedTimeInWholeSeconds) {
    ScratchDir tmp;
    const std::string file = tmp.write("f", "x");
    // Sub-second parts of the stored time must not show.
    struct timespec times[2] = {{1000000000, 0}, {1600000000, 999999999}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    VostrelFileTime t;
    RecordingLog log;
    ASSERT_TRUE(FileSys::GetFileLastModTimeGmt(XString(file.c_str()), t, &log));
    EXPECT_EQ(t.toUnixTime64(), 1600000000);
    VostrelFileTime sent;
    sent.fromUnixTime32(1600000000, 0);
    EXPECT_EQ(VostrelFileTime::compareFileTimeExact(sent, t), 0);

    EXPECT_FALSE(FileSys::GetFileLastModTimeGmt(XString((tmp / "missing").c_str()), t, &log));
    EXPECT_TRUE(log.hasError());
}

TEST(FileSys, DeleteRemovesOnceThenFails) {
    ScratchDir tmp;
    const std::string file = tmp.write("f", "x");
    RecordingLog log;
    EXPECT_TRUE(FileSys::deleteFileUtf8(file.c_str(), &log));
    EXPECT_NE(::access(file.c_str(), F_OK), 0);
    EXPECT_FALSE(log.hasError());
    EXPECT_FALSE(FileSys::deleteFileUtf8(file.c_str(), &log));
    EXPECT_TRUE(log.contains("path: " + file)) << log.all();
    EXPECT_FALSE(FileSys::deleteFileUtf8(file.c_str(), nullptr));
}

TEST(FileSys, CreateDirMakesOneLevelWithTheUmaskApplied) {
    ScratchDir tmp;
    UmaskGuard mask(027);
    tmp.write("file", "x");
    struct Case {
        std::string path;
        bool ok;
        bool logged;
    } cases[] = {
        {tmp / "new", true, false},  {tmp / "new", true, false},  // already there: nothing to do
        {tmp / "a/b", false, true},                               // parent missing
        {tmp / "file", false, true}, {tmp / "file/sub", false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        RecordingLog log;
        EXPECT_EQ(FileSys::createDir(XString(c.path.c_str()), &log), c.ok);
        EXPECT_EQ(log.hasError(), c.logged) << log.all();
    }
    EXPECT_EQ(modeOf(tmp / "new") & 07777, 0750u);
    EXPECT_TRUE(S_ISREG(modeOf(tmp / "file")));
}

TEST(DirAutoCreate, CreatesEveryMissingLevelButNotThroughAFile) {
    ScratchDir tmp;
    UmaskGuard mask(022);
    tmp.write("file", "x");
    tmp.mkdir("have");
    // On success `where` must now be a directory; on failure the log must
    // name `where`, the component that is in the way.
    struct Case {
        std::string path;
        bool ok;
        std::string where;
    } cases[] = {
        {tmp / "a/b/c/d", true, tmp / "a/b/c/d"},
        {tmp / "a/b/c/d", true, tmp / "a/b/c/d"},  // again: all there
        {tmp / "have/x/y", true, tmp / "have/x/y"},
        {tmp / "s1//s2///s3/", true, tmp / "s1/s2/s3"},
        {tmp / "a/./b/../e", true, tmp / "a/e"},
        {tmp.path(), true, ""},
        {tmp / "file", false, tmp / "file"},
        {tmp / "file/x/y", false, tmp / "file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        RecordingLog log;
        EXPECT_EQ(DirAutoCreate::ensureDirUtf8(c.path.c_str(), &log), c.ok) << log.all();
        EXPECT_EQ(log.hasError(), !c.ok) << log.all();
        if (c.ok && !c.where.empty()) {
            EXPECT_TRUE(S_ISDIR(modeOf(c.where)));
            EXPECT_EQ(modeOf(c.where) & 0777, 0755u);
        }
        if (!c.ok) {
            EXPECT_EQ(log.lines.back(), "path: " + c.where) << log.all();
        }
    }
    EXPECT_TRUE(S_ISREG(modeOf(tmp / "file")));
    EXPECT_NE(::access((tmp / "file/x").c_str(), F_OK), 0);
}

}  // namespace
}  // namespace scpkit::test
