// The receiving side against arbitrary server bytes. The first byte picks
// the driver and the framing:
//   records:  receiveFileInfo one record after another, acknowledging each;
//   single:   receiveFile into memory (what the in-memory downloads run);
//   download: DownloadFile into the sandbox (a failure leaves no file).
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ScpFileInfo.h>
#include "tests/fuzz/FuzzRig.h"
#include "tests/support/ClsScpTestAccess.h"

using namespace scpkit;
using A = ClsScpTestAccess;

namespace {

test::Sandbox& sandbox() {
    static test::Sandbox box;
    return box;
}

bool onlyZeroBytes(const std::string& bytes) {
    return bytes.find_first_not_of('\0') == std::string::npos;
}

void records(const std::string& server, bool cutAtLineEnds) {
    test::ScriptedScp rig(server, cutAtLineEnds);
    _vqLogger log;
    SocketParams sp(nullptr);
    int ch = rig.ssh.openSessionChannel(sp, log);
    FUZZ_CHECK(ch >= 0);
    DataBuffer zero;
    zero.appendChar('\0');
    // With the short stall of the rig a loaded machine can fail even this
    // first write; that is a timeout, not a finding.
    if (!A::sendScpData(rig.scp, ch, zero, sp, log)) return;
    for (int i = 0; i < 64; ++i) {
        ScpFileInfo info;
        if (!A::receiveFileInfo(rig.scp, ch, info, sp, log)) break;
        if (info.isEndOfDir) {
            FUZZ_CHECK(info.filename.getSize() == 0 && info.fileSize == 0 && !info.haveTimes);
        } else {
            // A header needs a mode, a size and a name field.
            FUZZ_CHECK(server.find(' ') != std::string::npos);
        }
        if (!A::sendScpData(rig.scp, ch, zero, sp, log)) break;
    }
    FUZZ_CHECK(onlyZeroBytes(rig.clientBytes()));
}

void single(const std::string& server, bool cutAtLineEnds) {
    test::ScriptedScp rig(server, cutAtLineEnds);
    _vqLogger log;
    SocketParams sp(nullptr);
    int ch = rig.ssh.openSessionChannel(sp, log);
    FUZZ_CHECK(ch >= 0);
    DataBuffer received;
    OutputDataBuffer out(&received);
    ScpFileInfo info;
    const bool ok = A::receiveFile(rig.scp, ch, out, false, info, sp, log);
    // Never more bytes than the server sent, and the status byte never in
    // the output.
    FUZZ_CHECK(received.getSize() < server.size() || server.empty());
    if (ok) {
        FUZZ_CHECK(info.fileSize >= 0);
        FUZZ_CHECK(received.getSize() == static_cast<uint64_t>(info.fileSize));
        FUZZ_CHECK(!info.isEndOfDir);
    }
    FUZZ_CHECK(onlyZeroBytes(rig.clientBytes()));
    FUZZ_CHECK(rig.clientBytes().size() <= 3);
}

void download(const std::string& server, bool cutAtLineEnds) {
    test::Sandbox& box = sandbox();
    box.reset();
    const std::string target = box.root() + "/file";
    {
        test::ScriptedScp rig(server, cutAtLineEnds);
        XString remote("/remote/file");
        XString local(target.c_str());
        const bool ok = rig.scp.DownloadFile(remote, local, nullptr);
        struct stat st;
        const bool exists = ::stat(target.c_str(), &st) == 0;
        FUZZ_CHECK(ok == exists);
        if (ok) FUZZ_CHECK(S_ISREG(st.st_mode) && static_cast<size_t>(st.st_size) < server.size());
        FUZZ_CHECK(onlyZeroBytes(rig.clientBytes()));
    }
    unsigned dirs = 0, files = 0, others = 0;
    box.countUnderRoot(dirs, files, others);
    FUZZ_CHECK(dirs == 0 && others == 0 && files <= 1);
    FUZZ_CHECK(box.strays().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string server(reinterpret_cast<const char*>(data) + 1, size - 1);
    const bool cutAtLineEnds = (data[0] & 0x10) != 0;
    switch (data[0] % 3) {
        case 0:
            records(server, cutAtLineEnds);
            break;
        case 1:
            single(server, cutAtLineEnds);
            break;
        default:
            download(server, cutAtLineEnds);
            break;
    }
    return 0;
}
