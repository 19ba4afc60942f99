#pragma once

#include <chrono>
#include <semaphore>

#include "platform/dispatch/BeforeBlocking.h"

namespace qx {

// A counting semaphore in the manner of dispatch semaphores: it starts at the
// given count (0 by default); wait() takes one, blocking without limit until
// one is there; signal() gives one back and wakes a waiter.
class Semaphore {
 public:
  explicit Semaphore(std::ptrdiff_t count = 0) : semaphore_(count) {}
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void wait() {
    if (semaphore_.try_acquire()) return;
    BeforeBlocking::notify();
    semaphore_.acquire();
  }
  // False when nothing came within `timeout`.
  bool waitFor(std::chrono::milliseconds timeout) {
    if (semaphore_.try_acquire()) return true;
    BeforeBlocking::notify();
    return semaphore_.try_acquire_for(timeout);
  }
  void signal() { semaphore_.release(); }

 private:
  std::counting_semaphore<> semaphore_;
};

}  // namespace qx
