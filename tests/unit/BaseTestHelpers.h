// Shared by the base tests: a private scratch directory, and short ways to
// read a log or a byte buffer as text.
#pragma once

#include <ftw.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Logger.h>

namespace scpkit::test {

inline std::string logText(const _vqLogger& log) {
    std::string out;
    log.renderText(out);
    return out;
}
inline bool logHas(const _vqLogger& log, const std::string& text) {
    return logText(log).find(text) != std::string::npos;
}
inline std::string bytesOf(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}
inline DataBuffer bufferOf(const std::string& bytes) {
    DataBuffer db;
    db.append(bytes.data(), bytes.size());
    return db;
}

// Removed with everything below it (links not followed) at scope exit.
struct TempDir {
    TempDir() { EXPECT_NE(::mkdtemp(path.data()), nullptr); }
    ~TempDir() {
        ::nftw(
            path.c_str(), [](const char* p, auto, int, auto) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
    }
    std::string operator/(const std::string& rel) const { return path + "/" + rel; }
    std::string write(const std::string& rel, const std::string& bytes) const {
        std::ofstream(*this / rel, std::ios::binary) << bytes;
        return *this / rel;
    }
    static std::string read(const std::string& full) {
        std::ifstream in(full, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    std::string path = "/tmp/scpkit-base-XXXXXX";
};

}  // namespace scpkit::test
