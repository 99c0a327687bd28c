// Ctrl-C. While a transfer that can stop cleanly runs, the first SIGINT only
// raises a flag that the progress callback turns into the library's abort;
// a second one, or one at any other time, ends the program at once.
#pragma once

#include <termios.h>

namespace scpkit::cli {

void installInterruptHandler();
bool interruptRequested();
void setInterruptAbortable(bool abortable);

// The terminal settings to put back if the program ends while a password is
// read without echo.
void rememberTerminalSettings(int fd, const struct termios& settings);
void forgetTerminalSettings();

}  // namespace scpkit::cli
