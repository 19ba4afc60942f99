#include "service/QXFileService.h"

#include "acl/QXFileAcl.h"
#include "model/QXAclEntry.h"
#include "model/QXTreeNode.h"
#include "platform/dispatch/ConcurrentQueue.h"
#include "platform/foundation/String.h"
#include "platform/xpc/XpcInterface.h"
#include "rename/QXFileRename.h"
#include "sizes/QXFileSizes.h"

QXFileService::QXFileService() : QXFileService(nullptr) {}

QXFileService::QXFileService(std::shared_ptr<qx::XpcConnection> connection)
    : connection_(std::move(connection)) {
  restrictIncomingClasses();
}

QXFileService::~QXFileService() {
  if (connection_) connection_->invalidate();
}

void QXFileService::restrictIncomingClasses() {
  auto interface = connection_ ? connection_->exportedInterface() : nullptr;
  if (!interface) return;
  const qx::ClassSet entries{&qx::Array::classInfo(), &qx::String::classInfo(),
                             &QXTreeNode::classInfo(), &QXAclEntry::classInfo()};
  const qx::ClassSet urls{&qx::Array::classInfo(), &qx::Url::classInfo()};
  interface->setClasses(entries, "setAclEntries:url:reply:", 0, false);
  interface->setClasses(entries, "propagateAclEntries:url:reply:", 0, false);
  interface->setClasses(urls, "renameUrls:names:reply:", 0, false);
  interface->setClasses(urls, "getSizesWithUrls:reply:", 0, false);
}

qx::SerialQueue& QXFileService::queue() {
  if (!queue_) queue_ = std::make_unique<qx::SerialQueue>(kOperationQueueLabel);
  return *queue_;
}

void QXFileService::getAclEntriesWithUrl(qx::UrlPtr url, ArrayReply reply) {
  qx::ErrorPtr error;
  qx::ArrayPtr entries = QXFileAcl::entriesForUrl(url, &error);
  reply(entries, error);
}

void QXFileService::getAclAccessWithUrl(qx::UrlPtr url, qx::UuidPtr uuid, ArrayReply reply) {
  qx::ErrorPtr error;
  qx::ArrayPtr access = QXFileAcl::accessForUrl(url, uuid, &error);
  reply(access, error);
}

void QXFileService::setAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) {
  qx::ErrorPtr error;
  QXFileAcl::setEntries(entries, url, &error);
  reply(error);
}

void QXFileService::propagateAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) {
  qx::ErrorPtr error;
  QXFileAcl::propagateEntries(entries, url, &error);
  reply(error);
}

// The block holds the service, so the service outlives it; the connection is
// read when the block runs.
void QXFileService::renameUrls(qx::ArrayPtr urls, qx::ArrayPtr names, RenameReply reply) {
  queue().async([self = shared_from_this(), urls = std::move(urls), names = std::move(names),
                 reply = std::move(reply)]() mutable {
    qx::ErrorPtr error;
    qx::DictionaryPtr result = QXFileRename::renameUrls(urls, names, self->connection(), &error);
    reply(result ? result->objectForKeyAs<qx::Array>("urls") : nullptr,
          result ? result->objectForKeyAs<qx::Array>("names") : nullptr, error);
  });
}

void QXFileService::getSizesWithUrls(qx::ArrayPtr urls, ArrayReply reply) {
  queue().async(
      [self = shared_from_this(), urls = std::move(urls), reply = std::move(reply)]() mutable {
        qx::ErrorPtr error;
        qx::ArrayPtr sizes = QXFileSizes::getSizesWithUrls(urls, self->connection(), &error);
        reply(sizes, error);
      });
}

void QXFileService::getContentsOfDirectory(qx::UrlPtr url, qx::IndexPathPtr indexPath,
                                           ArrayReply reply) {
  qx::globalQueue(qx::Qos::Default)
      .async([self = shared_from_this(), url = std::move(url), indexPath = std::move(indexPath),
              reply = std::move(reply)]() mutable {
        qx::ErrorPtr error;
        qx::ArrayPtr levels = QXFileSizes::getContentsOfDirectory(url, indexPath, &error);
        reply(levels, error);
      });
}
