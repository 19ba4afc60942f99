#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/dispatch/OnceCallback.h"
#include "platform/dispatch/Semaphore.h"

namespace qx {

// Asks the peer and waits: the way a worker sends a callback to the client
// and blocks its thread until the client's reply block has run.
//
//   std::optional<bool> stop = XpcReplyWaiter<bool>::wait(
//       [&](OnceCallback<void(bool)> reply) { proxy->progressWithReply(std::move(reply)); });
//
// The thread is released in every case: with the answer when the reply block
// runs, with nullopt ("no answer") when the reply block is dropped without
// being called, which is what the connection does with the reply blocks of a
// refused invocation, of a send on an invalid connection and of every call
// still pending when the connection is invalidated.
template <class... R>
class XpcReplyWaiter {
 public:
  using Reply = OnceCallback<void(R...)>;
  using Answer =
      std::conditional_t<sizeof...(R) == 1, std::tuple_element_t<0, std::tuple<std::decay_t<R>...>>,
                         std::tuple<std::decay_t<R>...>>;

  // Calls `send` with a reply block on the calling thread, then blocks until
  // that block has run or has been dropped.
  static std::optional<Answer> wait(const std::function<void(Reply)>& send) {
    auto state = std::make_shared<State>();
    send(Reply([signal = Signal(state)](R... values) mutable {
      signal.answer(std::forward<R>(values)...);
    }));
    state->done.wait();
    return std::move(state->answer);
  }

 private:
  struct State {
    Semaphore done;
    std::optional<Answer> answer;
  };

  // Signals the waiter exactly once: when answered, or when destroyed unanswered.
  class Signal {
   public:
    explicit Signal(std::shared_ptr<State> state) : state_(std::move(state)) {}
    Signal(Signal&& other) noexcept : state_(std::move(other.state_)) {}
    Signal& operator=(Signal&&) = delete;
    ~Signal() {
      if (state_) state_->done.signal();
    }
    template <class... V>
    void answer(V&&... values) {
      state_->answer.emplace(std::forward<V>(values)...);
      std::exchange(state_, nullptr)->done.signal();
    }

   private:
    std::shared_ptr<State> state_;
  };
};

}  // namespace qx
