#include "cli/RemoteGlob.h"

namespace scpkit::cli {

namespace {

// As in a shell, '[' opens a set only when a ']' closes it.
bool hasWildcard(const std::string& text) {
    if (text.find_first_of("*?") != std::string::npos) return true;
    size_t open = text.find('[');
    return open != std::string::npos && text.find(']', open + 1) != std::string::npos;
}

}  // namespace

bool isRemoteGlob(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return hasWildcard(slash == std::string::npos ? path : path.substr(slash + 1));
}

std::string checkRemoteGlob(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && hasWildcard(path.substr(0, slash))) {
        return "wildcards may only appear in the last part of a remote path, got '" + path + "'";
    }
    if (isRemoteGlob(path) && path.find(';') != std::string::npos) {
        return "a remote wildcard cannot hold ';', got '" + path + "'";
    }
    return "";
}

RemoteGlob splitRemoteGlob(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return {".", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

}  // namespace scpkit::cli
