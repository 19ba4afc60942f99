#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace qx::test {

// Polls `condition` every 2 ms until it holds (true) or `timeout` passes (false).
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace qx::test
