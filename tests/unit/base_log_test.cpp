// The log tree: rendering, top-level calls, verbosity, debug file.
#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "base/ClsBase.h"
#include "base/Logger.h"
#include "base/StringBuffer.h"
#include "base/XString.h"

namespace scpkit::test {
namespace {

std::string rendered(const _vqLogger& log) {
    std::string out;
    log.renderText(out);
    return out;
}

std::string lastErrorText(ClsBase& obj) {
    XString x;
    obj.get_LastErrorText(x);
    return x.getUtf8();
}

TEST(LoggerRender, NestedContextsLinesAndDataItems) {
    _vqLogger log;
    {
        LogContextExitor outer(log, "UploadFile");
        log.LogDataSb("remoteFilePath", StringBuffer("/tmp/x"));
        {
            LogContextExitor inner(log, "sendFile");
            log.LogInfo("Sending file data...");
            log.LogDataInt64("fileSize", 5000000000LL);
            log.LogDataLong("errReturnLoc", -30);
            log.LogDataBool("haveTimes", true);
            log.LogDataX("name", XString("f\xC3\xA9.txt"));
        }
        log.LogError("Failed to send the final 0 byte.");
    }
    EXPECT_EQ(rendered(log),
              "UploadFile:\n"
              "    remoteFilePath: /tmp/x\n"
              "    sendFile:\n"
              "        Sending file data...\n"
              "        fileSize: 5000000000\n"
              "        errReturnLoc: -30\n"
              "        haveTimes: true\n"
              "        name: f\xC3\xA9.txt\n"
              "    --sendFile\n"
              "    Failed to send the final 0 byte.\n"
              "--UploadFile\n");
}

TEST(LoggerRender, MultiLineValuesContinueOneLevelDeeper) {
    _vqLogger log;
    log.enterContext("DownloadFile", true);
    log.LogData("scp_errors1", "scp: /a: No such file\nscp: /b: denied\n");
    log.LogError("first\nsecond");
    log.leaveContext();
    EXPECT_EQ(rendered(log),
              "DownloadFile:\n"
              "    scp_errors1: scp: /a: No such file\n"
              "        scp: /b: denied\n"
              "    first\n"
              "        second\n"
              "--DownloadFile\n");
}

TEST(LoggerTree, EachTopLevelContextStartsANewTree) {
    _vqLogger log;
    log.LogError("loose line");
    {
        LogContextExitor a(log, "First");
        log.LogInfo("one");
    }
    EXPECT_EQ(rendered(log), "First:\n    one\n--First\n");
    {
        LogContextExitor b(log, "Second");
        {
            // Nested contexts do not clear anything.
            LogContextExitor c(log, "inner");
            log.LogInfo("two");
        }
        LogContextExitor d(log, "inner2");
        log.LogInfo("three");
    }
    std::string text = rendered(log);
    EXPECT_EQ(text.find("First"), std::string::npos);
    EXPECT_EQ(text,
              "Second:\n    inner:\n        two\n    --inner\n    inner2:\n        three\n"
              "    --inner2\n--Second\n");
}

TEST(LoggerTree, ExplicitEnterLeaveAndStrayLeave) {
    _vqLogger log;
    log.leaveContext();  // nothing open: ignored
    EXPECT_EQ(log.depth(), 0);
    log.enterContext("SyncTreeUpload", true);
    log.enterContext("dir1", true);
    log.enterContext("dir2", true);
    EXPECT_EQ(log.depth(), 3);
    log.leaveContext();
    log.enterContext("quiet", false);  // unimportant and empty: dropped
    log.leaveContext();
    log.enterContext("kept", false);
    log.LogInfo("x");
    log.leaveContext();
    log.leaveContext();
    log.leaveContext();
    log.leaveContext();
    EXPECT_EQ(log.depth(), 0);
    EXPECT_EQ(rendered(log),
              "SyncTreeUpload:\n    dir1:\n        dir2:\n        --dir2\n        kept:\n"
              "            x\n        --kept\n    --dir1\n--SyncTreeUpload\n");
}

class TempPath {
  public:
    TempPath() {
        char tmpl[] = "/tmp/scpkit_logXXXXXX";
        int fd = mkstemp(tmpl);
        if (fd >= 0) close(fd);
        m_path = tmpl;
        std::remove(m_path.c_str());
    }
    ~TempPath() { std::remove(m_path.c_str()); }
    const std::string& path() const { return m_path; }
    std::string contents() const {
        std::ifstream in(m_path, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

  private:
    std::string m_path;
};

TEST(LoggerDebugFile, LinesAreWrittenAsTheyHappenAndAppended) {
    TempPath file;
    _vqLogger log;
    log.setDebugLogFilePath(file.path().c_str());
    EXPECT_EQ(log.debugLogFilePath(), file.path());
    log.enterContext("UploadFile", true);
    log.LogData("localFilePath", "/a\n/b");
    // Visible before the context closes.
    EXPECT_EQ(file.contents(), "UploadFile:\n    localFilePath: /a\n        /b\n");
    log.leaveContext();
    log.enterContext("Second", true);
    log.leaveContext();
    // The file keeps every call, unlike the rendered tree.
    EXPECT_EQ(file.contents(),
              "UploadFile:\n    localFilePath: /a\n        /b\n--UploadFile\nSecond:\n--Second\n");

    log.setDebugLogFilePath("");
    EXPECT_EQ(log.debugLogFilePath(), "");
    log.LogError("not in the file");
    EXPECT_EQ(file.contents().find("not in the file"), std::string::npos);

    // Setting the path again appends rather than truncating.
    log.setDebugLogFilePath(file.path().c_str());
    log.LogError("appended");
    log.setDebugLogFilePath("");
    std::string text = file.contents();
    EXPECT_EQ(text.rfind("appended\n"), text.size() - 9);
    EXPECT_EQ(text.find("UploadFile:"), 0u);
}

class PlainObject : public ClsBase {};

TEST(ClsBaseLog, LastErrorTextVerboseFlagAndOutcome) {
    PlainObject obj;
    EXPECT_FALSE(obj.get_VerboseLogging());
    obj.put_VerboseLogging(true);
    EXPECT_TRUE(obj.m_log.m_verboseLogging);
    EXPECT_TRUE(obj.get_VerboseLogging());
    {
        CritSecExitor cs(obj.m_critSec);
        LogContextExitor ctx(obj, "DownloadBd");
        obj.m_log.LogDataLong("errReturnLoc", 30);
        obj.logSuccessFailure(false);
    }
    EXPECT_EQ(lastErrorText(obj), "DownloadBd:\n    errReturnLoc: 30\n    Failed.\n--DownloadBd\n");
    {
        LogContextExitor ctx(obj, "UploadBd");
        obj.logSuccessFailure(true);
    }
    EXPECT_EQ(lastErrorText(obj), "UploadBd:\n    Success.\n--UploadBd\n");
}

TEST(ClsBaseLog, QuietLogRestoresTheFlag) {
    PlainObject obj;
    for (bool initial : {true, false}) {
        obj.put_VerboseLogging(initial);
        {
            QuietLog quiet(obj.m_log);
            EXPECT_FALSE(obj.m_log.m_verboseLogging);
        }
        EXPECT_EQ(obj.get_VerboseLogging(), initial);
    }
}

TEST(ClsBaseProperties, SettingsAndDebugPathRoundTrip) {
    TempPath file;
    PlainObject obj;
    EXPECT_EQ(obj.get_PercentScale(), 100u);
    EXPECT_EQ(obj.get_PollIntervalMs(), 0u);
    obj.put_PercentScale(1000);
    obj.put_PollIntervalMs(250);
    EXPECT_EQ(obj.get_PercentScale(), 1000u);
    EXPECT_EQ(obj.get_PollIntervalMs(), 250u);

    XString opts("FilenameOnly");
    obj.put_UncommonOptions(opts);
    XString got;
    obj.get_UncommonOptions(got);
    EXPECT_STREQ(got.getUtf8(), "FilenameOnly");

    XString path(file.path().c_str());
    obj.put_DebugLogFilePath(path);
    obj.get_DebugLogFilePath(got);
    EXPECT_EQ(std::string(got.getUtf8()), file.path());
    {
        LogContextExitor ctx(obj, "Call");
        obj.injectError("bad thing");
        obj.injectStatus("status");
    }
    XString empty;
    obj.put_DebugLogFilePath(empty);
    EXPECT_EQ(file.contents(), "Call:\n    bad thing\n    status\n--Call\n");
}

}  // namespace
}  // namespace scpkit::test
