#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace qx {

// Per-thread reuse of the working state of the archiver and the unarchiver.
// A message is coded in a few microseconds; growing the tables of a fresh
// state from nothing (and the allocator's work on those large blocks) would
// cost as much again. A lease takes a spare state of this thread, or makes
// one, and hands it back when it ends. `T::recycle()` empties the state and
// answers false when it holds too much memory to keep. Nested archives (an
// initWithCoder that unarchives) lease states of their own.
template <class T>
class ScratchPool {
 public:
  class Lease {
   public:
    Lease() : state_(take()) {}
    ~Lease() { give(std::move(state_)); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    T& operator*() const { return *state_; }
    T* operator->() const { return state_.get(); }

   private:
    std::unique_ptr<T> state_;
  };

 private:
  static constexpr std::size_t kSpares = 4;

  static std::vector<std::unique_ptr<T>>& spares() {
    thread_local std::vector<std::unique_ptr<T>> list;
    return list;
  }

  static std::unique_ptr<T> take() {
    auto& list = spares();
    if (list.empty()) return std::make_unique<T>();
    std::unique_ptr<T> state = std::move(list.back());
    list.pop_back();
    return state;
  }

  static void give(std::unique_ptr<T> state) noexcept {
    if (!state || !state->recycle()) return;
    auto& list = spares();
    if (list.size() >= kSpares) return;
    try {
      list.push_back(std::move(state));
    } catch (...) {
      // No room to keep it: let it go.
    }
  }
};

}  // namespace qx
