// The file record: copies and the path relative to a tree's root.
#include <scpkit/scp/ScpFileInfo.h>

#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/base/Logger.h>

namespace scpkit {

ScpFileInfo* ScpFileInfo::cloneScpFi() const {
    try {
        ScpFileInfo* copy = new ScpFileInfo();
        copy->isDirectory = isDirectory;
        copy->isEndOfDir = isEndOfDir;
        copy->permissions = permissions;
        copy->haveTimes = haveTimes;
        copy->fileSize = fileSize;
        copy->filename.setString(filename.getString());
        copy->rFilePath.setString(rFilePath.getString());
        copy->lastAccTime.copyFrom(lastAccTime);
        copy->lastModTime.copyFrom(lastModTime);
        return copy;
    } catch (...) {
        return nullptr;
    }
}

bool ScpFileInfo::contructRPath(ExtPtrArraySb& dirStack, LogBase& log) {
    LogContextExitor ctx(log, "constructRPath");
    rFilePath.clear();
    int n = dirStack.getSize();
    // Element 0 is the root's own name: entries directly in the root have
    // no directory part, and the root itself has the empty path.
    if (n < 2) {
        if (isDirectory) return true;
        return rFilePath.append(filename);
    }
    for (int i = 1; i < n; ++i) {
        rFilePath.append(dirStack.strAt(i));
        rFilePath.appendChar('/');
    }
    if (isDirectory) {
        if (rFilePath.lastChar() == '/') rFilePath.shorten(1);
        return true;
    }
    return rFilePath.append(filename);
}

}  // namespace scpkit
