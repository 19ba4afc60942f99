#include "service/QXFileService.h"

#include <cassert>
#include <optional>

#include "acl/QXFileAcl.h"
#include "listing/QXFileListing.h"
#include "platform/dispatch/ConcurrentQueue.h"
#include "platform/xpc/XpcInterface.h"
#include "rename/QXFileRename.h"
#include "service/QXClientCallbacks.h"
#include "sizes/QXFileSizes.h"

QXFileService::QXFileService(std::shared_ptr<qx::XpcConnection> connection)
    : connection_(std::move(connection)) {
  auto interface = connection_ ? connection_->exportedInterface() : nullptr;
  // The rules were checked when the service started (QXFileServiceDelegate).
  [[maybe_unused]] bool restricted = !interface || QXFileRequest::restrictArguments(*interface);
  assert(restricted);
}

qx::SerialQueue& QXFileService::queue() {
  QX_CHECK_SEQUENCE(delivery_);
  if (!queue_) queue_ = std::make_unique<qx::SerialQueue>(kOperationQueueLabel);
  return *queue_;
}

void QXFileService::getAclEntriesWithUrl(qx::UrlPtr url, ArrayReply reply) {
  QX_CHECK_SEQUENCE(delivery_);
  qx::ErrorPtr error;
  qx::ArrayPtr entries = QXFileAcl::entriesForUrl(url, &error);
  reply(entries, error);
}

void QXFileService::getAclAccessWithUrl(qx::UrlPtr url, qx::UuidPtr uuid, ArrayReply reply) {
  QX_CHECK_SEQUENCE(delivery_);
  qx::ErrorPtr error;
  qx::ArrayPtr access = QXFileAcl::accessForUrl(url, uuid, &error);
  reply(access, error);
}

void QXFileService::setAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) {
  QX_CHECK_SEQUENCE(delivery_);
  qx::ErrorPtr error;
  QXFileAcl::setEntries(entries, url, &error);
  reply(error);
}

void QXFileService::propagateAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) {
  QX_CHECK_SEQUENCE(delivery_);
  qx::ErrorPtr error;
  // A connection that ends stops the walk: nobody is left to hear the answer.
  QXFileAcl::propagateEntries(entries, url, &error,
                              QXClientCallbacks::connectionEnded(connection_));
  reply(error);
}

// The block holds the service, so the service outlives it; the connection is
// read when the block runs.
void QXFileService::renameUrls(qx::ArrayPtr urls, qx::ArrayPtr names, RenameReply reply) {
  QX_CHECK_SEQUENCE(delivery_);
  queue().async([self = shared_from_this(), urls = std::move(urls), names = std::move(names),
                 reply = std::move(reply)]() mutable {
    qx::ErrorPtr error;
    QXFileRename::Result renamed = QXFileRename::renameUrls(
        urls, names, QXClientCallbacks::renameQuestion(self->connection()), &error);
    reply(std::move(renamed.urls), std::move(renamed.names), error);
  });
}

void QXFileService::getSizesWithUrls(qx::ArrayPtr urls, ArrayReply reply) {
  QX_CHECK_SEQUENCE(delivery_);
  queue().async(
      [self = shared_from_this(), urls = std::move(urls), reply = std::move(reply)]() mutable {
        qx::ErrorPtr error;
        std::optional<QXSizeUpdates> sizes = QXFileSizes::getSizesWithUrls(
            urls, QXClientCallbacks::sizeReport(self->connection()), &error);
        reply(sizes ? QXClientCallbacks::wireRecords(*sizes) : nullptr, error);
      });
}

void QXFileService::getContentsOfDirectory(qx::UrlPtr url, qx::IndexPathPtr indexPath,
                                           ArrayReply reply) {
  QX_CHECK_SEQUENCE(delivery_);
  qx::globalQueue(qx::Qos::Default)
      .async([self = shared_from_this(), url = std::move(url), indexPath = std::move(indexPath),
              reply = std::move(reply)]() mutable {
        qx::ErrorPtr error;
        qx::ArrayPtr levels = QXFileListing::getContentsOfDirectory(url, indexPath, &error);
        reply(levels, error);
      });
}
