#include "cli/Commands.h"

#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <scpkit/ssh/ClsSsh.h>
#include "cli/CallLog.h"
#include "cli/Connection.h"
#include "cli/ExitStatus.h"
#include "cli/FileList.h"
#include "cli/Interrupt.h"
#include "cli/ProgressBar.h"
#include "cli/RateLimit.h"
#include "cli/Session.h"
#include "cli/TransferWatch.h"

namespace scpkit::cli {

namespace {

// Releases the SSH object's creation reference at the end of the run.
struct SshHolder {
    ClsSsh* ssh = ClsSsh::createNewCls();
    ~SshHolder() {
        if (ssh) {
            ssh->Disconnect();
            ssh->decRefCount();
        }
    }
};

// The library writes its debug log where it can and says nothing when it
// cannot: the program asks first.
bool debugLogWritable(const std::string& path, std::string& error) {
    if (path.empty()) return true;
    std::FILE* f = std::fopen(path.c_str(), "a");
    if (!f) {
        error = "cannot write the debug log " + path + ": " + std::strerror(errno);
        return false;
    }
    std::fclose(f);
    return true;
}

std::unique_ptr<CommandRun> makeCommand(const Options& o) {
    switch (o.command) {
        case Command::Put:
            return makePutCommand(o);
        case Command::Get:
            return makeGetCommand(o);
        case Command::Push:
        case Command::Pull:
            break;
    }
    return makeTreeCommand(o);
}

bool wantsBar(const OutputOptions& out) {
    return out.progress == ProgressChoice::Always ||
           (out.progress == ProgressChoice::Auto && !out.quiet && isatty(2));
}

// Where both streams show on one terminal, the line each finished file
// leaves under the bar stands for the list (a dry run copies nothing and
// leaves no such lines).
bool wantsList(const Options& o, bool drawBar) {
    if (o.output.quiet || !o.isTree()) return false;
    return o.tree.dryRun || !(drawBar && isatty(1) && isatty(2));
}

}  // namespace

int runCommand(const Options& options) {
    CallLog callLog(options.output.logFile);
    if (!callLog.ok()) {
        printError("cannot open the log file " + options.output.logFile + ": " +
                   std::strerror(errno));
        return kExitUsage;
    }
    std::string error;
    if (!debugLogWritable(options.output.debugLogFile, error)) {
        printError(error);
        return kExitUsage;
    }
    std::unique_ptr<CommandRun> command = makeCommand(options);
    int status = command->prepare();
    if (status != kExitOk) return status;

    SshHolder holder;
    if (!holder.ssh) {
        printError("out of memory");
        return kExitTransferFailed;
    }
    std::string message;
    status = connectAndLogin(*holder.ssh, options, callLog, message);
    if (status != kExitOk) {
        printError(message + (status == kExitUsage ? "" : callLog.hint()));
        return status;
    }

    bool drawBar = wantsBar(options.output);
    ProgressBar bar(drawBar);
    RateLimit limit(options.transfer.limitBytesPerSecond);
    FileList list(wantsList(options, drawBar));
    TransferWatch watch(bar, limit, list);
    Session session{options, *holder.ssh, callLog, bar, list, watch, limit};
    // From here a signal stops the transfer through the library's abort.
    setInterruptAbortable(true);
    status = command->run(session);
    setInterruptAbortable(false);
    bar.clear();
    return status;
}

}  // namespace scpkit::cli
