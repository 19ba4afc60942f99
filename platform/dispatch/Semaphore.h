#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

#include "platform/dispatch/BeforeBlocking.h"

namespace qx {

// A counting semaphore in the manner of dispatch semaphores: it starts at the
// given count (0 by default); wait() takes one, blocking without limit until
// one is there; signal() gives one back and wakes a waiter.
//
// Built on a mutex and a condition variable rather than std::counting_semaphore:
// libstdc++'s semaphore spins and calls sched_yield before it sleeps, which on
// a busy machine hands the processor away a dozen times per wait. The waits
// here are for a peer's answer, far longer than any spin. The waiter is woken
// with the lock held, so a semaphore may be destroyed as soon as wait() returns.
class Semaphore {
 public:
  explicit Semaphore(std::ptrdiff_t count = 0) : count_(count) {}
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void wait() {
    std::unique_lock lock(mutex_);
    if (count_ == 0) aboutToBlock(lock);
    available_.wait(lock, [&] { return count_ > 0; });
    --count_;
  }
  // Takes one when one is there, without blocking; false otherwise.
  bool tryWait() {
    std::lock_guard lock(mutex_);
    if (count_ == 0) return false;
    --count_;
    return true;
  }
  // False when nothing came within `timeout`.
  bool waitFor(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (count_ == 0) aboutToBlock(lock);
    if (!available_.wait_for(lock, timeout, [&] { return count_ > 0; })) return false;
    --count_;
    return true;
  }
  void signal() {
    std::lock_guard lock(mutex_);
    ++count_;
    available_.notify_one();
  }

 private:
  // The hook may take other locks: it runs without this one.
  static void aboutToBlock(std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    BeforeBlocking::notify();
    lock.lock();
  }

  std::mutex mutex_;
  std::condition_variable available_;
  std::ptrdiff_t count_;
};

}  // namespace qx
