#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "platform/dispatch/Semaphore.h"

namespace qx {

// Where the answer to a question just sent can be read by the thread that
// waits for it, instead of that thread sleeping until another one hands the
// answer over: one wake-up per answer instead of two.
//
// A send that expects an answer notes its source and ticket for the calling
// thread; ReplyWaiter takes the note right after its send and lets the source
// run the wait.
class AnswerSource {
 public:
  virtual ~AnswerSource() = default;

  // Returns once `done` has been signalled (and taken). The source may read
  // the answer on the calling thread, or simply wait on `done`.
  virtual void waitFor(Semaphore& done, uint64_t ticket) = 0;

  // Notes, for the calling thread, the source of the answer to its last send.
  static void note(std::weak_ptr<AnswerSource> source, uint64_t ticket);
  // Takes and clears the calling thread's note; a nil source when none.
  static std::pair<std::shared_ptr<AnswerSource>, uint64_t> take();
};

}  // namespace qx
