#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/foundation/Array.h"
#include "protocol/QXFileResponse.h"

namespace qx::test {

// The client's side of the callbacks a worker sends: keeps every size report
// as it arrived over the wire, counts the progress questions, and answers the
// n-th of each kind (from 1) with what its script says. A missing script
// holds the reply blocks until answerHeld(), or until the test drops them
// with the connection.
class ScriptedResponder final : public QXFileResponse {
 public:
  using Script = std::function<bool(int n)>;
  ScriptedResponder(Script sizes, Script questions)
      : sizes_(std::move(sizes)), questions_(std::move(questions)) {}

  void updateFileSizes(ArrayPtr sizes, AnswerReply reply) override;
  void progressWithReply(AnswerReply reply) override;

  std::vector<ArrayPtr> reports();
  // Waits until `count` callbacks of either kind have arrived.
  bool waitForCalls(std::size_t count);
  void answerHeld(bool answer);

 private:
  void answer(const Script& script, int n, AnswerReply reply, std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  std::condition_variable arrived_;
  Script sizes_;
  Script questions_;
  std::vector<ArrayPtr> reports_;
  int questionCount_ = 0;
  std::vector<AnswerReply> held_;
};

}  // namespace qx::test
