// Why a library call failed, in one printable line.
#pragma once

#include <string>

namespace scpkit {
class ClsBase;
}

namespace scpkit::cli {

// What the object's last call says went wrong: the remote program's own
// message when there is one, otherwise the call's error. Safe to print;
// empty when nothing was said.
std::string failureReason(ClsBase& object);

}  // namespace scpkit::cli
