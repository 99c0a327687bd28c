#include <scpkit/scp/RemoteNameCheck.h>

#include <scpkit/base/StringBuffer.h>

namespace scpkit {

bool isSafeRemoteName(const StringBuffer& name) {
    const std::string& text = name.str();
    if (text.empty() || text == "." || text == "..") return false;
    // A line feed cannot end a protocol line inside a name: there it comes
    // from lines a server sent without waiting, and in SyncedFiles (one path
    // per line) it would make a name such as "x\n.." read as "..".
    return text.find_first_of(std::string("/\0\n", 3)) == std::string::npos;
}

}  // namespace scpkit
