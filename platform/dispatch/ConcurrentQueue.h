#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/dispatch/OnceCallback.h"

namespace qx {

// Quality-of-service classes, by the platform's values. All of them share the
// one process-wide pool here.
enum class Qos : unsigned {
  Background = 0x09,
  Utility = 0x11,
  Default = 0x15,
  UserInitiated = 0x19,
  UserInteractive = 0x21,
};

// A pool of threads that run tasks concurrently, in the order they were
// queued. The threads start with the first task. Destroying the pool lets the
// queued tasks run to their end and joins the threads.
class ConcurrentQueue {
 public:
  ConcurrentQueue(std::string label, std::size_t threadCount);
  ~ConcurrentQueue();
  ConcurrentQueue(const ConcurrentQueue&) = delete;
  ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

  void async(Task task);
  std::size_t threadCount() const { return threadCount_; }
  const std::string& label() const { return label_; }

 private:
  struct State;

  std::string label_;
  std::size_t threadCount_;
  std::unique_ptr<State> state_;
};

// The process-wide concurrent pool: max(4, 2 x cores) threads. It lives until
// the process ends (it is never destroyed, so a task still running at exit
// does not meet a dead queue).
ConcurrentQueue& globalQueue(Qos qos = Qos::Default);

}  // namespace qx
