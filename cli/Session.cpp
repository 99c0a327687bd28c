#include "cli/Session.h"

#include <csignal>
#include <cstdio>
#include <cstring>

#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include "cli/CallLog.h"
#include "cli/ExitStatus.h"
#include "cli/Interrupt.h"
#include "cli/ProgressBar.h"

namespace scpkit::cli {

namespace {

constexpr unsigned kPollIntervalMs = 100;  // how soon a signal is noticed

void setText(ClsScp& scp, void (ClsScp::*put)(XString&), const std::string& value) {
    if (value.empty()) return;
    XString x(value.c_str());
    (scp.*put)(x);
}

const char* signalName(int sig) {
    switch (sig) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        case SIGHUP:
            return "SIGHUP";
    }
    return "a signal";
}

}  // namespace

void Session::configure(ClsScp& scp) const {
    scp.UseSsh(ssh);
    record(scp);
    scp.put_PollIntervalMs(kPollIntervalMs);
    scp.put_PercentScale(ProgressBar::kScale);
    const OutputOptions& out = options.output;
    if (out.verboseLog) scp.put_VerboseLogging(true);
    setText(scp, &ClsScp::put_DebugLogFilePath, out.debugLogFile);
    const TransferOptions& t = options.transfer;
    setText(scp, &ClsScp::put_SendEnv, t.sendEnvJson);
    setText(scp, &ClsScp::put_UnixPermOverride, t.chmod);
    const TreeOptions& tree = options.tree;
    setText(scp, &ClsScp::put_SyncMustMatch, tree.match);
    setText(scp, &ClsScp::put_SyncMustNotMatch, tree.exclude);
    setText(scp, &ClsScp::put_SyncMustMatchDir, tree.matchDir);
    setText(scp, &ClsScp::put_SyncMustNotMatchDir, tree.excludeDir);

    // Answers sent ahead of the records they answer: the same bytes, fewer
    // round trips.
    std::string keywords = "Pipelined";
    if (t.filenameOnly) keywords += ",FilenameOnly";
    if (tree.dryRun) keywords += ",DryRun";
    // The listing pass that sizes a pull costs a round trip per file; only
    // a bar shows what it buys. (push sizes itself from the local disk.)
    if (options.command == Command::Pull && !bar.drawing()) keywords += ",NoSizingPass";
    XString uncommon(keywords.c_str());
    scp.put_UncommonOptions(uncommon);
}

void Session::record(ClsBase& object) const {
    callLog.record(object);
}

std::string Session::logHint() const {
    return callLog.hint();
}

const char* Session::commandName() const {
    switch (options.command) {
        case Command::Put:
            return "put";
        case Command::Get:
            return "get";
        case Command::Push:
            return "push";
        case Command::Pull:
            return "pull";
    }
    return "?";
}

void printError(const std::string& line) {
    std::fprintf(stderr, "scpkit: %s\n", line.c_str());
}

int interruptedStatus(const char* commandName, const std::string& cleanup) {
    int sig = interruptSignal();
    printError(std::string(commandName) + " interrupted by " + signalName(sig) +
               (cleanup.empty() ? "" : "; " + cleanup));
    return kExitSignalBase + (sig > 0 ? sig : SIGINT);
}

}  // namespace scpkit::cli
