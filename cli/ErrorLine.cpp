#include "cli/ErrorLine.h"

#include <scpkit/base/ClsBase.h>
#include "cli/SafeText.h"

namespace scpkit::cli {

namespace {

// What the remote scp said, best first: it beats anything the client
// concluded from it.
const char* const kRemoteTags[] = {"errorResponse", "scpError", "scp_errors1", "scp_errors2"};
// What explains an error of the client's own.
const char* const kDetailTags[] = {"sshError", "osError"};

std::string firstNonEmpty(const LogFirstError& error, const char* const* tags, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        for (const LogDataItem& item : error.items) {
            if (item.tag != tags[i]) continue;
            std::string text = stripControlChars(item.value);
            if (!text.empty()) return text;
        }
    }
    return "";
}

}  // namespace

std::string describeFailure(const LogFirstError& error) {
    std::string remote = firstNonEmpty(error, kRemoteTags, std::size(kRemoteTags));
    if (!remote.empty()) return remote;
    std::string reason = stripControlChars(error.text);
    std::string detail = firstNonEmpty(error, kDetailTags, std::size(kDetailTags));
    if (detail.empty()) return reason;
    if (reason.empty()) return detail;
    if (reason.back() == '.') reason.pop_back();
    return reason + " (" + detail + ")";
}

std::string failureReason(ClsBase& object) {
    LogFirstError error;
    if (!object.firstError(error)) return "";
    return describeFailure(error);
}

}  // namespace scpkit::cli
