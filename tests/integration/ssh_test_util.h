// Small helpers shared by the SSH integration tests.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
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

inline std::string rendered(const _vqLogger& log) {
    std::string out;
    log.renderText(out);
    return out;
}

// Runs a shell command; its exit status, with stdout and stderr in *output.
inline int shell(const std::string& command, std::string* output = nullptr) {
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (!p) return -1;
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    int status = pclose(p);
    if (output) *output = out;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void writeWholeFile(const std::string& path, const std::string& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << data;
}

// Sets (or with nullopt removes) an environment variable until scope exit.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, std::optional<std::string> value) : m_name(name) {
        if (const char* old = getenv(name)) m_old = old;
        if (value)
            setenv(name, value->c_str(), 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv() {
        if (m_old)
            setenv(m_name.c_str(), m_old->c_str(), 1);
        else
            unsetenv(m_name.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    std::string m_name;
    std::optional<std::string> m_old;
};

}  // namespace scpkit::test
