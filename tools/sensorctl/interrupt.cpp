// Signal handling: the handler only sets a lock-free flag and restores the default action.
#include "interrupt.h"

#include <atomic>
#include <csignal>

namespace sensorctl {
namespace {

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");

extern "C" void onSignal(int signo) {
    g_stop.store(true);
    std::signal(signo, SIG_DFL);
}

}  // namespace

void installInterruptHandlers() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

bool interrupted() {
    return g_stop.load();
}

void requestStop() {
    g_stop.store(true);
}

}  // namespace sensorctl
