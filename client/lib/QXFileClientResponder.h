#pragma once

#include <memory>
#include <mutex>

#include "client/lib/QXFileClient.h"
#include "platform/dispatch/SerialQueue.h"
#include "protocol/QXFileResponse.h"

// The client's exported object: answers the service's callbacks with the
// application's handlers. Each callback is handed to a serial queue of its
// own, so a handler that takes its time holds up neither the connection's
// replies nor the application's other requests.
class QXFileClientResponder final : public QXFileResponse,
                                    public std::enable_shared_from_this<QXFileClientResponder> {
 public:
  QXFileClientResponder() = default;

  void setProgressHandler(QXFileClient::ProgressHandler handler);
  void setSizeUpdateHandler(QXFileClient::SizeUpdateHandler handler);

  // Forgets both handlers for good: once it returns, none runs again, and
  // handlers set afterwards are ignored. With `waitForRunning`, none is
  // running either: a handler under way is waited for, unless this is called
  // from that handler. The first call decides; later ones change nothing, so
  // an owner that chose not to wait is not overruled by whoever releases the
  // connection last.
  void detachHandlers(bool waitForRunning);

  // Without a handler, the answer is "go on" (false here: true would stop).
  void progressWithReply(AnswerReply reply) override;
  // Without a handler, the answer is "go on" (true).
  void updateFileSizes(qx::ArrayPtr sizes, AnswerReply reply) override;

 private:
  bool askProgress();
  bool deliverSizes(const qx::ArrayPtr& sizes);

  // Held while a handler runs: detachHandlers() waits on it.
  std::mutex callMutex_;
  std::mutex mutex_;
  bool detached_ = false;
  QXFileClient::ProgressHandler progress_;
  QXFileClient::SizeUpdateHandler sizeUpdates_;
  // Last, so that it finishes its tasks while the handlers still exist.
  qx::SerialQueue queue_{"org.qxfile.Client.Callbacks"};
};
