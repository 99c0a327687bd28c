// Path text operations; the separator is '/'.
#pragma once

namespace scpkit {

class XString;

class _vqFilePath {
public:
    // The text after the last '/' (all of it when there is none; empty when
    // the path ends with '/').
    static void GetFinalFilenamePart(const XString& path, XString& name);
    // dir + '/' + name (no second '/' when dir already ends with one; the
    // name alone when dir is empty).
    static void CombineDirAndFilename(const XString& dir, const XString& name, XString& out);
    // dir joined with a relative path written with '/'; an empty relative
    // path yields dir itself.
    static void CombineDirAndFilepath(const XString& dir, const XString& relPath, XString& out);
    // Removes the last component in place ("a/b/c" -> "a/b", "a/b/" -> "a",
    // "/a" -> "/", "a" -> "").
    static void UpOneDir(XString& path);
};

}  // namespace scpkit
