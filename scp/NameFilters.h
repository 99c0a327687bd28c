// The four wildcard lists of a tree synchronisation, made from the
// SyncMustMatch* properties when a walk starts.
#pragma once

#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/scp/ClsScp.h>

namespace scpkit {

struct ClsScp::NameFilters {
    explicit NameFilters(const ClsScp& scp);
    // Files against the file lists, directories against the directory lists.
    bool skips(ClsScp& scp, XString& name, bool isDirectory, LogBase& log);
    bool empty() const;

    ExtPtrArraySb mustMatch, mustNotMatch, mustMatchDir, mustNotMatchDir;
};

}  // namespace scpkit
