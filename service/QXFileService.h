#pragma once

#include <memory>

#include "platform/dispatch/SequenceChecker.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/xpc/XpcConnection.h"
#include "protocol/QXFileRequest.h"

// The exported object of one client connection: carries out the requests of
// QXFileRequest by calling one worker class method each and handing the
// worker's result and error, as they are, to the reply block exactly once.
//
// Where each request runs:
// - the four ACL requests synchronously on the connection's delivery queue,
//   so no other request of the connection starts while one works (the
//   connection reads on meanwhile: answers to this service's own callbacks
//   and the connection's end reach the workers waiting for them);
// - rename and size requests on this object's serial operation queue, one at
//   a time in arrival order (the queue is made by the first of them);
// - listings on the global concurrent queue, beside anything else.
//
// The service holds its connection; the connection holds the service as its
// exported object until it is invalidated, and each queued request holds it
// until its reply has gone. So a service outlives its connection's end.
class QXFileService final : public QXFileRequest,
                            public std::enable_shared_from_this<QXFileService> {
 public:
  // The label of the operation queue: the service identifier followed by
  // ".OperationQueue".
  static constexpr const char* kOperationQueueLabel = "org.qxfile.FileService.OperationQueue";

  // Restricts the classes allowed in the incoming entries and URL arrays on
  // the connection's exported interface (which must be set before), then
  // keeps the connection. The operation queue is not made yet.
  explicit QXFileService(std::shared_ptr<qx::XpcConnection> connection);
  QXFileService(const QXFileService&) = delete;
  QXFileService& operator=(const QXFileService&) = delete;

  const std::shared_ptr<qx::XpcConnection>& connection() const { return connection_; }
  // The operation queue, made on first use. Called only from the connection's
  // delivery queue, which is serial, so making it needs no lock (checked in
  // debug builds).
  qx::SerialQueue& queue();

  void getAclEntriesWithUrl(qx::UrlPtr url, ArrayReply reply) override;
  void getAclAccessWithUrl(qx::UrlPtr url, qx::UuidPtr uuid, ArrayReply reply) override;
  void setAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) override;
  void propagateAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) override;
  void renameUrls(qx::ArrayPtr urls, qx::ArrayPtr names, RenameReply reply) override;
  void getSizesWithUrls(qx::ArrayPtr urls, ArrayReply reply) override;
  void getContentsOfDirectory(qx::UrlPtr url, qx::IndexPathPtr indexPath,
                              ArrayReply reply) override;

 private:
  // Every request starts on the connection's delivery queue.
  qx::SequenceChecker delivery_;

  // Declared first so that it is released last, after the queue.
  std::shared_ptr<qx::XpcConnection> connection_;
  std::unique_ptr<qx::SerialQueue> queue_;
};
