// Runs one parsed command: checks the local side, connects, configures the
// SCP component, runs the transfer under the progress bar and reports.
#pragma once

#include "cli/Options.h"

namespace scpkit::cli {

// Returns the exit status.
int runCommand(const Options& options);

}  // namespace scpkit::cli
