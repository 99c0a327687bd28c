// A remote path whose last part holds wildcards (host:/logs/*.txt) names
// the matching files of one directory; get downloads them as a one-level
// tree with the wildcard as its file filter.
#pragma once

#include <string>

namespace scpkit::cli {

// True when the last part of the path holds '*', '?' or '['.
bool isRemoteGlob(const std::string& path);

// Empty when the path is usable; else why not (wildcards in a directory
// part, or a ';', which separates the filter's patterns).
std::string checkRemoteGlob(const std::string& path);

struct RemoteGlob {
    std::string directory;  // "." for a bare pattern
    std::string pattern;
};
RemoteGlob splitRemoteGlob(const std::string& path);

}  // namespace scpkit::cli
