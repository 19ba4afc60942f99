#include "platform/dispatch/SequenceChecker.h"

#include "platform/dispatch/SerialQueue.h"

namespace qx {

const void* SequenceChecker::currentSequence() {
  if (const void* queue = SerialQueue::currentToken()) return queue;
  thread_local const char thread = 0;
  return &thread;
}

bool SequenceChecker::calledOnValidSequence() const {
  const void* current = currentSequence();
  std::lock_guard lock(mutex_);
  if (!bound_) bound_ = current;
  return bound_ == current;
}

void SequenceChecker::detach() {
  std::lock_guard lock(mutex_);
  bound_ = nullptr;
}

}  // namespace qx
