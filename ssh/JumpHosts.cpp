#include <scpkit/ssh/JumpHosts.h>

#include <cstdlib>
#include <sstream>

namespace scpkit {

namespace {

bool hasBlankOrControl(const std::string& s) {
    for (unsigned char c : s) {
        if (c <= 0x20 || c == 0x7f) return true;
    }
    return false;
}

bool parsePort(const std::string& text, int& port) {
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    port = std::atoi(text.c_str());
    return port >= 1 && port <= 65535;
}

bool parseHop(std::string entry, JumpHost& hop, std::string& error) {
    const std::string quoted = "'" + entry + "'";
    if (entry.rfind("ssh://", 0) == 0) entry.erase(0, 6);
    size_t at = entry.rfind('@');
    if (at != std::string::npos) {
        hop.user = entry.substr(0, at);
        entry.erase(0, at + 1);
        if (hop.user.empty() || hasBlankOrControl(hop.user)) {
            error = "bad user name in jump host " + quoted;
            return false;
        }
    }
    std::string portText;
    bool hasPort = false;
    if (!entry.empty() && entry.front() == '[') {
        size_t close = entry.find(']');
        if (close == std::string::npos || close < 2) {
            error = "bad bracketed host in jump host " + quoted;
            return false;
        }
        hop.host = entry.substr(1, close - 1);
        std::string rest = entry.substr(close + 1);
        if (!rest.empty() && rest.front() != ':') {
            error = "unexpected text after the host in jump host " + quoted;
            return false;
        }
        hasPort = !rest.empty();
        if (hasPort) portText = rest.substr(1);
    } else {
        size_t colon = entry.find(':');
        hop.host = entry.substr(0, colon);
        hasPort = colon != std::string::npos;
        if (hasPort) portText = entry.substr(colon + 1);
    }
    if (hop.host.empty() || hasBlankOrControl(hop.host) ||
        hop.host.find_first_of("[]@/") != std::string::npos) {
        error = "bad host name in jump host " + quoted;
        return false;
    }
    if (hasPort && !parsePort(portText, hop.port)) {
        error = "bad port in jump host " + quoted + ": 1 to 65535";
        return false;
    }
    return true;
}

}  // namespace

bool parseJumpHosts(const std::string& text, std::vector<JumpHost>& hops, std::string& error) {
    hops.clear();
    if (text.empty() || text == "none") return true;
    size_t start = 0;
    for (;;) {
        size_t comma = text.find(',', start);
        JumpHost hop;
        if (!parseHop(text.substr(start, comma - start), hop, error)) {
            hops.clear();
            return false;
        }
        hops.push_back(hop);
        if (comma == std::string::npos) return true;
        start = comma + 1;
    }
}

std::string formatJumpHost(const JumpHost& hop) {
    std::string s = hop.user.empty() ? "" : hop.user + "@";
    s += hop.host.find(':') != std::string::npos ? "[" + hop.host + "]" : hop.host;
    if (hop.port > 0) s += ":" + std::to_string(hop.port);
    return s;
}

bool proxyJumpFromCommand(const std::string& command, std::string& jumps) {
    std::istringstream in(command);
    std::string word, user, port, rest, host;
    if (!(in >> word) || word != "ssh") return false;
    bool sawTarget = false;
    while (in >> word) {
        std::string* value = word == "-l"   ? &user
                             : word == "-p" ? &port
                             : word == "-J" ? &rest
                                            : nullptr;
        if (value) {
            if (!(in >> *value)) return false;
        } else if (word == "-W") {
            if (!(in >> word) || word != "'[%h]:%p'") return false;
            sawTarget = true;
        } else if (sawTarget && host.empty()) {
            host = word;
        } else {
            return false;
        }
    }
    if (host.empty()) return false;
    JumpHost first{user, host, 0};
    if (!port.empty() && !parsePort(port, first.port)) return false;
    jumps = formatJumpHost(first) + (rest.empty() ? "" : "," + rest);
    return true;
}

}  // namespace scpkit
