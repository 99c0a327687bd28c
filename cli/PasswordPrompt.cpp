#include "cli/PasswordPrompt.h"

#include <termios.h>
#include <unistd.h>
#include <cerrno>

#include "cli/Interrupt.h"

namespace scpkit::cli {

namespace {

// One line from `fd`, without its end.
bool readLine(int fd, std::string& line) {
    for (;;) {
        char c;
        ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        if (c == '\n' || c == '\r') return true;
        line += c;
    }
}

}  // namespace

bool readAnswer(int fd, const std::string& prompt, std::string& answer) {
    answer.clear();
    if (!isatty(fd)) return false;
    (void)!::write(2, prompt.data(), prompt.size());
    return readLine(fd, answer);
}

bool readPassword(int fd, const std::string& prompt, std::string& password) {
    password.clear();
    struct termios saved;
    if (!isatty(fd) || tcgetattr(fd, &saved) != 0) return false;

    // Echo goes off before the prompt appears, so nothing typed in answer
    // to it can show; what was typed before it is dropped.
    struct termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    rememberTerminalSettings(fd, saved);
    tcsetattr(fd, TCSAFLUSH, &quiet);
    (void)!::write(2, prompt.data(), prompt.size());

    bool gotLine = readLine(fd, password);
    tcsetattr(fd, TCSANOW, &saved);
    forgetTerminalSettings();
    return gotLine;
}

}  // namespace scpkit::cli
