#include <scpkit/base/FilePath.h>

#include <string>

#include <scpkit/base/XString.h>

namespace scpkit {

void _vqFilePath::GetFinalFilenamePart(const XString& path, XString& name) {
    const std::string& p = path.getUtf8Sb().str();
    size_t slash = p.rfind('/');
    name.setFromUtf8(slash == std::string::npos ? p.c_str() : p.c_str() + slash + 1);
}

void _vqFilePath::CombineDirAndFilename(const XString& dir, const XString& name, XString& out) {
    std::string joined = dir.getUtf8Sb().str();
    if (!joined.empty() && joined.back() != '/') joined += '/';
    joined += name.getUtf8Sb().str();
    out.setFromUtf8(joined.c_str());
}

void _vqFilePath::CombineDirAndFilepath(const XString& dir, const XString& relPath, XString& out) {
    // Leading "./" pieces and extra slashes of the relative part add nothing
    // to the joined path.
    std::string rel = relPath.getUtf8Sb().str();
    size_t start = 0;
    for (;;) {
        if (rel.compare(start, 2, "./") == 0) {
            start += 2;
        } else if (start < rel.size() && rel[start] == '/') {
            ++start;
        } else {
            break;
        }
    }
    rel.erase(0, start);
    if (rel.empty() || rel == ".") {
        out.setFromUtf8(dir.getUtf8());
        return;
    }
    XString relX(rel.c_str());
    CombineDirAndFilename(dir, relX, out);
}

void _vqFilePath::UpOneDir(XString& path) {
    std::string p = path.getUtf8Sb().str();
    // A trailing separator does not make another level.
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    size_t slash = p.rfind('/');
    if (slash == std::string::npos) {
        p.clear();
    } else if (slash == 0) {
        p = "/";
    } else {
        p.erase(slash);
        while (p.size() > 1 && p.back() == '/') p.pop_back();
    }
    path.setFromUtf8(p.c_str());
}

}  // namespace scpkit
