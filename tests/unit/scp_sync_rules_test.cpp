// The per-file decisions of the tree synchronisations, against real local
// files with chosen sizes and times and a map of remote records.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/ExtPtrArray.h"
#include "base/Logger.h"
#include "base/StringHashMap.h"
#include "base/XString.h"
#include "scp/ClsScp.h"
#include "scp/ScpFileInfo.h"
#include "tests/support/ClsScpTestAccess.h"
#include "tests/support/TreeFiles.h"

namespace scpkit::test {
namespace {

constexpr int64_t kT = 1600000000;  // the reference modification time
constexpr int64_t kSize = 100;

// The states of the other side that every mode is asked about.
enum Other { Missing, Older, Newer, NewerResized, Equal, EqualResized, kNumOthers };
const char* const kOtherNames[] = {"missing",    "older", "newer",
                                   "newer+size", "equal", "equal+size"};

std::string render(_vqLogger& log) {
    std::string text;
    log.renderText(text);
    return text;
}

// Writes the local file of a download case: its time and size relative to
// the remote record (kT, kSize).
void writeLocalForDownload(const std::string& path, Other other) {
    switch (other) {
        case Missing:
            break;
        case Older:
            writeFile(path, std::string(kSize, 'x'), kT - 100);
            break;
        case Newer:
            writeFile(path, std::string(kSize, 'x'), kT + 100);
            break;
        case NewerResized:
            writeFile(path, std::string(kSize + 1, 'x'), kT + 100);
            break;
        case Equal:
            writeFile(path, std::string(kSize, 'x'), kT);
            break;
        case EqualResized:
            writeFile(path, std::string(kSize - 1, 'x'), kT);
            break;
        default:
            break;
    }
}

struct ModeRow {
    int mode;
    bool expect[kNumOthers];
};

TEST(SyncRulesTest, NeedToDownloadFollowsTheModeTable) {
    // missing, older, newer, newer+size, equal, equal+size (the local file's state)
    const ModeRow rows[] = {
        {0, {true, true, true, true, true, true}},
        {1, {true, false, false, false, false, false}},
        {2, {true, true, false, false, false, false}},
        {3, {false, true, false, false, false, false}},
        {4, {false, true, false, false, false, false}},  // like 3, on purpose
        {5, {true, false, false, true, false, true}},
        {6, {true, true, false, true, false, true}},
        {7, {false, true, false, false, false, false}},
        {-1, {false, true, false, false, false, false}},
    };
    ClsScp scp;
    for (const ModeRow& row : rows) {
        for (int other = 0; other < kNumOthers; ++other) {
            SCOPED_TRACE("mode " + std::to_string(row.mode) + ", local " + kOtherNames[other]);
            TreeDir root;
            writeLocalForDownload(root.sub("sub/f.txt"), static_cast<Other>(other));

            ScpFileInfo remote;
            remote.fileSize = kSize;
            remote.lastModTime.fromUnixTime64(kT);
            remote.filename.setString("f.txt");
            remote.rFilePath.setString("sub/f.txt");
            XString localRoot(root.path().c_str());
            XString localPath("stale");
            _vqLogger log;
            log.m_verboseLogging = true;

            bool got =
                ClsScpTestAccess::needToDownload(scp, row.mode, localRoot, remote, localPath, log);
            EXPECT_EQ(got, row.expect[other]);
            // The local path is given back in every mode and every outcome.
            EXPECT_STREQ(localPath.getUtf8(), root.sub("sub/f.txt").c_str());
            if (other == Missing && row.mode != 0) {
                EXPECT_NE(render(log).find("because local file does not exist."),
                          std::string::npos);
            }
        }
    }
}

TEST(SyncRulesTest, NeedToDownloadCreatesDirectoriesOnlyWhenMissingExceptInModeZero) {
    ClsScp scp;
    for (int mode : {0, 1, 3, 5, 6, 9}) {
        for (bool exists : {false, true}) {
            SCOPED_TRACE("mode " + std::to_string(mode) + (exists ? ", exists" : ", missing"));
            TreeDir root;
            if (exists) makeDir(root.sub("a/b"));
            ScpFileInfo remote;
            remote.isDirectory = true;
            remote.rFilePath.setString("a/b");
            XString localRoot(root.path().c_str());
            XString localPath;
            _vqLogger log;
            bool got =
                ClsScpTestAccess::needToDownload(scp, mode, localRoot, remote, localPath, log);
            EXPECT_EQ(got, mode == 0 || !exists);
            EXPECT_STREQ(localPath.getUtf8(), root.sub("a/b").c_str());
        }
    }
    // The remote root's own record has the empty relative path: the local root.
    TreeDir root;
    ScpFileInfo rootRecord;
    rootRecord.isDirectory = true;
    XString localRoot(root.path().c_str());
    XString localPath;
    _vqLogger log;
    EXPECT_FALSE(ClsScpTestAccess::needToDownload(scp, 1, localRoot, rootRecord, localPath, log));
    EXPECT_STREQ(localPath.getUtf8(), root.path().c_str());
}

// A remote record for the upload map, relative to the local file (kT, kSize).
ScpFileInfo* remoteForUpload(Other other) {
    auto* r = new ScpFileInfo();
    r->fileSize = kSize;
    switch (other) {
        case Older:
            r->lastModTime.fromUnixTime64(kT - 100);
            break;  // the local file is newer
        case Newer:
            r->lastModTime.fromUnixTime64(kT + 100);
            break;
        case NewerResized:
            r->lastModTime.fromUnixTime64(kT + 100);
            r->fileSize = kSize + 5;
            break;
        case Equal:
            r->lastModTime.fromUnixTime64(kT);
            break;
        case EqualResized:
            r->lastModTime.fromUnixTime64(kT);
            r->fileSize = kSize - 5;
            break;
        default:
            break;
    }
    return r;
}

TEST(SyncRulesTest, NeedToUploadFollowsTheModeTable) {
    // missing, remote older, remote newer, remote newer+size, equal, equal+size
    const ModeRow rows[] = {
        {0, {true, true, true, true, true, true}},
        {1, {true, false, false, false, false, false}},
        {2, {true, true, false, false, false, false}},
        {3, {false, true, false, false, false, false}},
        {4, {true, false, false, true, false, true}},
        {5, {true, true, false, true, false, true}},
        {6, {false, true, false, false, false, false}},
        {-3, {false, true, false, false, false, false}},
    };
    ClsScp scp;
    TreeDir root;
    writeFile(root.sub("d/f.txt"), std::string(kSize, 'y'), kT);
    XString localRoot(root.path().c_str());
    XString localPath(root.sub("d/f.txt").c_str());
    for (const ModeRow& row : rows) {
        for (int other = 0; other < kNumOthers; ++other) {
            SCOPED_TRACE("mode " + std::to_string(row.mode) + ", remote " + kOtherNames[other]);
            StringHashMap* map = StringHashMap::createNewObject(101);
            ASSERT_NE(map, nullptr);
            if (other != Missing) map->hashInsert("d/f.txt", remoteForUpload(Other(other)));
            _vqLogger log;
            EXPECT_EQ(ClsScpTestAccess::needToUpload(scp, row.mode, localPath, localRoot, map, log),
                      row.expect[other]);
            VostrelObject::deleteObject(map);
        }
    }
}

TEST(SyncRulesTest, NeedToUploadWithoutAMapOnlyCopiesInModeZero) {
    ClsScp scp;
    TreeDir root;
    writeFile(root.sub("f"), "x");
    XString localRoot(root.path().c_str());
    XString localPath(root.sub("f").c_str());
    for (int mode : {0, 1, 2, 4}) {
        _vqLogger log;
        EXPECT_EQ(ClsScpTestAccess::needToUpload(scp, mode, localPath, localRoot, nullptr, log),
                  mode == 0);
        EXPECT_EQ(render(log).find("No hash map.") != std::string::npos, mode != 0);
    }
}

TEST(SyncRulesTest, NeedToUploadKeysByThePathBelowTheRoot) {
    struct Case {
        const char* root;  // relative to the scratch directory
        const char* file;  // the same
        const char* storedKey;
        bool found;  // mode 1 answers "keep" exactly when the key is found
    };
    const Case cases[] = {
        {"r", "r/a.txt", "a.txt", true},
        {"r/", "r/a.txt", "a.txt", true},  // no separator left to drop
        {"r", "r/x/y.txt", "x/y.txt", true},
        {"r", "r/x/y.txt", "/x/y.txt", false},  // the leading '/' is not part of a key
        {"r", "r//a.txt", "/a.txt", true},      // only one leading '/' is dropped
    };
    ClsScp scp;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.root) + " | " + c.file + " | " + c.storedKey);
        TreeDir dir;
        writeFile(dir.sub(c.file), "content");
        StringHashMap* map = StringHashMap::createNewObject(101);
        map->hashInsert(c.storedKey, new ScpFileInfo());
        XString localRoot(dir.sub(c.root).c_str());
        XString localPath(dir.sub(c.file).c_str());
        _vqLogger log;
        EXPECT_EQ(ClsScpTestAccess::needToUpload(scp, 1, localPath, localRoot, map, log), !c.found);
        VostrelObject::deleteObject(map);
    }

    // The root is removed at its first occurrence only: a root that occurs
    // again further down the path stays in the key.
    TreeDir dir;
    std::string root = dir.sub("q");
    std::string file = root + root + "/f";
    writeFile(file, "z");
    std::string expectedKey = root.substr(1) + "/f";
    StringHashMap* map = StringHashMap::createNewObject(101);
    map->hashInsert(expectedKey.c_str(), new ScpFileInfo());
    XString localRoot(root.c_str());
    XString localPath(file.c_str());
    _vqLogger log;
    EXPECT_FALSE(ClsScpTestAccess::needToUpload(scp, 1, localPath, localRoot, map, log));

    // A path outside the root is never uploaded, and says why.
    XString outside("/elsewhere/f");
    _vqLogger log2;
    EXPECT_FALSE(ClsScpTestAccess::needToUpload(scp, 2, outside, localRoot, map, log2));
    std::string text = render(log2);
    EXPECT_NE(text.find("path does not begin with local root dir."), std::string::npos);
    EXPECT_NE(text.find("xPath: /elsewhere/f"), std::string::npos);
    VostrelObject::deleteObject(map);
}

TEST(SyncRulesTest, SkipFromMustMatchAppliesBothListsInOrder) {
    struct Case {
        const char* mustMatch;
        const char* mustNotMatch;
        const char* name;
        bool skip;
    };
    const Case cases[] = {
        {"", "", "anything", false},  // empty lists place no constraint
        {"*.txt", "", "a.txt", false},
        {"*.txt", "", "a.bin", true},
        {" *.md ; *.txt ", "", "b.txt", false},  // trimmed pieces, any of them
        {"", "*.tmp", "x.tmp", true},
        {"", "*.tmp", "x.txt", false},
        {"*.txt", "a*", "a.txt", true},  // matching both lists: skipped
        {"*.txt", "a*", "b.txt", false},
        {"*.txt", "b*", "b.bin", true},  // the must-match failure decides first
    };
    ClsScp scp;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.mustMatch) + " | " + c.mustNotMatch + " | " + c.name);
        ExtPtrArraySb must, mustNot;
        StringBuffer(c.mustMatch).splitAndTrim(must, ';', true, true);
        StringBuffer(c.mustNotMatch).splitAndTrim(mustNot, ';', true, true);
        XString name(c.name);
        _vqLogger log;
        EXPECT_EQ(ClsScpTestAccess::skipFromMustMatch(scp, name, must, mustNot, log), c.skip);
    }
}

}  // namespace
}  // namespace scpkit::test
