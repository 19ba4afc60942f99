#include "client/cli/Interrupt.h"

#include <signal.h>

#include <atomic>

namespace qxcli {

namespace {

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

void onInterrupt(int) {
  stopRequested.store(true);
}

}  // namespace

void Interrupt::catchFirst() {
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  // Back to the default action once caught: the second Ctrl-C ends the process.
  action.sa_flags = SA_RESTART | SA_RESETHAND;
  sigaction(SIGINT, &action, nullptr);
}

bool Interrupt::requested() {
  return stopRequested.load();
}

}  // namespace qxcli
