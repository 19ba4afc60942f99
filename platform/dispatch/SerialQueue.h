#pragma once

#include <memory>
#include <string>

#include "platform/dispatch/OnceCallback.h"

namespace qx {

// A FIFO queue that runs one task at a time on its own thread. The thread is
// started with the first task and named after the label (the first 15
// characters, the limit of thread names). Tasks may block; a blocked serial
// queue blocks nothing else.
//
// Destroying the queue lets the tasks already queued run to their end and then
// stops the thread. When the last reference goes away on the queue's own thread
// (a task that releases the object owning the queue), the thread finishes the
// remaining tasks by itself and is not joined.
class SerialQueue {
 public:
  explicit SerialQueue(std::string label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const { return label_; }

  // Queues `task` behind every task queued before it.
  void async(Task task);
  // True on the thread running one of this queue's tasks (its own thread, or
  // a thread that has claimed the queue).
  bool isCurrent() const;

  // Running one task on the calling thread, as part of the queue: when the
  // queue is idle (no task running, none queued), tryClaim() marks it busy for
  // the caller and answers true; the caller then runs its task and calls
  // releaseClaim(). Tasks queued meanwhile wait, in order, and run on the
  // queue's thread afterwards. This saves a thread switch for work that
  // arrives while the queue has nothing to do.
  bool tryClaim();
  void releaseClaim();

  // Identifies the serial queue whose task the calling thread runs (on the
  // queue's thread or a claiming one); nullptr outside any.
  static const void* currentToken();

 private:
  struct State;

  std::string label_;
  std::shared_ptr<State> state_;
  // What the claiming thread ran before its claim (set and read by it alone).
  const void* claimedFrom_ = nullptr;
};

// Names the calling thread (truncated to the 15 characters Linux allows).
void setCurrentThreadName(const std::string& name);

}  // namespace qx
