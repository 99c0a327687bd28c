// The per-file decisions of the tree synchronisations: both mode tables
// against real local files, and the key a local file is looked up by in
// the map of remote files. (The name filters are tried by the tree tests.)
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <scpkit/base/Logger.h>
#include <scpkit/base/StringHashMap.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpFileInfo.h>
#include "tests/support/ClsScpTestAccess.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

using A = ClsScpTestAccess;
constexpr int64_t kT = 1600000000, kSize = 100;  // the sending side's copy

ScpFileInfo* record(int64_t mtime, int64_t size, const char* relPath = "") {
    auto* r = new ScpFileInfo();
    r->lastModTime.fromUnixTime64(mtime);
    r->fileSize = size;
    r->rFilePath.setString(relPath);
    return r;
}

TEST(SyncRulesTest, BothModeTables) {
    // The receiving side's copy, against the sender's (kT, kSize).
    const char* const kColumns[] = {"missing", "older", "newer", "equal", "equal, other size"};
    const struct { int64_t dt, dsize; } kCopy[] = {{0, 0}, {-100, 0}, {100, 0}, {0, 0}, {0, -1}};
    // Per column, 1 when the file is copied. Download's 4 is its 3 on purpose.
    const struct {
        int mode;
        const char *download, *upload;
    } rows[] = {
        {0, "11111", "11111"}, {1, "10000", "10000"}, {2, "11000", "11000"},
        {3, "01000", "01000"}, {4, "01000", "10001"}, {5, "10001", "11001"},
        {6, "11001", "01000"}, {7, "01000", "01000"}, {-1, "01000", "01000"},
    };
    ClsScp scp;
    for (const auto& row : rows) {
        for (int col = 0; col < 5; ++col) {
            SCOPED_TRACE("mode " + std::to_string(row.mode) + ", copy " + kColumns[col]);
            ScratchDir dir;
            XString root(dir.path().c_str()), localPath("stale"), out;
            _vqLogger log;
            // Download: the remote record is the sender, the local file the copy.
            std::string local = dir.file("sub/f.txt");
            if (col != 0)
                writeFile(local, std::string(kSize + kCopy[col].dsize, 'x'), kT + kCopy[col].dt);
            std::unique_ptr<ScpFileInfo> remote(record(kT, kSize, "sub/f.txt"));
            EXPECT_EQ(A::needToDownload(scp, row.mode, root, *remote, localPath, log),
                      row.download[col] == '1');
            EXPECT_EQ(localPath.getUtf8(), local);  // given back whatever the answer
            // Upload: the local file is the sender, the map's record the copy.
            writeFile(local, std::string(kSize, 'y'), kT);
            std::unique_ptr<StringHashMap> map(StringHashMap::createNewObject(101));
            if (col != 0)
                map->hashInsert("sub/f.txt", record(kT + kCopy[col].dt, kSize + kCopy[col].dsize));
            XString path(local.c_str());
            EXPECT_EQ(A::needToUpload(scp, row.mode, path, root, map.get(), log),
                      row.upload[col] == '1');
            // Without a map only mode 0 uploads.
            EXPECT_EQ(A::needToUpload(scp, row.mode, path, root, nullptr, log), row.mode == 0);
        }
    }
}

TEST(SyncRulesTest, DirectoriesAreCreatedWhenMissingAndAlwaysInModeZero) {
    ClsScp scp;
    for (int mode : {0, 1, 3, 9}) {
        for (bool exists : {false, true}) {
            ScratchDir dir;
            if (exists) makeDir(dir.file("a/b"));
            std::unique_ptr<ScpFileInfo> rec(record(0, 0, "a/b"));
            rec->isDirectory = true;
            XString root(dir.path().c_str()), localPath;
            _vqLogger log;
            EXPECT_EQ(A::needToDownload(scp, mode, root, *rec, localPath, log),
                      mode == 0 || !exists)
                << mode << exists;
            EXPECT_EQ(localPath.getUtf8(), dir.file("a/b"));
        }
    }
}

TEST(SyncRulesTest, UploadKeyIsThePathBelowTheRoot) {
    ClsScp scp;
    ScratchDir dir;
    // Mode 1 keeps a file exactly when its key is in the map.
    auto uploads = [&](const std::string& root, const std::string& file, const std::string& key,
                       std::string* logText = nullptr) {
        if (file.rfind(dir.path(), 0) == 0) writeFile(file, "content");
        std::unique_ptr<StringHashMap> map(StringHashMap::createNewObject(101));
        map->hashInsert(key.c_str(), new ScpFileInfo());
        XString r(root.c_str()), f(file.c_str());
        _vqLogger log;
        bool result = A::needToUpload(scp, 1, f, r, map.get(), log);
        if (logText) log.renderText(*logText);
        return result;
    };
    const std::string d = dir.path();
    EXPECT_FALSE(uploads(d + "/r", d + "/r/a.txt", "a.txt"));
    EXPECT_FALSE(uploads(d + "/r/", d + "/r/a.txt", "a.txt"));  // no separator left to drop
    EXPECT_FALSE(uploads(d + "/r", d + "/r/x/y.txt", "x/y.txt"));
    EXPECT_TRUE(uploads(d + "/r", d + "/r/x/y.txt", "/x/y.txt"));  // the '/' is no part of it
    EXPECT_FALSE(uploads(d + "/r", d + "/r//a.txt", "/a.txt"));    // one '/' dropped, not two
    // Only the first occurrence of the root is removed.
    EXPECT_FALSE(uploads(d + "/q", d + "/q" + d + "/q/f", d.substr(1) + "/q/f"));
    std::string log;
    EXPECT_FALSE(uploads(d + "/q", "/elsewhere/f", "f", &log));
    EXPECT_NE(log.find("path does not begin with local root dir."), std::string::npos) << log;
    EXPECT_NE(log.find("xPath: /elsewhere/f"), std::string::npos) << log;
}

}  // namespace
}  // namespace scpkit::test
