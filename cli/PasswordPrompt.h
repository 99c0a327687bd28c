// Reads a password from a terminal without echoing it.
#pragma once

#include <string>

namespace scpkit::cli {

// Prompts on standard error and reads one line from `fd` (a terminal) with
// echo off; the terminal is restored afterwards, also on Ctrl-C. False on
// end of input or when `fd` is not a terminal.
bool readPassword(int fd, const std::string& prompt, std::string& password);

}  // namespace scpkit::cli
