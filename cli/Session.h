// What the four commands share once connected: the options, the logged-in
// SSH object, the call log, the progress callback and its parts, and the
// way failures are told.
#pragma once

#include <string>

#include "cli/Options.h"

namespace scpkit {
class ClsBase;
class ClsScp;
class ClsSsh;
}  // namespace scpkit

namespace scpkit::cli {

class CallLog;
class FileList;
class ProgressBar;
class RateLimit;
class TransferWatch;

struct Session {
    const Options& options;
    ClsSsh& ssh;
    CallLog& callLog;
    ProgressBar& bar;
    FileList& list;
    TransferWatch& watch;
    RateLimit& limit;

    // Binds a fresh SCP object to the connection with the program's settings.
    void configure(ClsScp& scp) const;
    // Records the object's last call in the call log.
    void record(ClsBase& object) const;
    // " (full log in FILE)" or how to get one.
    std::string logHint() const;
    const char* commandName() const;
};

// "scpkit: " and the line, on standard error.
void printError(const std::string& line);

// The status of a run ended by the signal received, after saying so.
int interruptedStatus(const char* commandName, const std::string& cleanup);

}  // namespace scpkit::cli
