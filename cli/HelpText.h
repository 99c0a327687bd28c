// The text --help prints after the option list.
#pragma once

#include <string>

namespace scpkit::cli {

std::string helpFooter();

}  // namespace scpkit::cli
