// The component object: property rules, binding of the SSH object, and the
// failure of every transfer made before UseSsh.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "base/ClsBinData.h"
#include "base/DataBuffer.h"
#include "scp/ClsScp.h"
#include "ssh/ClsSsh.h"
#include "tests/support/ClsScpTestAccess.h"
#include "tests/support/ScpTestHelpers.h"

namespace scpkit {
namespace {

using test::lastErrorText;

std::string getOverride(ClsScp& scp) {
    XString out;
    scp.get_UnixPermOverride(out);
    return out.getUtf8();
}

void putOverride(ClsScp& scp, const char* text) {
    XString v(text);
    scp.put_UnixPermOverride(v);
}

TEST(ScpObject, ConstructedWithTypeCodeAndDefaults) {
    ClsScp* scp = ClsScp::createNewCls();
    ASSERT_NE(scp, nullptr);
    EXPECT_EQ(ClsScpTestAccess::objectType(*scp), 39);
    EXPECT_FALSE(ClsScpTestAccess::useOverride(*scp));
    EXPECT_EQ(ClsScpTestAccess::overridePerms(*scp), 0644u);
    EXPECT_EQ(ClsScpTestAccess::boundSsh(*scp), nullptr);
    delete scp;
}

// Each row is applied after the rows before it, so that the rows that turn
// the override off show that overridePerms keeps its earlier value.
TEST(ScpObject, UnixPermOverrideSequence) {
    struct Row {
        const char* input;
        const char* readBack;
        bool useOverride;
        uint32_t perms;
    };
    const Row rows[] = {
        {" 0755 ", "0755", true, 0755},   {"abc", "", false, 0755},  // invalid: dropped, value kept
        {"600", "600", true, 0600},       {"", "", false, 0600},
        {"\t0640\n", "0640", true, 0640}, {"0758", "", false, 0640},  // 8 is not an octal digit
        {"07 55", "", false, 0640},                                   // inner blank
        {"04755", "04755", true, 04755},  // high bits kept here; the C line masks them
        {"   ", "", false, 04755},
    };
    ClsScp scp;
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string("input \"") + row.input + "\"");
        putOverride(scp, row.input);
        EXPECT_EQ(getOverride(scp), row.readBack);
        EXPECT_EQ(ClsScpTestAccess::useOverride(scp), row.useOverride);
        EXPECT_EQ(ClsScpTestAccess::overridePerms(scp), row.perms);
    }
}

TEST(ScpObject, SyncedFilesIsTrimmedWhenReadAndStaysTrimmed) {
    ClsScp scp;
    XString in("  \n a/b.txt\nc d.txt \n\n");
    scp.put_SyncedFiles(in);
    // Stored as given ...
    EXPECT_EQ(ClsScpTestAccess::syncedFilesRaw(scp).str(), "  \n a/b.txt\nc d.txt \n\n");
    XString out;
    scp.get_SyncedFiles(out);
    EXPECT_STREQ(out.getUtf8(), "a/b.txt\nc d.txt");
    // ... and trimmed in place by the getter.
    EXPECT_EQ(ClsScpTestAccess::syncedFilesRaw(scp).str(), "a/b.txt\nc d.txt");
}

TEST(ScpObject, TextPropertiesKeepTheirValuesUntrimmedAndApart) {
    using Put = void (ClsScp::*)(XString&);
    using Get = void (ClsScp::*)(XString&);
    struct Prop {
        const char* name;
        Put put;
        Get get;
    };
    const Prop props[] = {
        {"SendEnv", &ClsScp::put_SendEnv, &ClsScp::get_SendEnv},
        {"SyncMustMatch", &ClsScp::put_SyncMustMatch, &ClsScp::get_SyncMustMatch},
        {"SyncMustNotMatch", &ClsScp::put_SyncMustNotMatch, &ClsScp::get_SyncMustNotMatch},
        {"SyncMustMatchDir", &ClsScp::put_SyncMustMatchDir, &ClsScp::get_SyncMustMatchDir},
        {"SyncMustNotMatchDir", &ClsScp::put_SyncMustNotMatchDir, &ClsScp::get_SyncMustNotMatchDir},
    };
    ClsScp scp;
    for (const Prop& p : props) {
        XString v((std::string(" ") + p.name + "; *.txt ").c_str());
        (scp.*p.put)(v);
    }
    for (const Prop& p : props) {
        XString out;
        (scp.*p.get)(out);
        EXPECT_EQ(std::string(out.getUtf8()), std::string(" ") + p.name + "; *.txt ");
    }
}

TEST(ScpObject, UseSshHoldsOneReferenceAndReleasesIt) {
    ClsSsh* first = ClsSsh::createNewCls();
    ClsSsh* second = ClsSsh::createNewCls();
    ASSERT_TRUE(first && second);
    first->incRefCount();  // keep both alive for the checks below
    second->incRefCount();
    {
        ClsScp scp;
        first->put_StderrToStdout(true);
        EXPECT_TRUE(scp.UseSsh(*first));
        EXPECT_EQ(first->getRefCount(), 3);
        EXPECT_FALSE(first->get_StderrToStdout());
        std::string log = lastErrorText(scp);
        EXPECT_NE(log.find("UseSsh:"), std::string::npos) << log;
        EXPECT_NE(log.find("Success."), std::string::npos) << log;

        // Binding the same object again changes nothing, not even the stream setting.
        first->put_StderrToStdout(true);
        EXPECT_TRUE(scp.UseSsh(*first));
        EXPECT_EQ(first->getRefCount(), 3);
        EXPECT_TRUE(first->get_StderrToStdout());

        EXPECT_TRUE(scp.UseSsh(*second));
        EXPECT_EQ(first->getRefCount(), 2);
        EXPECT_EQ(second->getRefCount(), 3);
        EXPECT_EQ(ClsScpTestAccess::boundSsh(scp), second);
    }
    EXPECT_EQ(second->getRefCount(), 2);
    first->decRefCount();
    first->decRefCount();
    second->decRefCount();
    second->decRefCount();
}

TEST(ScpObject, AccessorsWriteNothingToTheLog) {
    ClsSsh* ssh = ClsSsh::createNewCls();
    ASSERT_NE(ssh, nullptr);
    ClsScp scp;
    scp.UseSsh(*ssh);
    std::string before = lastErrorText(scp);
    XString v("0600"), out;
    scp.put_UnixPermOverride(v);
    scp.get_UnixPermOverride(out);
    scp.put_SendEnv(v);
    scp.get_SendEnv(out);
    scp.put_SyncedFiles(v);
    scp.get_SyncedFiles(out);
    EXPECT_EQ(lastErrorText(scp), before);
    ssh->decRefCount();
}

TEST(ScpObject, GetterWaitsForTheObjectsCriticalSection) {
    ClsScp scp;
    std::atomic<bool> done{false};
    scp.m_critSec.enterCriticalSection();
    std::thread reader([&] {
        XString out;
        scp.get_SyncedFiles(out);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(done.load());
    scp.m_critSec.leaveCriticalSection();
    reader.join();
    EXPECT_TRUE(done.load());
}

// Every transfer checks for a bound SSH object before touching anything:
// the remote path argument is left as it was and no local file appears.
TEST(ScpObject, TransfersFailBeforeUseSsh) {
    test::ScratchDir dir;
    std::string localFile = dir.file("local.bin");
    ASSERT_TRUE(test::writeWholeFile(localFile, "data"));
    std::string missingLocal = dir.file("never-created.bin");

    struct Case {
        const char* context;
        std::function<bool(ClsScp&, XString& remote)> call;
    };
    const Case cases[] = {
        {"UploadFile",
         [&](ClsScp& s, XString& r) {
             XString l(localFile.c_str());
             return s.UploadFile(l, r);
         }},
        {"DownloadFile",
         [&](ClsScp& s, XString& r) {
             XString l(missingLocal.c_str());
             return s.DownloadFile(r, l);
         }},
        {"UploadString",
         [](ClsScp& s, XString& r) {
             XString t("text"), cs("utf-8");
             return s.UploadString(r, t, cs);
         }},
        {"UploadBinary",
         [](ClsScp& s, XString& r) {
             DataBuffer b;
             b.appendStr("xy");
             return s.UploadBinary(r, b);
         }},
        {"UploadBinaryEncoded",
         [](ClsScp& s, XString& r) {
             XString e("AAEC"), enc("base64");
             return s.UploadBinaryEncoded(r, e, enc);
         }},
        {"UploadBd",
         [](ClsScp& s, XString& r) {
             ClsBinData bd;
             return s.UploadBd(r, bd);
         }},
        {"DownloadString",
         [](ClsScp& s, XString& r) {
             XString cs("utf-8"), out;
             return s.DownloadString(r, cs, out);
         }},
        {"DownloadBinary",
         [](ClsScp& s, XString& r) {
             DataBuffer b;
             return s.DownloadBinary(r, b);
         }},
        {"DownloadBinaryEncoded",
         [](ClsScp& s, XString& r) {
             XString enc("hex"), out;
             return s.DownloadBinaryEncoded(r, enc, out);
         }},
        {"DownloadBd",
         [](ClsScp& s, XString& r) {
             ClsBinData bd;
             return s.DownloadBd(r, bd);
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.context);
        ClsScp scp;
        XString remote("/remote/dir/file.txt");
        EXPECT_FALSE(c.call(scp, remote));
        EXPECT_STREQ(remote.getUtf8(), "/remote/dir/file.txt");
        std::string log = lastErrorText(scp);
        EXPECT_EQ(log.rfind(std::string(c.context) + ":\n", 0), 0u) << log;
        EXPECT_NE(log.find("No SSH object has been set.  Must call UseSsh first."),
                  std::string::npos)
            << log;
        EXPECT_NE(log.find("Failed."), std::string::npos) << log;
        EXPECT_EQ(log.find("Success."), std::string::npos) << log;
    }
    EXPECT_FALSE(test::pathExists(missingLocal));
}

}  // namespace
}  // namespace scpkit
