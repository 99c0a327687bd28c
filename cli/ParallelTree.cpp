#include "cli/ParallelTree.h"

#include <deque>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>

#include <scpkit/base/Logger.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "cli/ErrorLine.h"
#include "cli/FileList.h"
#include "cli/Interrupt.h"
#include "cli/ProgressBar.h"
#include "cli/Session.h"
#include "cli/TreeProgress.h"

namespace scpkit::cli {

namespace {

static_assert(kMaxTreeJobs <= kPartialFileSlots, "a partial-file slot for each worker");

// What the SSH object logs when the server will not open another session.
const char* const kChannelRefused = "Failed to open a session channel.";

// The library's list of a piece, one path a line, below the tree's root.
std::string listedBelowRoot(const std::string& synced, const std::string& prefix) {
    std::istringstream in(synced);
    std::string out;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) out += prefix + line + "\n";
    }
    return out;
}

class Runner {
  public:
    Runner(Session& s, TreeDirection direction, const std::vector<PieceJob>& jobs)
        : m_s(s), m_direction(direction), m_jobs(jobs), m_progress(kMaxTreeJobs) {}

    ParallelOutcome run(int workers) {
        for (size_t i = 0; i < m_jobs.size(); ++i) {
            m_queue.push_back(i);
            m_progress.plan(m_jobs[i].plannedBytes);
        }
        m_s.bar.showFrom([this](double now) { return m_progress.snapshot(now); });
        std::vector<std::thread> threads;
        m_active = workers;
        for (int slot = 0; slot < workers; ++slot) {
            try {
                threads.emplace_back(&Runner::work, this, slot);
            } catch (const std::system_error&) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_active -= workers - slot;  // fewer workers than planned
                break;
            }
        }
        if (threads.empty()) {
            m_active = 1;
            work(0);
        }
        for (std::thread& t : threads) t.join();
        m_s.bar.showFrom(nullptr);
        if (interruptRequested()) m_outcome.result = ParallelOutcome::Result::Interrupted;
        return std::move(m_outcome);
    }

  private:
    enum class PieceResult { Done, Refused, Failed, Interrupted };

    void work(int slot) {
        TransferWatch watch(m_s.bar, m_s.limit, m_s.list);
        watch.shareWith(m_progress, slot);
        bool refusedAlone = false;
        size_t job = 0;
        while (take(job)) {
            m_progress.begin(slot, m_jobs[job].plannedBytes);
            std::string reason;
            PieceResult result = copy(m_jobs[job], watch, reason);
            m_progress.end(slot, result == PieceResult::Refused
                                     ? TreeProgress::PieceEnd::BackToQueue
                                     : TreeProgress::PieceEnd::Finished);
            if (!goOn(result, job, watch, reason, refusedAlone)) return;
        }
    }

    // The next piece, unless the run is over for this worker.
    bool take(size_t& job) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stop || interruptRequested() || m_queue.empty()) {
            --m_active;
            return false;
        }
        job = m_queue.front();
        m_queue.pop_front();
        return true;
    }

    // What a piece's end means for its worker and for the run.
    bool goOn(PieceResult result, size_t job, const TransferWatch& watch, const std::string& reason,
              bool& refusedAlone) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (result == PieceResult::Done) {
            refusedAlone = false;
            return true;
        }
        if (result == PieceResult::Refused) {
            m_queue.push_front(job);
            if (m_active > 1) {  // the others carry on with the piece
                --m_active;
                return false;
            }
            if (!refusedAlone) {  // the others' channels may just have closed
                refusedAlone = true;
                return true;
            }
            m_queue.pop_front();  // no channel at all
        }
        if (!watch.unfinishedDownload().empty())
            m_outcome.unfinishedLocal.push_back(watch.unfinishedDownload());
        if (!watch.unfinishedUpload().path.empty())
            m_outcome.unfinishedRemote.push_back(watch.unfinishedUpload());
        if (result != PieceResult::Interrupted && m_outcome.failure.empty()) {
            m_outcome.result = ParallelOutcome::Result::Failed;
            m_outcome.failure = reason;
        }
        m_stop = true;
        --m_active;
        return false;
    }

    PieceResult copy(const PieceJob& job, TransferWatch& watch, std::string& reason) {
        ClsScp scp;
        m_s.configure(scp);
        if (!job.onlyNames.empty()) {
            XString names(job.onlyNames.c_str());
            scp.put_SyncMustMatch(names);
        }
        const bool upload = m_direction == TreeDirection::Upload;
        if (!upload) {
            // The plan knows the sizes: no listing pass to size the bar.
            XString keywords;
            scp.get_UncommonOptions(keywords);
            XString more((std::string(keywords.getUtf8()) + ",NoSizingPass").c_str());
            scp.put_UncommonOptions(more);
        }
        watch.startTree(m_direction, job.localRoot, job.listPrefix);
        XString local(job.localRoot.c_str()), remote(job.remoteRoot.c_str());
        bool ok = upload ? scp.SyncTreeUpload(local, remote, job.mode, job.recurse, &watch)
                         : scp.SyncTreeDownload(remote, local, job.mode, job.recurse, &watch);
        m_s.record(scp);
        XString synced;
        scp.get_SyncedFiles(synced);
        m_s.list.completeFrom(listedBelowRoot(synced.getUtf8(), job.listPrefix));
        if (ok) return PieceResult::Done;
        if (interruptRequested()) return PieceResult::Interrupted;
        reason = failureReason(scp);
        LogFirstError first;
        bool refused = synced.getSizeUtf8() == 0 && scp.firstError(first) &&
                       first.text == kChannelRefused && m_s.ssh.get_IsConnected();
        return refused ? PieceResult::Refused : PieceResult::Failed;
    }

    Session& m_s;
    const TreeDirection m_direction;
    const std::vector<PieceJob>& m_jobs;
    TreeProgress m_progress;

    std::mutex m_mutex;  // guards what follows
    std::deque<size_t> m_queue;
    int m_active = 0;  // workers still taking pieces
    bool m_stop = false;
    ParallelOutcome m_outcome;
};

}  // namespace

ParallelOutcome runPieces(Session& s, TreeDirection direction, const std::vector<PieceJob>& jobs,
                          int workers) {
    workers = std::max(1, std::min({workers, kMaxTreeJobs, static_cast<int>(jobs.size())}));
    Runner runner(s, direction, jobs);
    return runner.run(workers);
}

}  // namespace scpkit::cli
