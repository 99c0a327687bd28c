// The one line printed for a failed call, taken from its tree log. (The
// program's own tests show the remote's error and the host key failure.)
#include <gtest/gtest.h>

#include "cli/LogSummary.h"

namespace scpkit::test {
namespace {

TEST(CliLogSummary, PrefersWhatTheRemoteSaidThenTheLastError) {
    const std::pair<const char*, const char*> cases[] = {
        {"SyncTreeUpload:\n    scp_errors1: scp: a: Permission denied\n"
         "        scp: b: Permission denied\n    Traverse failed.\n--SyncTreeUpload\n",
         "scp: a: Permission denied scp: b: Permission denied"},  // continued lines joined
        {"Connect:\n    port: 1\n    Connection refused\n    Failed to connect.\n    Failed.\n",
         "Failed to connect."},
        {"Connect:\n    Cannot connect to the SSH server.\n    sshError: Connection refused\n",
         "Cannot connect to the SSH server (Connection refused)"},
        {"UploadFile:\n    errReturnLoc: 30\n    Failed.\n--UploadFile\n", ""},
        {"Get:\n    scp_errors1:  \n    Unexpected final 0 byte.\n--Get\n",
         "Unexpected final 0 byte."}};
    for (const auto& [log, reason] : cases) EXPECT_EQ(cli::failureReason(log), reason) << log;
}

}  // namespace
}  // namespace scpkit::test
