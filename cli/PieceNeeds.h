// Whether a piece of push or pull could copy anything, told beforehand from
// both trees' figures by the rules the library's tree copies apply, so that
// a re-sync does not start a channel (and pay a round trip a file) for a
// piece that would find everything up to date. Anything not known for
// certain counts as needing the piece: skipping must never lose a copy.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "cli/TreeShape.h"
#include "cli/TreeSplit.h"

namespace scpkit::cli {

// A file as the other side has it.
struct FileFigures {
    bool exists = false;
    int64_t size = 0, time = 0;  // time: whole seconds
};

// The library's choice for one file, by its download or upload mode.
bool downloadTakes(int mode, const FileFigures& local, int64_t remoteSize, int64_t remoteTime);
bool uploadSends(int mode, const FileFigures& remote, int64_t localSize, int64_t localTime);

// pull: `remote` read from the server's listing, `localRoot` looked at now.
bool downloadPieceNeeded(const TreeShape& remote, const TreePiece& piece,
                         const std::string& localRoot, int mode);
// push: `local` walked here, `remote` the server's listing of the remote
// root (taken after the directories were made).
bool uploadPieceNeeded(const TreeShape& local, const TreePiece& piece,
                       const std::unordered_map<std::string, ListedEntry>& remote, int mode);

}  // namespace scpkit::cli
