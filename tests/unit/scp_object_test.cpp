// The component object: property rules, binding of the SSH object, and the
// failure of every transfer made before UseSsh.
#include <gtest/gtest.h>

#include <functional>

#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/ClsScpTestAccess.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

using A = ClsScpTestAccess;

// Each row applies after the rows before it, so that the rows that turn the
// override off show that overridePerms keeps its earlier value.
TEST(ScpObject, UnixPermOverrideSequence) {
    const struct {
        const char *input, *readBack;
        bool on;
        uint32_t perms;
    } rows[] = {
        {" 0755 ", "0755", true, 0755},
        {"abc", "", false, 0755},
        {"600", "600", true, 0600},
        {"", "", false, 0600},
        {"\t0640\n", "0640", true, 0640},
        {"0758", "", false, 0640},
        {"07 55", "", false, 0640},
        {"04755", "04755", true, 04755},  // high bits kept here; the C line masks them
    };
    ClsScp scp;
    EXPECT_EQ(A::overridePerms(scp), 0644u);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.input);
        XString in(row.input), out;
        scp.put_UnixPermOverride(in);
        scp.get_UnixPermOverride(out);
        EXPECT_STREQ(out.getUtf8(), row.readBack);
        EXPECT_EQ(A::useOverride(scp), row.on);
        EXPECT_EQ(A::overridePerms(scp), row.perms);
    }
}

TEST(ScpObject, SyncedFilesIsStoredAsGivenAndTrimmedWhenRead) {
    ClsScp scp;
    XString in("  \n a/b.txt\nc d.txt \n\n"), out;
    scp.put_SyncedFiles(in);
    EXPECT_EQ(A::syncedFilesRaw(scp).str(), "  \n a/b.txt\nc d.txt \n\n");
    scp.get_SyncedFiles(out);
    EXPECT_STREQ(out.getUtf8(), "a/b.txt\nc d.txt");
    EXPECT_EQ(A::syncedFilesRaw(scp).str(), "a/b.txt\nc d.txt");
}

TEST(ScpObject, UseSshHoldsOneReferenceAndReleasesIt) {
    ClsSsh* first = ClsSsh::createNewCls();
    ClsSsh* second = ClsSsh::createNewCls();
    {
        ClsScp scp;
        first->put_StderrToStdout(true);
        EXPECT_TRUE(scp.UseSsh(*first));
        EXPECT_FALSE(first->get_StderrToStdout());
        expectLog(lastErrorText(scp), {"UseSsh:\n    Success.\n--UseSsh"});
        first->put_StderrToStdout(true);
        EXPECT_TRUE(scp.UseSsh(*first));  // the same object: nothing changes
        EXPECT_EQ(first->getRefCount(), 2);
        EXPECT_TRUE(first->get_StderrToStdout());

        EXPECT_TRUE(scp.UseSsh(*second));
        EXPECT_EQ(first->getRefCount(), 1);
        EXPECT_EQ(second->getRefCount(), 2);
    }
    EXPECT_EQ(second->getRefCount(), 1);
    first->decRefCount();
    second->decRefCount();
}

// Every transfer checks for a bound SSH object before touching anything:
// the caller's remote path is left as it was and no local file appears.
TEST(ScpObject, TransfersFailBeforeUseSsh) {
    ScratchDir dir;
    std::string file = dir.file("local.bin");
    ASSERT_TRUE(writeFile(file, "data"));
    XString local(file.c_str()), missing(dir.file("new.bin").c_str()), text("t"), cs("utf-8");
    DataBuffer db;
    ClsBinData bd;
    using Call = std::function<bool(ClsScp&, XString&)>;
    const std::pair<const char*, Call> calls[] = {
        {"UploadFile", [&](ClsScp& s, XString& r) { return s.UploadFile(local, r); }},
        {"DownloadFile", [&](ClsScp& s, XString& r) { return s.DownloadFile(r, missing); }},
        {"UploadString", [&](ClsScp& s, XString& r) { return s.UploadString(r, text, cs); }},
        {"UploadBinary", [&](ClsScp& s, XString& r) { return s.UploadBinary(r, db); }},
        {"UploadBinaryEncoded",
         [&](ClsScp& s, XString& r) { return s.UploadBinaryEncoded(r, text, cs); }},
        {"UploadBd", [&](ClsScp& s, XString& r) { return s.UploadBd(r, bd); }},
        {"DownloadString", [&](ClsScp& s, XString& r) { return s.DownloadString(r, cs, text); }},
        {"DownloadBinary", [&](ClsScp& s, XString& r) { return s.DownloadBinary(r, db); }},
        {"DownloadBinaryEncoded",
         [&](ClsScp& s, XString& r) { return s.DownloadBinaryEncoded(r, cs, text); }},
        {"DownloadBd", [&](ClsScp& s, XString& r) { return s.DownloadBd(r, bd); }},
        {"SyncTreeUpload",
         [&](ClsScp& s, XString& r) { return s.SyncTreeUpload(local, r, 0, true); }},
        {"SyncTreeDownload",
         [&](ClsScp& s, XString& r) { return s.SyncTreeDownload(r, missing, 0, true); }},
    };
    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        ClsScp scp;
        XString remote("/remote/dir/file.txt"), stale("left from before");
        scp.put_SyncedFiles(stale);
        EXPECT_FALSE(call(scp, remote));
        // A tree synchronisation empties SyncedFiles first, even when it fails at once.
        EXPECT_EQ(syncedFiles(scp).empty(), std::string(name).rfind("Sync", 0) == 0);
        EXPECT_STREQ(remote.getUtf8(), "/remote/dir/file.txt");
        std::string log = lastErrorText(scp);
        EXPECT_EQ(log.rfind(std::string(name) + ":\n", 0), 0u) << log;
        expectLog(log, {"No SSH object has been set.  Must call UseSsh first.", "Failed."},
                  {"Success."});
    }
    EXPECT_FALSE(pathExists(dir.file("new.bin")));
    EXPECT_STREQ(text.getUtf8(), "t");
}

}  // namespace
}  // namespace scpkit::test
