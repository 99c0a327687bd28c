// Cuts one tree into pieces that several channels copy at the same time,
// so that no two pieces ever make the same directory: a piece is a whole
// subtree, or the files of one directory without what lies below it (with
// a copy of everything, a few of those files by name). The directories
// between the root and the pieces are made before any piece runs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/TreeShape.h"

namespace scpkit::cli {

struct TreePiece {
    size_t dir = 0;        // the directory it starts in (TreeShape::dirs)
    bool recurse = false;  // everything below it, or only its own files
    // Only these of its files, as wildcard patterns matching exactly those
    // names (';'-separated); empty: every file the filters keep.
    std::string onlyNames;
    int64_t cost = 0;          // in round trips, roughly
    int64_t plannedBytes = 0;  // as the library counts progress: bytes, 100 a directory
};

// One piece, the whole tree, when cutting would not make the copy clearly
// faster. Plans of one tree under rules that differ only in the piece
// overhead are steps of one sequence of cuts.
struct TreePlan {
    std::vector<TreePiece> pieces;  // largest first
    // Directories no piece makes (a piece makes its own directory only when
    // it copies a whole subtree into it); parents before children, the
    // root first.
    std::vector<size_t> madeFirst;
};

// Which directories may start a piece. Its path goes on the remote scp's
// command line: as it is when plain, else quoted for the shell, which an
// upload's command cannot hold when it has a space (the library puts such a
// path in double quotes, where quotes are not read).
enum class PieceRoots { PlainOnly, NoSpaces, Any };

// Letters, digits and "._-+,=@%:/": nothing a shell reads.
bool plainPath(const std::string& path);

struct SplitRules {
    int workers = 1;
    PieceRoots pieceRoots = PieceRoots::PlainOnly;
    // The files of one directory may go out in several pieces (push, when
    // every file is copied: a piece's listing of the server would cover
    // them all).
    bool shareFiles = false;
    // What a piece costs beyond its contents, in round trips: opening a
    // channel, starting the remote scp (through the user's shell), closing.
    int64_t pieceOverhead = 4;
};

// The least a piece can cost: a plan made with it is the finest; a plan
// made later with a measured cost cuts the same tree no finer, so that its
// pieces start in directories the finest plan named.
SplitRules finestRules(int workers, int commandsPerPiece);
// Rules from a remote command just timed: a round trip (the server
// accepting the command) and its whole run. `commandsPerPiece`: 2 when a
// piece lists the server before copying.
SplitRules measuredRules(int workers, double roundTripSeconds, double commandSeconds,
                         int commandsPerPiece);

TreePlan splitTree(const TreeShape& shape, const SplitRules& rules);

// `name` as a wildcard pattern that matches it alone; empty when the
// library's lists cannot hold it (a ';' or space at either end).
std::string exactPattern(const std::string& name);

}  // namespace scpkit::cli
