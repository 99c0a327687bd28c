#include "cli/TreeSplit.h"

#include <algorithm>
#include <functional>
#include <queue>

namespace scpkit::cli {

namespace {

// Bytes weigh in against round trips at about 100 MB/s over 10 ms; the
// channels share the connection's bandwidth, so this only steers the
// balance between pieces.
constexpr int64_t kBytesPerRoundTrip = 1 << 20;
constexpr int64_t kLeastCommandCost = 4;  // open, start, first answer, close
// A cut must promise at least this much, or one channel does the job
// without the commands that cutting costs.
constexpr double kWorthwhileGain = 0.8;
// Every file of a directory shared out is matched against every name of its
// piece; past this many files that costs more than it saves.
constexpr int64_t kMostSharedFiles = 1000;
constexpr int64_t kDirectoryUnits = 100;  // what the library's progress counts per directory
// The search for a better cut stops after this many pieces per worker.
constexpr size_t kMostPiecesPerWorker = 16;

// One candidate piece: a whole subtree, a directory's own files, or a
// share [from, to) of them.
struct Part {
    enum Kind { Whole, Own, Share } kind;
    size_t dir;
    size_t from = 0, to = 0;
    int64_t cost = 0;
};

// Cuts the tree coarsely first, then keeps cutting its largest piece while
// that shortens the estimated time of the run: the largest-first schedule
// of all pieces over the workers, a piece's cost being its round trips.
class Splitter {
  public:
    Splitter(const TreeShape& shape, const SplitRules& rules)
        : m_shape(shape), m_rules(rules), m_subtree(shape.dirs.size()) {
        for (size_t i = shape.dirs.size(); i-- > 0;) {
            const TreeDirectory& d = shape.dirs[i];
            Totals& t = m_subtree[i];
            t = {1 + ownCost(d), d.bytes, 1};
            for (size_t c : d.children) {
                t.cost += m_subtree[c].cost;
                t.bytes += m_subtree[c].bytes;
                t.dirs += m_subtree[c].dirs;
            }
        }
    }

    TreePlan run() {
        std::vector<Part> parts{whole(0)};
        std::vector<bool> cut(m_shape.dirs.size(), false);
        std::vector<Part> best = parts;
        std::vector<bool> bestCut = cut;
        const int64_t oneChannel = makespan(parts);
        int64_t bestTime = oneChannel;
        const size_t most =
            kMostPiecesPerWorker * static_cast<size_t>(std::max(1, m_rules.workers));
        while (parts.size() < most) {
            auto largest = parts.end();
            for (auto p = parts.begin(); p != parts.end(); ++p) {
                if (splittable(*p) && (largest == parts.end() || p->cost > largest->cost))
                    largest = p;
            }
            if (largest == parts.end()) break;
            Part p = *largest;
            parts.erase(largest);
            split(p, parts, cut);
            int64_t time = makespan(parts);
            if (time < bestTime) {
                best = parts;
                bestCut = cut;
                bestTime = time;
            }
        }
        if (bestTime > kWorthwhileGain * static_cast<double>(oneChannel))
            return plan({whole(0)}, std::vector<bool>(cut.size(), false));
        return plan(best, bestCut);
    }

  private:
    struct Totals {
        int64_t cost = 0, bytes = 0, dirs = 0;
    };

    static int64_t ownCost(const TreeDirectory& d) {
        return d.files + d.bytes / kBytesPerRoundTrip;
    }

    Part whole(size_t dir) const {
        return {Part::Whole, dir, 0, 0, m_subtree[dir].cost + m_rules.pieceOverhead};
    }
    // Its own files cost a round trip each, and each subdirectory one more
    // for being passed over.
    Part share(size_t dir, size_t from, size_t to) const {
        const TreeDirectory& d = m_shape.dirs[dir];
        int64_t all = ownCost(d) + static_cast<int64_t>(d.children.size());
        int64_t part = d.files > 0 ? all * static_cast<int64_t>(to - from) / d.files : all;
        bool everything = from == 0 && static_cast<int64_t>(to) == d.files;
        return {everything ? Part::Own : Part::Share, dir, from, to, part + m_rules.pieceOverhead};
    }

    // Cut below `d`: every child must be able to start a piece, and nothing
    // may hold the subtree together.
    bool mayCut(const TreeDirectory& d) const {
        if (d.keepWhole) return false;
        return std::all_of(d.children.begin(), d.children.end(),
                           [this](size_t c) { return mayStartPiece(m_shape.dirs[c].path); });
    }

    bool mayStartPiece(const std::string& path) const {
        switch (m_rules.pieceRoots) {
            case PieceRoots::Any:
                return true;
            case PieceRoots::NoSpaces:
                return path.find(' ') == std::string::npos;
            case PieceRoots::PlainOnly:
                break;
        }
        return plainPath(path);
    }

    bool shareable(const TreeDirectory& d) const {
        if (!m_rules.shareFiles || d.files < 2 || d.files > kMostSharedFiles) return false;
        return std::all_of(d.fileNames.begin(), d.fileNames.end(),
                           [](const std::string& n) { return !exactPattern(n).empty(); });
    }

    bool splittable(const Part& p) const {
        const TreeDirectory& d = m_shape.dirs[p.dir];
        if (p.kind == Part::Whole) return mayCut(d) && (!d.children.empty() || shareable(d));
        return p.to - p.from >= 2 && shareable(d);
    }

    void split(const Part& p, std::vector<Part>& parts, std::vector<bool>& cut) const {
        const TreeDirectory& d = m_shape.dirs[p.dir];
        const size_t files = static_cast<size_t>(d.files);
        if (p.kind == Part::Whole) {
            cut[p.dir] = true;  // no piece makes it now
            if (files > 0 || d.children.empty()) parts.push_back(share(p.dir, 0, files));
            for (size_t c : d.children) parts.push_back(whole(c));
            if (!d.children.empty() || !shareable(d)) return;
            Part own = parts.back();
            parts.pop_back();
            split(own, parts, cut);
            return;
        }
        size_t middle = p.from + (p.to - p.from) / 2;
        parts.push_back(share(p.dir, p.from, middle));
        parts.push_back(share(p.dir, middle, p.to));
    }

    // The time of the run: pieces largest first, each to the worker free
    // soonest.
    int64_t makespan(std::vector<Part> parts) const {
        std::sort(parts.begin(), parts.end(),
                  [](const Part& a, const Part& b) { return a.cost > b.cost; });
        std::priority_queue<int64_t, std::vector<int64_t>, std::greater<int64_t>> loads;
        for (int w = 0; w < std::max(1, m_rules.workers); ++w) loads.push(0);
        int64_t longest = 0;
        for (const Part& p : parts) {
            int64_t load = loads.top() + p.cost;
            loads.pop();
            loads.push(load);
            longest = std::max(longest, load);
        }
        return longest;
    }

    TreePlan plan(std::vector<Part> parts, const std::vector<bool>& cut) const {
        std::stable_sort(parts.begin(), parts.end(),
                         [](const Part& a, const Part& b) { return a.cost > b.cost; });
        TreePlan plan;
        for (const Part& p : parts) {
            TreePiece piece;
            piece.dir = p.dir;
            piece.recurse = p.kind == Part::Whole;
            piece.cost = p.cost;
            const TreeDirectory& d = m_shape.dirs[p.dir];
            if (p.kind == Part::Whole) {
                const Totals& t = m_subtree[p.dir];
                piece.plannedBytes = t.bytes + kDirectoryUnits * t.dirs;
            } else {
                int64_t files = std::max<int64_t>(1, d.files);
                piece.plannedBytes = d.bytes * static_cast<int64_t>(p.to - p.from) / files;
            }
            for (size_t i = p.from; p.kind == Part::Share && i < p.to; ++i)
                piece.onlyNames += (i == p.from ? "" : ";") + exactPattern(d.fileNames[i]);
            plan.pieces.push_back(std::move(piece));
        }
        for (size_t i = 0; i < cut.size(); ++i)
            if (cut[i]) plan.madeFirst.push_back(i);
        return plan;
    }

    const TreeShape& m_shape;
    const SplitRules& m_rules;
    std::vector<Totals> m_subtree;
};

}  // namespace

bool plainPath(const std::string& path) {
    for (unsigned char c : path) {
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     c >= 0x80 ||
                     std::string("._-+,=@%:/").find(static_cast<char>(c)) != std::string::npos;
        if (!plain) return false;
    }
    return true;
}

std::string exactPattern(const std::string& name) {
    auto space = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    if (name.empty() || name.find(';') != std::string::npos || space(name.front()) ||
        space(name.back())) {
        return "";
    }
    std::string pattern;
    for (char c : name) {
        if (c == '\\' || c == '*' || c == '?' || c == '[') pattern += '\\';
        pattern += c;
    }
    return pattern;
}

SplitRules finestRules(int workers, int commandsPerPiece) {
    SplitRules rules;
    rules.workers = workers;
    rules.pieceOverhead = kLeastCommandCost * std::max(1, commandsPerPiece);
    return rules;
}

SplitRules measuredRules(int workers, double roundTripSeconds, double commandSeconds,
                         int commandsPerPiece) {
    SplitRules rules = finestRules(workers, commandsPerPiece);
    double rtt = std::max(roundTripSeconds, 1e-6);
    double overhead = commandSeconds / rtt * std::max(1, commandsPerPiece);
    rules.pieceOverhead =
        std::max(rules.pieceOverhead, static_cast<int64_t>(std::min(overhead, 1e9)));
    return rules;
}

TreePlan splitTree(const TreeShape& shape, const SplitRules& rules) {
    if (shape.dirs.empty()) return TreePlan();
    return Splitter(shape, rules).run();
}

}  // namespace scpkit::cli
