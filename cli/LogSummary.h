// Picks, from the tree log of a failed call, the one line that best tells a
// user what went wrong: the remote program's own message when there is one,
// otherwise the last error line.
#pragma once

#include <string>

namespace scpkit::cli {

// Safe to print (control characters stripped); empty when nothing fits.
std::string failureReason(const std::string& logText);

}  // namespace scpkit::cli
