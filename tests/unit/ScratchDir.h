// A private directory under the system temp dir for tests that touch real
// files; it and everything below it are removed at scope exit.
#pragma once

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace scpkit::test {

class ScratchDir {
  public:
    ScratchDir() {
        const char* tmp = std::getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/scpkit-test-XXXXXX";
        if (!::mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
        m_path = templ;
    }
    ~ScratchDir() {
        // Depth-first, not following links, so nothing outside is touched.
        ::nftw(
            m_path.c_str(),
            [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& rel) const { return m_path + "/" + rel; }

    // Writes a file (relative to the directory) and returns its full path.
    std::string write(const std::string& rel, const std::string& bytes) const {
        std::string full = *this / rel;
        std::ofstream(full, std::ios::binary | std::ios::trunc) << bytes;
        return full;
    }
    std::string mkdir(const std::string& rel) const {
        std::string full = *this / rel;
        ::mkdir(full.c_str(), 0755);
        return full;
    }

    static std::string read(const std::string& full) {
        std::ifstream in(full, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

  private:
    std::string m_path;
};

}  // namespace scpkit::test
