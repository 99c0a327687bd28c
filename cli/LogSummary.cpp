#include "cli/LogSummary.h"

#include <sstream>
#include <vector>

#include "cli/SafeText.h"

namespace scpkit::cli {

namespace {

struct LogLine {
    size_t indent;
    std::string text;
};

bool isIdentifier(const std::string& s) {
    if (s.empty()) return false;
    for (char c : s) {
        bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '-' || c == '.';
        if (!ok) return false;
    }
    return true;
}

// "tag: value" where the tag is one word; the tag goes to `tag`.
bool isDataItem(const std::string& line, std::string& tag, std::string& value) {
    size_t sep = line.find(": ");
    if (sep == std::string::npos) {
        // A data item with an empty value renders as "tag:" which cannot be
        // told from a context; both are skipped.
        return false;
    }
    tag = line.substr(0, sep);
    if (!isIdentifier(tag)) return false;
    value = line.substr(sep + 2);
    return true;
}

bool isStructural(const std::string& line) {
    if (line == "Success." || line == "Failed.") return true;
    if (line.size() > 2 && line.compare(0, 2, "--") == 0 && isIdentifier(line.substr(2)))
        return true;
    return line.size() > 1 && line.back() == ':' && isIdentifier(line.substr(0, line.size() - 1));
}

// Information lines ("Add the key to ...") may follow the error they explain.
bool readsLikeAnError(const std::string& line) {
    std::string lower;
    for (char c : line) lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    static const char* const words[] = {
        "fail", "error", "denied",     "refused",   "cannot",  "unable", "invalid",
        "not ", "no ",   "unexpected", "timed out", "timeout", "abort",  "unrecognized"};
    for (const char* w : words) {
        if (lower.find(w) != std::string::npos) return true;
    }
    return false;
}

}  // namespace

std::string failureReason(const std::string& logText) {
    std::vector<LogLine> lines;
    std::istringstream in(logText);
    for (std::string raw; std::getline(in, raw);) {
        size_t indent = raw.find_first_not_of(' ');
        if (indent == std::string::npos) continue;
        lines.push_back({indent, raw.substr(indent)});
    }

    // What the remote scp said beats anything the client concluded from it.
    static const char* const kRemoteTags[] = {"errorResponse", "scpError", "scp_errors1",
                                              "scp_errors2"};
    std::string remote[4];
    std::string lastLine, lastError, lastErrorDetail;
    bool detailOpen = false;  // an "sshError" item may explain the error just before it
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string tag, value;
        if (isDataItem(lines[i].text, tag, value)) {
            // A multi-line value continues on deeper-indented lines.
            size_t k = i + 1;
            for (; k < lines.size() && lines[k].indent > lines[i].indent; ++k) {
                value += "\n" + lines[k].text;
            }
            for (int t = 0; t < 4; ++t) {
                if (tag == kRemoteTags[t] && !stripControlChars(value).empty()) remote[t] = value;
            }
            if (tag == "sshError" && detailOpen) lastErrorDetail = value;
            i = k - 1;
            continue;
        }
        if (isStructural(lines[i].text)) continue;
        lastLine = lines[i].text;
        detailOpen = false;
        if (readsLikeAnError(lastLine)) {
            lastError = lastLine;
            lastErrorDetail.clear();
            detailOpen = true;
        }
    }
    for (const std::string& r : remote) {
        if (!r.empty()) return stripControlChars(r);
    }
    if (lastError.empty()) return stripControlChars(lastLine);
    std::string reason = stripControlChars(lastError);
    std::string detail = stripControlChars(lastErrorDetail);
    if (!detail.empty()) {
        if (!reason.empty() && reason.back() == '.') reason.pop_back();
        reason += " (" + detail + ")";
    }
    return reason;
}

}  // namespace scpkit::cli
