#include "tests/support/TreeFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace scpkit::test {

TreeDir::TreeDir(const std::string& parent) {
    std::string templ = parent + "/scpkit-tree-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed under " + parent);
    m_path = buf.data();
}

TreeDir::~TreeDir() {
    removeTree(m_path);
}

static void makeParents(const std::string& path) {
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
        mkdir(path.substr(0, pos).c_str(), 0755);
    }
}

void setMtime(const std::string& path, int64_t mtime) {
    struct timespec times[2];
    times[0].tv_sec = static_cast<time_t>(mtime);
    times[0].tv_nsec = 0;
    times[1] = times[0];
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

void writeFile(const std::string& path, const std::string& content, int64_t mtime, unsigned mode) {
    makeParents(path);
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        if (!out) throw std::runtime_error("cannot write " + path);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
    }
    chmod(path.c_str(), mode);
    if (mtime >= 0) setMtime(path, mtime);
}

void makeDir(const std::string& path, unsigned mode) {
    makeParents(path + "/");
    chmod(path.c_str(), mode);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool pathExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

void removeTree(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        chmod(path.c_str(), 0700);  // so that a test's unreadable directory can go too
        if (DIR* d = opendir(path.c_str())) {
            while (struct dirent* e = readdir(d)) {
                std::string name = e->d_name;
                if (name == "." || name == "..") continue;
                removeTree(path + "/" + name);
            }
            closedir(d);
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

static void walk(const std::string& root, const std::string& rel, TreeSnapshot& out) {
    std::string dir = rel.empty() ? root : root + "/" + rel;
    DIR* d = opendir(dir.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
    for (const std::string& name : names) {
        std::string childRel = rel.empty() ? name : rel + "/" + name;
        std::string full = root + "/" + childRel;
        struct stat st;
        if (lstat(full.c_str(), &st) != 0) continue;
        TreeEntry entry;
        entry.mode = st.st_mode & 07777;
        if (S_ISDIR(st.st_mode)) {
            entry.isDir = true;
            out[childRel] = entry;
            walk(root, childRel, out);
        } else {
            entry.mtime = st.st_mtime;
            entry.content = readFile(full);
            out[childRel] = entry;
        }
    }
}

TreeSnapshot snapshotTree(const std::string& root) {
    TreeSnapshot out;
    walk(root, "", out);
    return out;
}

std::vector<std::string> listTree(const std::string& root) {
    std::vector<std::string> out;
    for (const auto& kv : snapshotTree(root)) out.push_back(kv.first);
    return out;
}

std::vector<std::string> sortedLines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) out.push_back(line);
    }
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace scpkit::test
