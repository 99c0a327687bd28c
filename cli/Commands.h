// Runs one parsed command: checks the local side, connects, runs the
// transfers under the progress callback and reports.
#pragma once

#include <memory>

#include "cli/Options.h"

namespace scpkit::cli {

struct Session;

// One command in its two steps.
class CommandRun {
  public:
    virtual ~CommandRun() = default;
    // The checks and reads that need no connection, so mistakes fail fast.
    // An exit status.
    virtual int prepare() = 0;
    // The transfers, once logged in. An exit status.
    virtual int run(Session& session) = 0;
};

std::unique_ptr<CommandRun> makePutCommand(const Options& options);
std::unique_ptr<CommandRun> makeGetCommand(const Options& options);
std::unique_ptr<CommandRun> makeTreeCommand(const Options& options);

// Returns the exit status.
int runCommand(const Options& options);

}  // namespace scpkit::cli
