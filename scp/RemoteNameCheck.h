// Names that a server announces in "C" and "D" lines are untrusted: a
// hostile server could use them to make a download write outside its target.
#pragma once

namespace scpkit {

class StringBuffer;

// True when the name is one plain path component that stays inside its
// directory: not empty, not "." or "..", without '/', a NUL byte or a line feed.
bool isSafeRemoteName(const StringBuffer& name);

}  // namespace scpkit
