#include "cli/Interrupt.h"

#include <limits.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstring>

namespace scpkit::cli {

namespace {

const int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

// Lock-free atomics: a handler on any thread and the transfers running on
// other threads see each other's writes.
std::atomic<int> g_firstSignal{0};
std::atomic<int> g_count{0};
std::atomic<bool> g_abortable{false};
volatile sig_atomic_t g_haveTerminal = 0;
std::atomic<bool> g_havePartial[kPartialFileSlots];  // zero: none
int g_terminalFd = -1;
struct termios g_terminalSettings;
char g_partial[kPartialFileSlots][PATH_MAX + 1];

void onSignal(int sig) {
    int none = 0;
    g_firstSignal.compare_exchange_strong(none, sig);
    int count = ++g_count;
    if (g_abortable && count == 1) return;
    for (int i = 0; i < kPartialFileSlots; ++i) {
        if (g_havePartial[i].load(std::memory_order_acquire)) ::unlink(g_partial[i]);
    }
    if (g_haveTerminal) tcsetattr(g_terminalFd, TCSANOW, &g_terminalSettings);
    // Die of the signal itself, so the parent sees what happened.
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

}  // namespace

void installSignalHandlers() {
    // Writing the list into a pipe whose reader has gone must not kill a
    // transfer halfway; the failed write is reported instead.
    std::signal(SIGPIPE, SIG_IGN);
    for (int sig : kSignals) {
        // A shell that starts a job in the background ignores SIGINT for it,
        // nohup ignores SIGHUP: those choices stand.
        struct sigaction old {};
        if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
        struct sigaction sa {};
        sa.sa_handler = onSignal;
        sigemptyset(&sa.sa_mask);
        for (int other : kSignals) sigaddset(&sa.sa_mask, other);
        sa.sa_flags = 0;  // no SA_RESTART: a blocked read of the password returns
        sigaction(sig, &sa, nullptr);
    }
}

bool interruptRequested() {
    return g_count > 0;
}

int interruptSignal() {
    return g_firstSignal;
}

void setInterruptAbortable(bool abortable) {
    g_abortable = abortable;
}

void setPartialLocalFile(const std::string& path, int slot) {
    if (slot < 0 || slot >= kPartialFileSlots) return;
    g_havePartial[slot].store(false, std::memory_order_release);
    if (path.empty() || path.size() > PATH_MAX) return;
    std::memcpy(g_partial[slot], path.c_str(), path.size() + 1);
    g_havePartial[slot].store(true, std::memory_order_release);
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
