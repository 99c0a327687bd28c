// Options of a channel wait.
#pragma once

namespace scpkit {

struct SshReadParams {
    // Longest wait without progress; -1 uses the object's StallTimeoutMs.
    int idleTimeoutMs = -1;
};

}  // namespace scpkit
