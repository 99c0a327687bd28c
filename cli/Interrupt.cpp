#include "cli/Interrupt.h"

#include <unistd.h>
#include <csignal>

namespace scpkit::cli {

namespace {

volatile sig_atomic_t g_interrupts = 0;
volatile sig_atomic_t g_abortable = 0;
volatile sig_atomic_t g_haveTerminal = 0;
int g_terminalFd = -1;
struct termios g_terminalSettings;

void onInterrupt(int) {
    g_interrupts = g_interrupts + 1;
    if (g_abortable && g_interrupts == 1) return;
    if (g_haveTerminal) tcsetattr(g_terminalFd, TCSANOW, &g_terminalSettings);
    // Die of the signal itself, so the parent sees what happened.
    std::signal(SIGINT, SIG_DFL);
    std::raise(SIGINT);
}

}  // namespace

void installInterruptHandler() {
    // A shell that starts a job in the background ignores SIGINT for it;
    // that choice stands.
    struct sigaction old {};
    if (sigaction(SIGINT, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) return;
    struct sigaction sa {};
    sa.sa_handler = onInterrupt;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: a blocked read of the password returns
    sigaction(SIGINT, &sa, nullptr);
}

bool interruptRequested() {
    return g_interrupts > 0;
}

void setInterruptAbortable(bool abortable) {
    g_abortable = abortable ? 1 : 0;
}

void rememberTerminalSettings(int fd, const struct termios& settings) {
    g_terminalFd = fd;
    g_terminalSettings = settings;
    g_haveTerminal = 1;
}

void forgetTerminalSettings() {
    g_haveTerminal = 0;
}

}  // namespace scpkit::cli
