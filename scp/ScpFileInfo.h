// One file or directory as the SCP protocol describes it.
#pragma once

#include <cstdint>

#include <scpkit/base/FileTime.h>
#include <scpkit/base/StringBuffer.h>
#include <scpkit/base/VostrelObject.h>

namespace scpkit {

class ExtPtrArraySb;
class LogBase;

class ScpFileInfo : public NonRefCountedObj {
  public:
    ScpFileInfo() = default;
    ~ScpFileInfo() override = default;

    // A new record with every member copied; null on allocation failure.
    ScpFileInfo* cloneScpFi() const;

    // Fills rFilePath from a traversal's directory stack (element 0, the
    // root's own name, is never part of the path).
    bool contructRPath(ExtPtrArraySb& dirStack, LogBase& log);

    bool isDirectory = false;
    bool isEndOfDir = false;
    uint32_t permissions = 0644;
    VostrelFileTime lastModTime;
    VostrelFileTime lastAccTime;
    bool haveTimes = false;
    StringBuffer filename;
    int64_t fileSize = 0;
    StringBuffer rFilePath;
};

}  // namespace scpkit
