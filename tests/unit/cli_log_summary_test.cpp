// The one line printed for a failed call, taken from its tree log.
#include <gtest/gtest.h>

#include <string>

#include "cli/LogSummary.h"

namespace scpkit::test {
namespace {

TEST(CliLogSummary, PrefersWhatTheRemoteSaidThenTheLastError) {
    struct Case {
        const char* name;
        std::string log;
        std::string reason;
    };
    const Case cases[] = {
        {"remote error response",
         "DownloadFile:\n"
         "    remotePath: /nope\n"
         "    receiveFile:\n"
         "        receiveFileInfo:\n"
         "            errorResponse: scp: /nope: No such file or directory\n"
         "        --receiveFileInfo\n"
         "    --receiveFile\n"
         "    Failed to receive file.\n"
         "    Failed.\n"
         "--DownloadFile\n",
         "scp: /nope: No such file or directory"},
        {"stderr on several lines",
         "SyncTreeUpload:\n"
         "    scp_errors1: scp: a: Permission denied\n"
         "        scp: b: Permission denied\n"
         "    Initial remote traverse to identify existing files failed.\n"
         "    Failed.\n"
         "--SyncTreeUpload\n",
         "scp: a: Permission denied scp: b: Permission denied"},
        {"error line when the remote said nothing",
         "Connect:\n"
         "    hostname: 127.0.0.1\n"
         "    port: 1\n"
         "    Connection refused\n"
         "    Failed to connect.\n"
         "    Failed.\n"
         "--Connect\n",
         "Failed to connect."},
        {"explanation after the error, libssh's detail with it",
         "Connect:\n"
         "    Cannot connect to the SSH server.\n"
         "    sshError: Connection refused\n"
         "    Host key verification failed: not in known_hosts.\n"
         "    knownHostsFile: /root/.ssh/known_hosts\n"
         "    Add the key to the known_hosts file to trust it.\n"
         "    Failed.\n"
         "--Connect\n",
         "Host key verification failed: not in known_hosts."},
        {"detail of the error it follows",
         "Connect:\n    Cannot connect to the SSH server.\n    sshError: Connection refused\n"
         "    Failed.\n--Connect\n",
         "Cannot connect to the SSH server (Connection refused)"},
        {"data items and structure alone",
         "UploadFile:\n    errReturnLoc: 30\n    Failed.\n--UploadFile\n", ""},
        {"escape sequences from the server",
         "DownloadFile:\n    errorResponse: \x1b[2Jscp: gone\x07\n    Failed.\n--DownloadFile\n",
         "scp: gone"},
        {"empty remote text does not hide the error",
         "DownloadFile:\n    scp_errors1:  \n    Unexpected final 0 byte.\n--DownloadFile\n",
         "Unexpected final 0 byte."},
        {"empty log", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(cli::failureReason(c.log), c.reason);
    }
}

}  // namespace
}  // namespace scpkit::test
