#include "client/lib/QXFileClientResponder.h"

void QXFileClientResponder::setProgressHandler(QXFileClient::ProgressHandler handler) {
  std::lock_guard lock(mutex_);
  progress_ = std::move(handler);
}

void QXFileClientResponder::setSizeUpdateHandler(QXFileClient::SizeUpdateHandler handler) {
  std::lock_guard lock(mutex_);
  sizeUpdates_ = std::move(handler);
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
