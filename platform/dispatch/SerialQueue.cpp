#include "platform/dispatch/SerialQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace qx {
namespace {

// The queue whose task this thread runs, for currentToken().
thread_local const void* tCurrentQueue = nullptr;

}  // namespace

struct SerialQueue::State {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<Task> tasks;
  bool closing = false;
  std::thread thread;
  bool busy = false;          // a task is running, here or on a claiming thread
  std::thread::id runningOn;  // the thread running it

  // The thread's loop. It keeps `self` alive so that it may outlive the queue
  // object when that is destroyed from inside a task.
  static void run(std::shared_ptr<State> self, std::string label) {
    setCurrentThreadName(label);
    std::unique_lock lock(self->mutex);
    for (;;) {
      self->wake.wait(lock, [&] { return !self->busy && (self->closing || !self->tasks.empty()); });
      if (self->tasks.empty()) return;  // closing and drained
      Task task = std::move(self->tasks.front());
      self->tasks.pop_front();
      self->busy = true;
      self->runningOn = std::this_thread::get_id();
      lock.unlock();
      tCurrentQueue = self.get();
      task();
      tCurrentQueue = nullptr;
      lock.lock();
      self->busy = false;
      self->runningOn = std::thread::id();
    }
  }

  // Starts the thread on first need; called with the mutex held.
  void startThread(const std::shared_ptr<State>& self, const std::string& label) {
    if (!thread.joinable() && !closing) thread = std::thread(&State::run, self, label);
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
    state_->startThread(state_, label_);
  }
  state_->wake.notify_one();
}

bool SerialQueue::isCurrent() const {
  std::lock_guard lock(state_->mutex);
  return state_->busy && state_->runningOn == std::this_thread::get_id();
}

bool SerialQueue::tryClaim() {
  std::lock_guard lock(state_->mutex);
  if (state_->busy || !state_->tasks.empty()) return false;
  state_->busy = true;
  state_->runningOn = std::this_thread::get_id();
  claimedFrom_ = std::exchange(tCurrentQueue, state_.get());
  return true;
}

void SerialQueue::releaseClaim() {
  tCurrentQueue = claimedFrom_;
  {
    std::lock_guard lock(state_->mutex);
    state_->busy = false;
    state_->runningOn = std::thread::id();
  }
  state_->wake.notify_one();
}

const void* SerialQueue::currentToken() {
  return tCurrentQueue;
}

}  // namespace qx
