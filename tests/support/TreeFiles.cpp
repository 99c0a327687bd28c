#include "tests/support/TreeFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

namespace scpkit::test {

void writeFile(const std::string& path, const std::string& content, int64_t mtime, unsigned mode) {
    fs::create_directories(fs::path(path).parent_path());
    writeWholeFile(path, content);
    chmod(path.c_str(), mode);
    const timespec times[2] = {{static_cast<time_t>(mtime), 0}, {static_cast<time_t>(mtime), 0}};
    if (mtime >= 0) utimensat(AT_FDCWD, path.c_str(), times, 0);
}

void makeDir(const std::string& path, unsigned mode) {
    fs::create_directories(path);
    chmod(path.c_str(), mode);
}

TreeSnapshot snapshotTree(const std::string& root) {
    TreeSnapshot out;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        struct stat st;
        if (lstat(it->path().c_str(), &st) != 0) continue;
        TreeEntry& entry = out[it->path().lexically_relative(root).string()];
        entry = {S_ISDIR(st.st_mode), st.st_mode & 07777u};
        if (!entry.isDir) entry = {false, entry.mode, st.st_mtime, readWholeFile(it->path())};
    }
    return out;
}

std::vector<std::string> listTree(const std::string& root, bool filesOnly) {
    std::vector<std::string> out;
    for (const auto& [path, entry] : snapshotTree(root))
        if (!filesOnly || !entry.isDir) out.push_back(path);
    return out;
}

std::vector<std::string> sortedLines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) out.push_back(line);
    }
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace scpkit::test
