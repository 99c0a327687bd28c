#include "cli/ErrorLine.h"

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/XString.h>
#include "cli/LogSummary.h"

namespace scpkit::cli {

std::string failureReason(ClsBase& object) {
    XString text;
    object.get_LastErrorText(text);
    return cli::failureReason(std::string(text.getUtf8()));
}

}  // namespace scpkit::cli
