#include "cli/SyncModes.h"

#include <cstdlib>

namespace scpkit::cli {

const std::vector<SyncModeName>& syncModeNames() {
    static const std::vector<SyncModeName> names = {
        {"all", 0, 0, "copy every file"},
        {"missing", 1, 1, "copy files the other side lacks"},
        {"newer", 2, 2, "copy missing files and files that are newer"},
        {"newer-existing", 3, 3, "copy only files that exist on both sides and are newer"},
        {"size", 5, 4, "copy missing files and files whose size differs"},
        {"newer-or-size", 6, 5, "copy missing files and files that are newer or differ in size"},
    };
    return names;
}

const char* syncModeName(int mode, SyncDirection direction) {
    // Download mode 4 behaves exactly like 3.
    if (direction == SyncDirection::Download && mode == 4) mode = 3;
    for (const SyncModeName& entry : syncModeNames()) {
        int number = direction == SyncDirection::Download ? entry.downloadMode : entry.uploadMode;
        if (number == mode) return entry.name;
    }
    return nullptr;
}

bool parseSyncMode(const std::string& text, SyncDirection direction, int& mode) {
    for (const SyncModeName& entry : syncModeNames()) {
        if (text == entry.name) {
            mode = direction == SyncDirection::Download ? entry.downloadMode : entry.uploadMode;
            return true;
        }
    }
    if (text.size() != 1) return false;  // one digit: 0 to 6
    char* end = nullptr;
    long number = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || text[0] == '-' || text[0] == '+') return false;
    if (syncModeName(static_cast<int>(number), direction) == nullptr) return false;
    mode = static_cast<int>(number);
    return true;
}

}  // namespace scpkit::cli
