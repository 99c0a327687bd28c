// The remote tree traversal (consumeRecursiveResponse) against arbitrary
// server bytes, in each of its uses, with a scratch local root. Afterwards
// nothing may exist outside the root, every path reported or recorded must
// lie inside it, and the compute and hashing uses must write nothing.
//
// Input: a settings byte (use, recurse, framing, mode), a filter byte, then
// the server's data stream.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/StringHashMap.h>
#include <scpkit/base/XString.h>
#include "tests/fuzz/FuzzRig.h"
#include "tests/support/ClsScpTestAccess.h"

using namespace scpkit;
using A = ClsScpTestAccess;

namespace {

// Records the local paths the traversal reports.
class PathRecorder : public ProgressEvent {
  public:
    void OnNamedEvent(const char* name, const char* value) override {
        events.emplace_back(name, value ? value : "");
    }
    std::vector<std::pair<std::string, std::string>> events;
};

struct FilterPreset {
    const char *files, *notFiles, *dirs, *notDirs;
};
const FilterPreset kFilters[] = {
    {"", "", "", ""},
    {"*.txt", "", "", ""},
    {"", "*.log", "", "skip*"},
    {"a*;b*", "*~", "d*", ""},
};

void checkLocalPath(const std::string& root, const std::string& path) {
    if (path == root) return;
    FUZZ_CHECK(path.rfind(root + "/", 0) == 0);
    FUZZ_CHECK(test::isContainedRelativePath(path.substr(root.size() + 1)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static test::Sandbox box;
    if (size < 2) return 0;
    const unsigned use = data[0] & 3;  // 0 compute, 1 hashing, 2-3 download
    const bool recurse = (data[0] & 4) != 0;
    const bool cutAtLineEnds = (data[0] & 8) != 0;
    const int modes[] = {0, 1, 2, 3, 4, 5, 6, 9};
    const int mode = modes[(data[0] >> 4) & 7];
    const FilterPreset& filters = kFilters[data[1] % 4];
    const std::string server(reinterpret_cast<const char*>(data) + 2, size - 2);

    box.reset();
    const std::string root = box.root();
    int64_t totalBytes = 0;
    unsigned totalDirs = 0;
    std::string synced;
    PathRecorder recorder;
    {
        test::ScriptedScp rig(server, cutAtLineEnds);
        XString text;
        rig.scp.put_SyncMustMatch(text = XString(filters.files));
        rig.scp.put_SyncMustNotMatch(text = XString(filters.notFiles));
        rig.scp.put_SyncMustMatchDir(text = XString(filters.dirs));
        rig.scp.put_SyncMustNotMatchDir(text = XString(filters.notDirs));

        _vqLogger log;
        ProgressMonitorPtr pmp(&recorder, 0, 100, 0);
        SocketParams sp(pmp.getPm());
        const int ch = rig.ssh.openSessionChannel(sp, log);
        FUZZ_CHECK(ch >= 0);
        std::unique_ptr<StringHashMap> map(use == 1 ? StringHashMap::createNewObject(64) : nullptr);
        XString localRoot(root.c_str());
        A::consumeRecursiveResponse(rig.scp, use == 0, static_cast<unsigned>(ch), mode, recurse,
                                    localRoot, totalBytes, totalDirs, map.get(), sp, log);
        synced = A::syncedFilesRaw(rig.scp).str();
    }

    FUZZ_CHECK(box.strays().empty());
    unsigned dirs = 0, files = 0, others = 0;
    box.countUnderRoot(dirs, files, others);
    FUZZ_CHECK(others == 0);
    if (use < 2) {
        FUZZ_CHECK(dirs == 0 && files == 0 && synced.empty());
        FUZZ_CHECK(recorder.events.empty());
    } else {
        // Every directory made was counted.
        FUZZ_CHECK(dirs <= totalDirs);
    }
    for (const auto& event : recorder.events) {
        if (event.first == "scp-begin-download")
            FUZZ_CHECK(test::isContainedRelativePath(event.second));
        else
            checkLocalPath(root, event.second);
    }
    size_t start = 0;
    while (start < synced.size()) {
        size_t lf = synced.find('\n', start);
        FUZZ_CHECK(lf != std::string::npos);
        const std::string rel = synced.substr(start, lf - start);
        FUZZ_CHECK(test::isContainedRelativePath(rel));
        FUZZ_CHECK(std::filesystem::is_regular_file(root + "/" + rel));
        start = lf + 1;
    }
    return 0;
}
