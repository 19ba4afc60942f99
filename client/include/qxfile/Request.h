#pragma once

#include <memory>

namespace qxfile {

// The handle of one request. Copies share the request; dropping every copy
// does not cancel it.
class Request {
 public:
  struct State;

  Request() = default;
  explicit Request(std::shared_ptr<State> state) : state_(std::move(state)) {}

  // Asks the request to stop: the next question of the service (a size report,
  // a rename's "go on?") is answered "stop", and no further progress is
  // delivered. The completion still comes, once, with what was done.
  void cancel();
  // Whether cancel() was called.
  bool cancelled() const;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace qxfile
