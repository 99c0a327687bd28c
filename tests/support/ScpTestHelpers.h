// Small helpers shared by the SCP component's tests: the rendered log,
// scratch directories and whole-file reads and writes.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
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

// A fresh directory under /tmp, removed with its content on destruction.
class ScratchDir {
  public:
    explicit ScratchDir(const char* tag = "scpkit") {
        std::string pattern = std::string("/tmp/") + tag + "-XXXXXX";
        char* made = mkdtemp(&pattern[0]);
        m_path = made ? made : "";
    }
    ~ScratchDir() {
        if (!m_path.empty()) {
            std::string cmd = "rm -rf '" + m_path + "'";
            if (std::system(cmd.c_str()) != 0) {
                // Nothing more to do: the directory lives under /tmp.
            }
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
    if (::stat(path.c_str(), &st) != 0) return 0;
    return static_cast<unsigned>(st.st_mode & 07777);
}

inline long long fileMtime(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return -1;
    return static_cast<long long>(st.st_mtime);
}

}  // namespace scpkit::test
