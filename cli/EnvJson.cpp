#include "cli/EnvJson.h"

#include <cstdio>
#include <utility>

namespace scpkit::cli {

namespace {

bool isEnvName(const std::string& name) {
    if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
    for (char c : name) {
        bool ok =
            (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
        if (!ok) return false;
    }
    return true;
}

}  // namespace

std::string jsonQuote(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

bool envPairsToJson(const std::vector<std::string>& pairs, std::string& json, std::string& error) {
    std::vector<std::pair<std::string, std::string>> vars;
    for (const std::string& pair : pairs) {
        size_t eq = pair.find('=');
        std::string name = pair.substr(0, eq);
        if (eq == std::string::npos || !isEnvName(name)) {
            error =
                "--env wants NAME=VALUE with a name of letters, digits and '_', got '" + pair + "'";
            return false;
        }
        std::string value = pair.substr(eq + 1);
        bool replaced = false;
        for (auto& var : vars) {
            if (var.first == name) var.second = value, replaced = true;
        }
        if (!replaced) vars.emplace_back(name, value);
    }
    json = "{";
    for (size_t i = 0; i < vars.size(); ++i) {
        if (i) json += ",";
        json += jsonQuote(vars[i].first) + ":" + jsonQuote(vars[i].second);
    }
    json += "}";
    return true;
}

}  // namespace scpkit::cli
