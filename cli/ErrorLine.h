// Why a library call failed, in one printable line, built from the call's
// first error and the data items logged around it (never from the wording
// of the log).
#pragma once

#include <string>

namespace scpkit {
class ClsBase;
struct LogFirstError;
}  // namespace scpkit

namespace scpkit::cli {

// The remote program's own message when there is one; otherwise the error,
// with the system's or the SSH layer's reason in parentheses. Safe to
// print; empty when nothing was said.
std::string describeFailure(const LogFirstError& error);

// The same for the object's last call.
std::string failureReason(ClsBase& object);

}  // namespace scpkit::cli
