// Questions asked on the terminal: a password or passphrase read without
// echo, and an answer read as typed.
#pragma once

#include <string>

namespace scpkit::cli {

// Prompts on standard error and reads one line from `fd` (a terminal) with
// echo off; the terminal is restored afterwards, also on Ctrl-C. False on
// end of input or when `fd` is not a terminal.
bool readPassword(int fd, const std::string& prompt, std::string& password);

// The same with echo on, for answers such as "yes".
bool readAnswer(int fd, const std::string& prompt, std::string& answer);

}  // namespace scpkit::cli
