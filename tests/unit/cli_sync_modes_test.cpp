// Mode names of push and pull against the library's two numberings.
#include <gtest/gtest.h>

#include "cli/CommandLine.h"
#include "cli/SyncModes.h"

namespace scpkit::test {
namespace {

// "download/upload" numbers, "-" where the direction rejects the text.
std::string modes(const std::string& text) {
    std::string out;
    for (cli::SyncDirection d : {cli::SyncDirection::Download, cli::SyncDirection::Upload}) {
        int mode = 99;
        bool ok = cli::parseSyncMode(text, d, mode);
        out += (out.empty() ? "" : "/") + (ok ? std::to_string(mode) : mode == 99 ? "-" : "set");
    }
    return out;
}

TEST(CliSyncModes, NamesAndNumbersMapToEachDirectionsNumber) {
    std::string table;
    for (const char* text :
         {"all", "missing", "newer", "newer-existing", "size", "newer-or-size", "0", "4", "5", "6",
          "7", "-1", "+2", "02", "", "Newer", "newer ", "2x"})
        table += std::string(text) + "=" + modes(text) + ",";
    // Upload has no mode 6; download mode 4 is kept, it acts like 3.
    EXPECT_EQ(
        table,
        "all=0/0,missing=1/1,newer=2/2,newer-existing=3/3,size=5/4,newer-or-size=6/5,"
        "0=0/0,4=4/4,5=5/5,6=6/-,7=-/-,-1=-/-,+2=-/-,02=-/-,=-/-,Newer=-/-,newer =-/-,2x=-/-,");
}

TEST(CliSyncModes, TheCommandChoosesTheDirection) {
    cli::Options push, pull;
    ASSERT_EQ(cli::parseCommandLine({"push", "--mode", "size", "d", "h:r"}, push).err, "");
    ASSERT_EQ(cli::parseCommandLine({"pull", "--mode", "size", "h:r", "d"}, pull).err, "");
    EXPECT_EQ(push.tree.syncMode, 4);
    EXPECT_EQ(pull.tree.syncMode, 5);
}

}  // namespace
}  // namespace scpkit::test
