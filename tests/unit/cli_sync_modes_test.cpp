// Mode names of push and pull against the library's two numberings.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "cli/SyncModes.h"

namespace scpkit::test {
namespace {

using cli::SyncDirection;

struct ModeCase {
    const char* text;
    int download;  // -1: rejected
    int upload;
};

TEST(CliSyncModes, NamesAndNumbersMapToEachDirectionsNumber) {
    const ModeCase cases[] = {
        {"all", 0, 0},      {"missing", 1, 1},
        {"newer", 2, 2},    {"newer-existing", 3, 3},
        {"size", 5, 4},     {"newer-or-size", 6, 5},
        {"0", 0, 0},        {"3", 3, 3},
        {"4", 4, 4},                       // download 4 is kept: it acts like 3
        {"5", 5, 5},        {"6", 6, -1},  // upload has no mode 6
        {"7", -1, -1},      {"-1", -1, -1},
        {"+2", -1, -1},     {"02", -1, -1},
        {"", -1, -1},       {"Newer", -1, -1},
        {"newer ", -1, -1}, {"2x", -1, -1},
    };
    for (const ModeCase& c : cases) {
        SCOPED_TRACE(c.text);
        int mode = 99;
        EXPECT_EQ(cli::parseSyncMode(c.text, SyncDirection::Download, mode), c.download >= 0);
        if (c.download >= 0) {
            EXPECT_EQ(mode, c.download);
        }
        mode = 99;
        EXPECT_EQ(cli::parseSyncMode(c.text, SyncDirection::Upload, mode), c.upload >= 0);
        if (c.upload >= 0) {
            EXPECT_EQ(mode, c.upload);
        }
    }
}

TEST(CliSyncModes, EveryNumberNamesThePolicyItRunsInItsDirection) {
    struct Back {
        int mode;
        const char* download;
        const char* upload;
    };
    const Back cases[] = {
        {0, "all", "all"},
        {1, "missing", "missing"},
        {2, "newer", "newer"},
        {3, "newer-existing", "newer-existing"},
        {4, "newer-existing", "size"},
        {5, "size", "newer-or-size"},
        {6, "newer-or-size", nullptr},
        {7, nullptr, nullptr},
        {-1, nullptr, nullptr},
    };
    for (const Back& c : cases) {
        SCOPED_TRACE(c.mode);
        const char* down = cli::syncModeName(c.mode, SyncDirection::Download);
        const char* up = cli::syncModeName(c.mode, SyncDirection::Upload);
        EXPECT_EQ(down ? std::string(down) : "(none)", c.download ? c.download : "(none)");
        EXPECT_EQ(up ? std::string(up) : "(none)", c.upload ? c.upload : "(none)");
    }
}

TEST(CliSyncModes, NameToNumberAndBackIsTheIdentityInBothDirections) {
    std::set<std::string> seen;
    for (const cli::SyncModeName& entry : cli::syncModeNames()) {
        EXPECT_TRUE(seen.insert(entry.name).second) << "duplicate " << entry.name;
        for (SyncDirection d : {SyncDirection::Download, SyncDirection::Upload}) {
            int mode = -1;
            ASSERT_TRUE(cli::parseSyncMode(entry.name, d, mode));
            EXPECT_STREQ(cli::syncModeName(mode, d), entry.name);
        }
    }
}

}  // namespace
}  // namespace scpkit::test
