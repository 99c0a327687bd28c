// Small questions about local paths, and whole reads and writes of the
// standard streams.
#pragma once

#include <cstdint>
#include <string>

namespace scpkit {
class DataBuffer;
}

namespace scpkit::cli {

std::string baseName(const std::string& path);
bool isDirectory(const std::string& path);
// -1 when the path is not a regular file.
int64_t regularFileSize(const std::string& path);
// The path without trailing slashes ("/" stays).
std::string trimSlashes(std::string path);
// `dir` and `name` joined by one '/'.
std::string joinPath(const std::string& dir, const std::string& name);

bool readAll(int fd, DataBuffer& out);
bool writeAll(int fd, const unsigned char* data, size_t size);

}  // namespace scpkit::cli
