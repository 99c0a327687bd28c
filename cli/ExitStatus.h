// The program's exit statuses; scripts depend on them.
#pragma once

namespace scpkit::cli {

enum ExitStatus : int {
    kExitOk = 0,
    kExitTransferFailed = 1,
    kExitUsage = 2,
    kExitConnection = 3,     // connection, host key or authentication
    kExitInterrupted = 130,  // 128 + SIGINT, as shells report it
};

}  // namespace scpkit::cli
