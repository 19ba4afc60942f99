#include "client/lib/QXFileClientResponder.h"

#include <utility>

void QXFileClientResponder::setProgressHandler(QXFileClient::ProgressHandler handler) {
  std::lock_guard lock(mutex_);
  if (!detached_) progress_ = std::move(handler);
}

void QXFileClientResponder::setSizeUpdateHandler(QXFileClient::SizeUpdateHandler handler) {
  std::lock_guard lock(mutex_);
  if (!detached_) sizeUpdates_ = std::move(handler);
}

void QXFileClientResponder::detachHandlers(bool waitForRunning) {
  QXFileClient::ProgressHandler progress;
  QXFileClient::SizeUpdateHandler sizeUpdates;
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(detached_, true)) return;
    progress = std::exchange(progress_, nullptr);
    sizeUpdates = std::exchange(sizeUpdates_, nullptr);
  }
  // Handlers run on the queue, one at a time: on it, the caller is that handler.
  if (!waitForRunning || queue_.isCurrent()) return;
  std::lock_guard running(callMutex_);
}

void QXFileClientResponder::progressWithReply(AnswerReply reply) {
  queue_.async([self = shared_from_this(), reply = std::move(reply)]() mutable {
    reply(self->askProgress());
  });
}

void QXFileClientResponder::updateFileSizes(qx::ArrayPtr sizes, AnswerReply reply) {
  queue_.async([self = shared_from_this(), sizes = std::move(sizes),
                reply = std::move(reply)]() mutable { reply(self->deliverSizes(sizes)); });
}

// A handler that throws asks to stop: nothing it threw crosses the connection.
bool QXFileClientResponder::askProgress() {
  std::lock_guard running(callMutex_);
  QXFileClient::ProgressHandler handler;
  {
    std::lock_guard lock(mutex_);
    handler = progress_;
  }
  if (!handler) return false;
  try {
    return handler();
  } catch (...) {
    return true;
  }
}

bool QXFileClientResponder::deliverSizes(const qx::ArrayPtr& sizes) {
  std::lock_guard running(callMutex_);
  QXFileClient::SizeUpdateHandler handler;
  {
    std::lock_guard lock(mutex_);
    handler = sizeUpdates_;
  }
  if (!handler) return true;
  try {
    return handler(sizes);
  } catch (...) {
    return false;
  }
}
