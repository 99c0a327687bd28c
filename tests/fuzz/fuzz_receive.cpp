// The receiving side against arbitrary server bytes: DownloadFile, and the
// remote tree walk in each of its uses, with and without answers in flight,
// into a scratch local root. Afterwards nothing may exist outside the root,
// a download that failed leaves no file, every path reported or listed lies
// inside the root, the compute and hashing uses write nothing, and a single
// download only ever answers with 0x00.
//
// Input: a settings byte (bits 0-1 the use: 0 DownloadFile, 1 compute,
// 2 hashing, 3 download walk; bit 2 recurse; bit 3 framing; bit 4
// "Pipelined"; bits 5-7 the mode), a filter byte, then the server's data
// stream. The stream is cut into pieces, each released by the client's
// next write: after every line feed (a remote scp's lock-step) or at 0xFF
// bytes (dropped; a server that does not wait).
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <scpkit/base/Logger.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/StringHashMap.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/fuzz/FuzzCheck.h"
#include "tests/support/ClsScpTestAccess.h"
#include "tests/support/ScriptedTransport.h"

using namespace scpkit;
namespace fs = std::filesystem;

namespace {

struct Recorder : ProgressEvent {
    std::vector<std::pair<std::string, std::string>> events;
    void OnNamedEvent(const char* name, const char* value) override {
        events.emplace_back(name, value ? value : "");
    }
};

// A relative path that stays inside its root: no empty, "." or ".."
// component, no leading '/', no NUL.
bool contained(const std::string& path) {
    if (path.find('\0') != std::string::npos) return false;
    for (size_t start = 0, slash = 0; slash != std::string::npos; start = slash + 1) {
        slash = path.find('/', start);
        const std::string part = path.substr(start, slash - start);
        if (part.empty() || part == "." || part == "..") return false;
    }
    return true;
}

void script(test::ScriptedPeer& peer, const std::string& bytes, bool cutAtLineEnds) {
    const char cut = cutAtLineEnds ? '\n' : '\xff';
    for (size_t start = 0, n = 0; start < bytes.size(); ++n) {
        size_t at = bytes.find(cut, start);
        size_t next = at == std::string::npos ? bytes.size() : at + 1;
        size_t end = cutAtLineEnds || at == std::string::npos ? next : at;
        if (n > 0) peer.awaitWrites(1);
        peer.send(bytes.substr(start, end - start));
        start = next;
    }
    peer.eof().close();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string top = [] {
        std::string pattern = "/tmp/scpkit-fuzz-XXXXXX";
        FUZZ_CHECK(::mkdtemp(&pattern[0]) != nullptr);
        return pattern;
    }();
    static const char* const kFilters[][4] = {{"", "", "", ""},
                                              {"*.txt", "", "", ""},
                                              {"", "*.log", "", "skip*"},
                                              {"a*;b*", "*~", "d*", ""}};
    if (size < 2) return 0;
    const unsigned use = data[0] & 3;
    const bool recurse = data[0] & 4, cutAtLineEnds = data[0] & 8, pipelined = data[0] & 16;
    const int mode = (data[0] >> 5) == 7 ? 9 : data[0] >> 5;
    const char* const* filters = kFilters[data[1] % 4];
    const std::string server(reinterpret_cast<const char*>(data) + 2, size - 2);
    const std::string root = top + "/outer/root";
    std::error_code ec;
    fs::remove_all(top + "/outer", ec);
    fs::create_directories(root);

    std::string synced, clientBytes;
    Recorder recorder;
    bool ok = false;
    {
        auto transport = std::make_shared<test::ScriptedTransport>();
        script(transport->peer(0), server, cutAtLineEnds);
        ClsSsh ssh;
        ssh.useTransport(transport);
        // Every scripted byte is released by the client's own writes: a read
        // that waits at all waits for nothing.
        ssh.put_StallTimeoutMs(1);
        ClsScp scp;
        scp.UseSsh(ssh);
        XString text;
        scp.put_UncommonOptions(text = XString(pipelined ? "Pipelined" : ""));
        scp.put_SyncMustMatch(text = XString(filters[0]));
        scp.put_SyncMustNotMatch(text = XString(filters[1]));
        scp.put_SyncMustMatchDir(text = XString(filters[2]));
        scp.put_SyncMustNotMatchDir(text = XString(filters[3]));
        if (use == 0) {
            XString remote("/remote/file"), local((root + "/file").c_str());
            ok = scp.DownloadFile(remote, local, &recorder);
        } else {
            _vqLogger log;
            ProgressMonitorPtr pmp(&recorder, 0, 100, 0);
            SocketParams sp(pmp.getPm());
            const int ch = ssh.openSessionChannel(sp, log);
            FUZZ_CHECK(ch >= 0);
            std::unique_ptr<StringHashMap> map(use == 2 ? StringHashMap::createNewObject(64)
                                                        : nullptr);
            XString localRoot(root.c_str());
            int64_t bytes = 0;
            unsigned dirs = 0;
            ClsScpTestAccess::consumeRecursiveResponse(scp, use == 1, static_cast<unsigned>(ch),
                                                       mode, recurse, localRoot, bytes, dirs,
                                                       map.get(), sp, log);
        }
        synced = ClsScpTestAccess::syncedFilesRaw(scp).str();
        clientBytes = transport->peer(0).written;
    }

    unsigned dirs = 0, files = 0, others = 0;
    for (fs::recursive_directory_iterator it(top, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string p = it->path().string();
        if (p == top + "/outer" || p == root) continue;
        FUZZ_CHECK(p.rfind(root + "/", 0) == 0);  // nothing outside the root
        const auto st = it->symlink_status(ec);
        dirs += fs::is_directory(st), files += fs::is_regular_file(st);
        others += !fs::is_directory(st) && !fs::is_regular_file(st);
    }
    FUZZ_CHECK(others == 0);
    if (use == 0) {
        FUZZ_CHECK(dirs == 0 && files == (ok ? 1u : 0u));
        if (ok) FUZZ_CHECK(fs::file_size(root + "/file") < server.size());
        FUZZ_CHECK(clientBytes.find_first_not_of('\0') == std::string::npos);
    } else if (use < 3) {
        FUZZ_CHECK(dirs == 0 && files == 0 && synced.empty() && recorder.events.empty());
    }
    for (const auto& [name, value] : recorder.events) {
        const bool relative = name == "scp-begin-download";
        FUZZ_CHECK(relative ? contained(value)
                            : value == root || (value.rfind(root + "/", 0) == 0 &&
                                                contained(value.substr(root.size() + 1))));
    }
    for (size_t start = 0; start < synced.size();) {
        size_t lf = synced.find('\n', start);
        FUZZ_CHECK(lf != std::string::npos);
        const std::string rel = synced.substr(start, lf - start);
        FUZZ_CHECK(contained(rel) && fs::is_regular_file(root + "/" + rel));
        start = lf + 1;
    }
    return 0;
}
