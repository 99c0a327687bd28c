#include "cli/RemoteTarget.h"

namespace scpkit::cli {

namespace {

bool hasBlankOrControl(const std::string& s) {
    for (unsigned char c : s) {
        if (c <= 0x20 || c == 0x7f) return true;
    }
    return false;
}

}  // namespace

bool parseRemoteTarget(const std::string& text, RemoteTarget& out, std::string& error) {
    out = RemoteTarget();
    const std::string expected = "expected [user@]host:path, got '" + text + "'";

    // The host part ends at the first ':' outside brackets. A '/' before it
    // makes the whole argument a local path (./a:b), as with scp.
    size_t colon = std::string::npos;
    bool inBrackets = false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '[') {
            if (inBrackets) break;
            inBrackets = true;
        } else if (c == ']') {
            if (!inBrackets) break;
            inBrackets = false;
        } else if (c == '/' && !inBrackets) {
            break;
        } else if (c == ':' && !inBrackets) {
            colon = i;
            break;
        }
    }
    if (colon == std::string::npos) {
        error = expected;
        return false;
    }

    std::string userHost = text.substr(0, colon);
    size_t at = userHost.rfind('@');
    std::string host = userHost;
    if (at != std::string::npos) {
        out.user = userHost.substr(0, at);
        host = userHost.substr(at + 1);
        if (out.user.empty() || hasBlankOrControl(out.user)) {
            error = "bad user name in '" + text + "'";
            return false;
        }
    }

    if (!host.empty() && host.front() == '[') {
        if (host.size() < 3 || host.back() != ']') {
            error = "bad bracketed host in '" + text + "'";
            return false;
        }
        host = host.substr(1, host.size() - 2);
    }
    if (host.empty()) {
        error = expected;
        return false;
    }
    if (hasBlankOrControl(host) || host.find_first_of("[]@") != std::string::npos) {
        error = "bad host name in '" + text + "'";
        return false;
    }
    out.host = host;
    out.path = text.substr(colon + 1);
    return true;
}

std::string formatRemoteTarget(const RemoteTarget& target) {
    std::string s;
    if (!target.user.empty()) s += target.user + "@";
    if (target.host.find(':') != std::string::npos) {
        s += "[" + target.host + "]";
    } else {
        s += target.host;
    }
    return s + ":" + target.path;
}

}  // namespace scpkit::cli
