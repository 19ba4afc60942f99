#include "platform/dispatch/SerialQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace qx {

struct SerialQueue::State {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<Task> tasks;
  bool closing = false;
  bool started = false;
  std::thread thread;
  std::thread::id threadId;

  // The thread's loop. It keeps `self` alive so that it may outlive the queue
  // object when that is destroyed from inside a task.
  static void run(std::shared_ptr<State> self, std::string label) {
    setCurrentThreadName(label);
    std::unique_lock lock(self->mutex);
    for (;;) {
      self->wake.wait(lock, [&] { return self->closing || !self->tasks.empty(); });
      if (self->tasks.empty()) return;  // closing and drained
      Task task = std::move(self->tasks.front());
      self->tasks.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }
};

void setCurrentThreadName(const std::string& name) {
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), state_(std::make_shared<State>()) {}

SerialQueue::~SerialQueue() {
  std::thread thread;
  {
    std::lock_guard lock(state_->mutex);
    state_->closing = true;
    thread = std::move(state_->thread);
  }
  state_->wake.notify_all();
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();  // the loop drains the rest and ends by itself
  } else {
    thread.join();
  }
}

void SerialQueue::async(Task task) {
  {
    std::lock_guard lock(state_->mutex);
    state_->tasks.push_back(std::move(task));
    if (!state_->started) {
      state_->started = true;
      state_->thread = std::thread(&State::run, state_, label_);
      state_->threadId = state_->thread.get_id();
    }
  }
  state_->wake.notify_one();
}

bool SerialQueue::isCurrent() const {
  std::lock_guard lock(state_->mutex);
  return state_->started && state_->threadId == std::this_thread::get_id();
}

}  // namespace qx
