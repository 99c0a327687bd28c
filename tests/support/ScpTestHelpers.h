// Small helpers shared by the SCP component's tests: the rendered log,
// scratch directories and whole-file reads and writes.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>

#include "base/ClsBase.h"
#include "base/Logger.h"
#include "base/XString.h"

namespace scpkit::test {

inline std::string lastErrorText(ClsBase& obj) {
    XString text;
    obj.get_LastErrorText(text);
    return text.getUtf8();
}

inline std::string renderedLog(const _vqLogger& log) {
    std::string out;
    log.renderText(out);
    return out;
}

// Every non-empty `present` text occurs in the log, no non-empty `absent` one does.
inline void expectLog(const std::string& log, std::initializer_list<std::string> present,
                      std::initializer_list<std::string> absent = {}) {
    for (const auto& p : present)
        EXPECT_TRUE(p.empty() || log.find(p) != std::string::npos) << "missing: " << p << "\n"
                                                                   << log;
    for (const auto& a : absent)
        EXPECT_TRUE(a.empty() || log.find(a) == std::string::npos) << "unexpected: " << a << "\n"
                                                                   << log;
}

// A fresh directory under /tmp, removed with its content on destruction.
class ScratchDir {
  public:
    explicit ScratchDir(const char* tag = "scpkit") {
        std::string pattern = std::string("/tmp/") + tag + "-XXXXXX";
        m_path = mkdtemp(&pattern[0]) ? pattern : "";
    }
    ~ScratchDir() {
        if (!m_path.empty() && std::system(("rm -rf '" + m_path + "'").c_str()) != 0) {
        }
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

inline bool writeWholeFile(const std::string& path, const std::string& bytes) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(f);
}

inline std::string readWholeFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

inline bool pathExists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

inline unsigned fileMode(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<unsigned>(st.st_mode & 07777) : 0;
}

inline long long fileMtime(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_mtime) : -1;
}

// Entries of a directory, "." and ".." not counted.
inline int countEntries(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return -1;
    int n = 0;
    while (dirent* e = ::readdir(d))
        n += std::string(e->d_name) != "." && e->d_name != std::string("..");
    ::closedir(d);
    return n;
}

}  // namespace scpkit::test
