#include "scp/RemoteNameCheck.h"

#include "base/StringBuffer.h"

namespace scpkit {

bool isSafeRemoteName(const StringBuffer& name) {
    const std::string& text = name.str();
    if (text.empty() || text == "." || text == "..") return false;
    return text.find('/') == std::string::npos && text.find('\0') == std::string::npos;
}

}  // namespace scpkit
