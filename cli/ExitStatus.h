// The program's exit statuses; scripts depend on them.
#pragma once

namespace scpkit::cli {

enum ExitStatus : int {
    kExitOk = 0,
    kExitTransferFailed = 1,
    kExitUsage = 2,
    kExitConnection = 3,  // connection, host key or authentication
    // 128 plus the signal's number, as shells report it: 130 for SIGINT,
    // 143 for SIGTERM, 129 for SIGHUP.
    kExitSignalBase = 128,
};

}  // namespace scpkit::cli
