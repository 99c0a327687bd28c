#include <scpkit/base/VostrelObject.h>

// The object families are header-only; this unit anchors the library so it
// always has a source to build.
namespace scpkit {}
