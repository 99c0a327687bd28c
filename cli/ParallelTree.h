// Copies the pieces of one tree over several channels of the connection at
// once: a worker thread per channel, each with its own SCP object and
// progress watch, taking pieces largest first. A worker whose channel the
// server refuses (its session limit) puts its piece back and stops; the run
// goes on with the others, and fails only when no channel can be had. After
// a failure no new piece starts; after a signal every worker stops through
// the library's abort.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/TransferWatch.h"

namespace scpkit::cli {

struct Session;

struct PieceJob {
    std::string localRoot, remoteRoot;  // where the piece starts on each side
    std::string listPrefix;  // its path below the tree's root, with a final '/'; "" at the root
    int mode = 0;
    bool recurse = true;
    std::string onlyNames;  // only these files (wildcards, ';'-separated); empty: all
    int64_t plannedBytes = 0;
};

struct ParallelOutcome {
    enum class Result { Done, Failed, Interrupted };
    Result result = Result::Done;
    std::string failure;  // why the first failed piece failed
    // What failed or stopped pieces had begun and not finished: pull's
    // local files (full paths), push's remote files.
    std::vector<std::string> unfinishedLocal;
    std::vector<UnfinishedUpload> unfinishedRemote;
};

// `jobs` largest first; at most `workers` channels at once.
ParallelOutcome runPieces(Session& s, TreeDirection direction, const std::vector<PieceJob>& jobs,
                          int workers);

}  // namespace scpkit::cli
