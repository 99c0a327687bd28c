// Local files and directories.
#pragma once

#include <cstdint>

namespace scpkit {

class XString;
class LogBase;
class VostrelFileTime;

class FileSys {
  public:
    // True when a regular file (or a link to one) exists at the path.
    // `noAccess` (may be null) is set when the path could not be examined.
    static bool fileExistsX(const XString& path, bool* noAccess, LogBase* log);
    // True when the path is an existing directory (links followed).
    static bool IsExistingDirectory(const XString& path, bool* noAccess, LogBase* log);
    static int64_t fileSizeX_64(const XString& path, LogBase* log, bool& ok);
    // The permission bits (07777) of a path.
    static unsigned getUnixPerms(const XString& path, LogBase* log, bool& ok);
    static bool GetFileLastModTimeGmt(const XString& path, VostrelFileTime& t, LogBase* log);
    // Only a regular file or a directory (links followed); false on anything else.
    static bool setPerm(const XString& path, unsigned perms, LogBase* log);
    // Only a regular file or a link (never what it points to); false on anything else.
    static bool deleteFileUtf8(const char* path, LogBase* log);
    // Creates one directory (mode 0777 less the umask).
    static bool createDir(const XString& path, LogBase* log);
};

class DirAutoCreate {
  public:
    // Creates every missing directory of the path; true when it exists after.
    static bool ensureDirUtf8(const char* path, LogBase* log);
};

}  // namespace scpkit
