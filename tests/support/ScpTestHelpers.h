// Small helpers shared by the SCP component's tests: the rendered log,
// scratch directories and whole-file reads and writes.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/XString.h>

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

// Every `present` text occurs in the log, no non-empty `absent` one does.
inline void expectLog(const std::string& log, std::initializer_list<std::string> present,
                      std::initializer_list<std::string> absent = {}) {
    for (const auto& p : present)
        EXPECT_NE(log.find(p), std::string::npos) << "missing: " << p << "\n" << log;
    for (const auto& a : absent)
        EXPECT_TRUE(a.empty() || log.find(a) == std::string::npos) << "unexpected: " << a << "\n"
                                                                   << log;
}

// A fresh directory under /tmp, removed with its content on destruction.
class ScratchDir {
  public:
    explicit ScratchDir(const char* tag = "scpkit")
        : m_path(std::string("/tmp/") + tag + "-XXXXXX") {
        if (!::mkdtemp(&m_path[0])) m_path.clear();
    }
    ~ScratchDir() {
        std::error_code ec;
        if (!m_path.empty()) std::filesystem::remove_all(m_path, ec);
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
    return static_cast<bool>(f << bytes);
}

inline std::string readWholeFile(const std::string& path) {
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

inline bool pathExists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

inline unsigned fileMode(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<unsigned>(st.st_mode & 07777) : 0;
}

inline long long fileMtime(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_mtime) : -1;
}

// Entries of a directory ("." and ".." not counted); -1 when it cannot be listed.
inline long countEntries(const std::string& dir) {
    std::error_code ec;
    std::filesystem::directory_iterator it(dir, ec);
    return ec ? -1 : static_cast<long>(std::distance(it, std::filesystem::directory_iterator()));
}

}  // namespace scpkit::test
