#include "cli/SshOptions.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "cli/Arguments.h"

namespace scpkit::cli {

namespace {

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// yes/no values as ssh spells them; empty when the value is neither.
std::string yesNo(const std::string& value) {
    std::string v = lower(value);
    if (v == "yes" || v == "true") return "yes";
    if (v == "no" || v == "false") return "no";
    return "";
}

}  // namespace

const char* sshOptionNames() {
    return "Port, User, IdentityFile, UserKnownHostsFile, StrictHostKeyChecking, ConnectTimeout, "
           "ProxyJump, Ciphers, Compression, BatchMode";
}

std::string applySshOptions(ConnectionArguments& a) {
    std::set<std::string> seen;
    for (const std::string& option : a.sshOptions) {
        size_t split = option.find_first_of("= \t");
        std::string name = lower(option.substr(0, split));
        std::string value = split == std::string::npos
                                ? ""
                                : option.substr(option.find_first_not_of("= \t", split));
        if (split == std::string::npos || value.empty() || name.empty())
            return "-o wants Name=value, got '" + option + "'";
        if (!seen.insert(name).second) continue;
        // Each setting goes where its own option would put it, unless given.
        auto set = [&](std::string& field, const std::string& v) {
            if (field.empty()) field = v;
        };
        if (name == "port") {
            set(a.port, value);
        } else if (name == "user") {
            set(a.user, value);
        } else if (name == "identityfile") {
            set(a.identity, value);
        } else if (name == "userknownhostsfile") {
            set(a.knownHosts, value);
        } else if (name == "stricthostkeychecking") {
            std::string v = lower(value);
            set(a.hostKeyCheck, v == "off" ? "no" : yesNo(v).empty() ? v : yesNo(v));
        } else if (name == "connecttimeout") {
            set(a.connectTimeout, value);
        } else if (name == "proxyjump") {
            set(a.jump, value);
        } else if (name == "ciphers") {
            set(a.cipher, value);
        } else if (name == "compression" || name == "batchmode") {
            std::string v = yesNo(value);
            if (v.empty()) return "-o " + option.substr(0, split) + " wants yes or no";
            if (name == "compression" && !a.compress) a.compression = v;
            if (name == "batchmode") a.batchMode = v == "yes";
        } else {
            return "-o " + option.substr(0, split) + " is not an option scpkit takes (it takes " +
                   sshOptionNames() + ")";
        }
    }
    return "";
}

}  // namespace scpkit::cli
