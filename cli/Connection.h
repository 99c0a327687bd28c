// Sets up the SSH object from the options and logs in the way ssh does: an
// explicit key or password when given, else the agent and the default keys,
// else a password typed at the terminal.
#pragma once

#include <string>

#include "cli/Options.h"

namespace scpkit {
class ClsSsh;
}

namespace scpkit::cli {

class CallLog;

// An exit status: kExitOk, or kExitConnection / kExitUsage with `message`
// set to the line to print.
int connectAndLogin(ClsSsh& ssh, const Options& options, CallLog& callLog, std::string& message);

// The name to log in as when the command line gives none.
std::string localUserName();

}  // namespace scpkit::cli
