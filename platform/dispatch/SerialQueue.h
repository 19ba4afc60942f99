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
  // True on the thread that runs this queue's tasks.
  bool isCurrent() const;

 private:
  struct State;

  std::string label_;
  std::shared_ptr<State> state_;
};

// Names the calling thread (truncated to the 15 characters Linux allows).
void setCurrentThreadName(const std::string& name);

}  // namespace qx
