// Names for the tree-synchronisation modes. The library numbers the modes
// differently for downloads and uploads; the names mean the same policy in
// both directions.
#pragma once

#include <string>
#include <vector>

namespace scpkit::cli {

enum class SyncDirection { Download, Upload };

struct SyncModeName {
    const char* name;
    int downloadMode;
    int uploadMode;
    const char* meaning;
};

// The named policies, in the order --help and the README list them.
const std::vector<SyncModeName>& syncModeNames();

// A name from the table or a mode number valid for the direction.
bool parseSyncMode(const std::string& text, SyncDirection direction, int& mode);

// The name of a mode number in a direction; null for a number with no name.
const char* syncModeName(int mode, SyncDirection direction);

}  // namespace scpkit::cli
