#include "platform/dispatch/ConcurrentQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/dispatch/SerialQueue.h"

namespace qx {

struct ConcurrentQueue::State {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<Task> tasks;
  bool closing = false;
  std::vector<std::thread> threads;

  void run(const std::string& label) {
    setCurrentThreadName(label);
    std::unique_lock lock(mutex);
    for (;;) {
      wake.wait(lock, [&] { return closing || !tasks.empty(); });
      if (tasks.empty()) return;
      Task task = std::move(tasks.front());
      tasks.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }
};

ConcurrentQueue::ConcurrentQueue(std::string label, std::size_t threadCount)
    : label_(std::move(label)),
      threadCount_(std::max<std::size_t>(1, threadCount)),
      state_(std::make_unique<State>()) {}

ConcurrentQueue::~ConcurrentQueue() {
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(state_->mutex);
    state_->closing = true;
    threads = std::move(state_->threads);
  }
  state_->wake.notify_all();
  for (std::thread& thread : threads) thread.join();
}

void ConcurrentQueue::async(Task task) {
  {
    std::lock_guard lock(state_->mutex);
    state_->tasks.push_back(std::move(task));
    if (state_->threads.empty()) {
      for (std::size_t i = 0; i < threadCount_; ++i) {
        state_->threads.emplace_back([state = state_.get(), this] { state->run(label_); });
      }
    }
  }
  state_->wake.notify_one();
}

ConcurrentQueue& globalQueue(Qos) {
  static ConcurrentQueue* const pool = [] {
    std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
    return new ConcurrentQueue("qx.global", std::max<std::size_t>(4, 2 * cores));
  }();
  return *pool;
}

}  // namespace qx
