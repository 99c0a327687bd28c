// Path text operations and whole-second UTC file times.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "base/FilePath.h"
#include "base/FileTime.h"
#include "base/XString.h"

namespace scpkit::test {
namespace {

struct OneIn {
    const char* in;
    const char* out;
};

struct TwoIn {
    const char* dir;
    const char* rel;
    const char* out;
};

TEST(FilePath, FinalFilenamePart) {
    const OneIn cases[] = {
        {"/home/u/x.txt", "x.txt"},
        {"x.txt", "x.txt"},
        {"/home/u/", ""},
        {"/", ""},
        {"", ""},
        {"dir/my file.txt", "my file.txt"},
        {"a//b", "b"},
        {"./.hidden", ".hidden"},
        {"/home/\xc3\xa9t\xc3\xa9", "\xc3\xa9t\xc3\xa9"},
    };
    for (const OneIn& c : cases) {
        XString name("stale");
        _vqFilePath::GetFinalFilenamePart(XString(c.in), name);
        EXPECT_STREQ(name.getUtf8(), c.out) << "path: " << c.in;
    }
}

TEST(FilePath, CombineDirAndFilename) {
    const TwoIn cases[] = {
        {"/root", "f.txt", "/root/f.txt"},
        {"/root/", "f.txt", "/root/f.txt"},
        {"rel/dir", "sub", "rel/dir/sub"},
        {"/", "etc", "/etc"},
        {"", "alone", "alone"},
        {".", "f", "./f"},
        {"/root", "name with blanks", "/root/name with blanks"},
    };
    for (const TwoIn& c : cases) {
        XString out("stale");
        _vqFilePath::CombineDirAndFilename(XString(c.dir), XString(c.rel), out);
        EXPECT_STREQ(out.getUtf8(), c.out) << c.dir << " + " << c.rel;
    }
}

TEST(FilePath, CombineDirAndFilepath) {
    const TwoIn cases[] = {
        {"/local/root", "", "/local/root"},
        {"/local/root/", "", "/local/root/"},
        {"/local/root", "a/b/c.txt", "/local/root/a/b/c.txt"},
        {"/local/root/", "a/b", "/local/root/a/b"},
        {"/local/root", "./a", "/local/root/a"},
        {"/local/root", "/a", "/local/root/a"},  // never escapes to the top
        {"/local/root", ".", "/local/root"},
        {"rel", "x", "rel/x"},
        {"", "x/y", "x/y"},
    };
    for (const TwoIn& c : cases) {
        XString out("stale");
        _vqFilePath::CombineDirAndFilepath(XString(c.dir), XString(c.rel), out);
        EXPECT_STREQ(out.getUtf8(), c.out) << c.dir << " + " << c.rel;
    }
}

TEST(FilePath, UpOneDir) {
    const OneIn cases[] = {
        {"a/b/c", "a/b"}, {"a/b/", "a"},  {"/a", "/"},   {"a", ""},         {"/", "/"},
        {"", ""},         {"/a/b", "/a"}, {"a//b", "a"}, {"/x/y///", "/x"},
    };
    for (const OneIn& c : cases) {
        XString path(c.in);
        _vqFilePath::UpOneDir(path);
        EXPECT_STREQ(path.getUtf8(), c.out) << "path: " << c.in;
    }
}

TEST(FilePath, EnteringAndLeavingReturnsToTheStart) {
    // The local walk extends the path by one name per level and cuts it back.
    for (const char* root : {"/data/root", "relative", "/"}) {
        XString path(root);
        for (const char* name : {"one", "two words", "three"}) {
            XString next;
            _vqFilePath::CombineDirAndFilename(path, XString(name), next);
            path.copyFromX(next);
        }
        for (int i = 0; i < 3; ++i) _vqFilePath::UpOneDir(path);
        EXPECT_STREQ(path.getUtf8(), root);
    }
}

TEST(FileTime, ThirtyTwoBitSecondsClampAtBothEnds) {
    const struct {
        int64_t seconds;
        uint32_t expected;
    } cases[] = {
        {0, 0u},
        {1, 1u},
        {1700000000, 1700000000u},
        {int64_t{UINT32_MAX}, UINT32_MAX},
        {int64_t{UINT32_MAX} + 1, UINT32_MAX},
        {INT64_MAX, UINT32_MAX},
        {-1, 0u},
        {INT64_MIN, 0u},
    };
    for (const auto& c : cases) {
        VostrelFileTime t;
        t.fromUnixTime64(c.seconds);
        EXPECT_EQ(t.toUnixTime32(), c.expected) << c.seconds;
    }
    for (uint32_t s : {0u, 1u, 1234567890u, UINT32_MAX}) {
        VostrelFileTime t;
        t.fromUnixTime32(s, 0);
        EXPECT_EQ(t.toUnixTime32(), s);
        EXPECT_EQ(t.toUnixTime64(), int64_t{s});
    }
}

TEST(FileTime, ExactComparison) {
    const struct {
        int64_t a, b;
        int expected;
    } cases[] = {
        {100, 99, 1},
        {99, 100, -1},
        {100, 100, 0},
        {-5, 5, -1},
        {int64_t{UINT32_MAX} + 10, int64_t{UINT32_MAX}, 1},  // beyond 32 bits still ordered
        {0, 0, 0},
    };
    for (const auto& c : cases) {
        VostrelFileTime a, b;
        a.fromUnixTime64(c.a);
        b.fromUnixTime64(c.b);
        EXPECT_EQ(VostrelFileTime::compareFileTimeExact(a, b), c.expected) << c.a << " vs " << c.b;
        VostrelFileTime copy;
        copy.copyFrom(a);
        EXPECT_EQ(VostrelFileTime::compareFileTimeExact(copy, a), 0);
    }
}

TEST(FileTime, CurrentTimeIsNowInSeconds) {
    const int64_t before = static_cast<int64_t>(std::time(nullptr));
    VostrelFileTime now;
    now.getCurrentGmt();
    const int64_t after = static_cast<int64_t>(std::time(nullptr));
    EXPECT_GE(now.toUnixTime64(), before);
    EXPECT_LE(now.toUnixTime64(), after);
}

}  // namespace
}  // namespace scpkit::test
