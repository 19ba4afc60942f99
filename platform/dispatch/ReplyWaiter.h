#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/dispatch/AnswerSource.h"
#include "platform/dispatch/OnceCallback.h"
#include "platform/dispatch/Semaphore.h"

namespace qx {

// Sending a question and waiting for its answer, with one rule for an answer
// that will never come: whoever cannot answer drops the reply block without
// calling it (a refused call, a send on an invalid connection, every call
// still pending when the connection ends), and a dropped block means "no
// answer".
//
//   std::optional<bool> stop = ReplyWaiter<bool>::wait(
//       [&](OnceCallback<void(bool)> reply) { proxy->progressWithReply(std::move(reply)); });
template <class... R>
class ReplyWaiter {
 public:
  using Reply = OnceCallback<void(R...)>;
  using Values = std::tuple<std::decay_t<R>...>;
  using Answer = std::conditional_t<sizeof...(R) == 1, std::tuple_element_t<0, Values>, Values>;

  // A reply block that calls `done` exactly once: with the values when it is
  // called, with nullopt when it is dropped uncalled.
  static Reply observe(OnceCallback<void(std::optional<Values>)> done) {
    return [outcome = Outcome(std::move(done))](R... values) mutable {
      outcome.answer(Values(std::forward<R>(values)...));
    };
  }

  // Calls `send` with a reply block on the calling thread, then blocks until
  // that block has run or has been dropped; nullopt for no answer. When the
  // send noted where its answer comes from (AnswerSource), the wait is left
  // to that source, which may read the answer on this thread.
  static std::optional<Answer> wait(const std::function<void(Reply)>& send) {
    struct State {
      Semaphore done;
      std::optional<Values> values;
    };
    auto state = std::make_shared<State>();
    AnswerSource::take();  // a note left by an earlier send is not this one's
    send(observe([state](std::optional<Values> values) {
      state->values = std::move(values);
      state->done.signal();
    }));
    if (auto [source, ticket] = AnswerSource::take(); source) {
      source->waitFor(state->done, ticket);
    } else {
      state->done.wait();
    }
    if (!state->values) return std::nullopt;
    if constexpr (sizeof...(R) == 1) {
      return std::move(std::get<0>(*state->values));
    } else {
      return std::move(*state->values);
    }
  }

 private:
  // Calls `done` once: when answered, or when destroyed unanswered.
  class Outcome {
   public:
    explicit Outcome(OnceCallback<void(std::optional<Values>)> done) : done_(std::move(done)) {}
    Outcome(Outcome&&) noexcept = default;
    Outcome& operator=(Outcome&&) = delete;
    ~Outcome() {
      if (done_) done_(std::nullopt);
    }
    void answer(Values values) { std::exchange(done_, nullptr)(std::move(values)); }

   private:
    OnceCallback<void(std::optional<Values>)> done_;
  };
};

}  // namespace qx
