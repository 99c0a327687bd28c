// ssh's -o Name=value for the settings scpkit has: each turns into the
// program's own option, which wins when both are given.
#pragma once

#include <string>

namespace scpkit::cli {

struct ConnectionArguments;

// Fills the fields of `a` that the -o options set and that no option of
// scpkit's own set; the first -o for a name counts, as with ssh. Empty on
// success, else the usage error.
std::string applySshOptions(ConnectionArguments& a);

// The names applySshOptions takes, for the help.
const char* sshOptionNames();

}  // namespace scpkit::cli
