// SIGINT, SIGTERM and SIGHUP. While a transfer that can stop cleanly runs,
// the first signal only raises a flag that the progress callback turns into
// the library's abort; the program then cleans up and exits with 128 plus
// the signal's number. A second signal, or one at any other time (while
// connecting, say), ends the program at once, removing the local file
// registered as partly written first.
#pragma once

#include <termios.h>

#include <string>

namespace scpkit::cli {

void installSignalHandlers();
bool interruptRequested();
// The first signal received; 0 when none was.
int interruptSignal();
void setInterruptAbortable(bool abortable);

// The local files being written, which must not outlive the program: one
// a slot, a slot for each transfer running at once; empty to forget it.
constexpr int kPartialFileSlots = 16;
void setPartialLocalFile(const std::string& path, int slot = 0);

// The terminal settings to put back if the program ends while a password is
// read without echo.
void rememberTerminalSettings(int fd, const struct termios& settings);
void forgetTerminalSettings();

}  // namespace scpkit::cli
