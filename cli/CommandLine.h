// The command line: four commands (put, get, push, pull) and their options.
#pragma once

#include <string>
#include <vector>

#include "cli/Options.h"

namespace scpkit::cli {

struct ParseResult {
    enum Kind { Run, Exit } kind = Run;
    int exitStatus = 0;  // for Exit: 0 after --help/--version, else a usage error
    std::string out;     // for standard output (help, version)
    std::string err;     // for standard error (usage error, warnings)
};

// args excludes the program name.
ParseResult parseCommandLine(const std::vector<std::string>& args, Options& options);

}  // namespace scpkit::cli
