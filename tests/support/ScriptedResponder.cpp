#include "tests/support/ScriptedResponder.h"

#include <chrono>

namespace qx::test {

void ScriptedResponder::updateFileSizes(ArrayPtr sizes, AnswerReply reply) {
  std::unique_lock lock(mutex_);
  reports_.push_back(std::move(sizes));
  answer(sizes_, static_cast<int>(reports_.size()), std::move(reply), lock);
}

void ScriptedResponder::progressWithReply(AnswerReply reply) {
  std::unique_lock lock(mutex_);
  answer(questions_, ++questionCount_, std::move(reply), lock);
}

void ScriptedResponder::answer(const Script& script, int n, AnswerReply reply,
                               std::unique_lock<std::mutex>& lock) {
  arrived_.notify_all();
  if (!script) {
    held_.push_back(std::move(reply));
    return;
  }
  lock.unlock();  // the script may look at the files, or take its time
  reply(script(n));
}

std::vector<ArrayPtr> ScriptedResponder::reports() {
  std::lock_guard lock(mutex_);
  return reports_;
}

bool ScriptedResponder::waitForCalls(std::size_t count) {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, std::chrono::seconds(20), [&] {
    return reports_.size() + static_cast<std::size_t>(questionCount_) >= count;
  });
}

void ScriptedResponder::answerHeld(bool answer) {
  std::vector<AnswerReply> held;
  {
    std::lock_guard lock(mutex_);
    held.swap(held_);
  }
  for (auto& reply : held) reply(answer);
}

}  // namespace qx::test
