// Text from the server (error messages, file names) printed on a terminal
// must not be able to move the cursor, recolour, retitle or rewrite it.
#pragma once

#include <string>

namespace scpkit::cli {

// One printable line: escape sequences and other control characters (C0,
// DEL, C1, bidirectional overrides) removed, line breaks and tabs turned
// into single blanks, invalid UTF-8 bytes shown as '?', ends trimmed.
std::string stripControlChars(const std::string& text);

}  // namespace scpkit::cli
