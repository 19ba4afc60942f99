#include "service/QXClientCallbacks.h"

#include <optional>
#include <utility>

#include "platform/dispatch/ReplyWaiter.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/String.h"
#include "protocol/QXFileResponse.h"
#include "protocol/QXFileResponseProxy.h"
#include "service/QXSizeReportWriter.h"

namespace {

// The keys are shared by every record, so an archive writes each once.
const qx::ObjectPtr& indexPathKey() {
  static const qx::ObjectPtr key = qx::str(QXFileResponse::kIndexPathKey);
  return key;
}

const qx::ObjectPtr& itemKey() {
  static const qx::ObjectPtr key = qx::str(QXFileResponse::kFileSizeItemKey);
  return key;
}

}  // namespace

qx::ArrayPtr QXClientCallbacks::wireRecords(const QXSizeUpdates& updates) {
  auto records = qx::MutableArray::make(updates.size());
  for (const QXSizeUpdate& update : updates) {
    qx::DictionaryEntries pairs;
    pairs.push_back({indexPathKey(), update.indexPath});
    pairs.push_back({itemKey(), update.item});
    records->addObject(qx::Dictionary::make(std::move(pairs)));
  }
  return records;
}

QXFileSizes::Report QXClientCallbacks::sizeReport(std::shared_ptr<qx::XpcConnection> connection) {
  auto proxy = connection ? connection->remoteObjectProxy<QXFileResponse>() : nullptr;
  return [client =
              std::static_pointer_cast<QXFileResponseProxy>(proxy)](const QXSizeUpdates& batch) {
    if (!client) return false;
    std::optional<bool> goOn = qx::ReplyWaiter<bool>::wait([&](QXFileResponse::AnswerReply reply) {
      // Written straight from the records: the same message as
      // updateFileSizes(wireRecords(batch)) sends.
      client->updateFileSizesWritten(
          [&](qx::KeyedArchiveWriter& coder) {
            return QXSizeReportWriter::writeRecords(coder, batch);
          },
          std::move(reply));
    });
    return goOn.value_or(false);
  };
}

QXFileRename::ShouldStop QXClientCallbacks::renameQuestion(
    std::shared_ptr<qx::XpcConnection> connection) {
  return [client = connection ? connection->remoteObjectProxy<QXFileResponse>() : nullptr] {
    if (!client) return true;
    std::optional<bool> stop = qx::ReplyWaiter<bool>::wait(
        [&](QXFileResponse::AnswerReply reply) { client->progressWithReply(std::move(reply)); });
    return stop.value_or(true);
  };
}

std::function<bool()> QXClientCallbacks::connectionEnded(
    std::shared_ptr<qx::XpcConnection> connection) {
  return [weak = std::weak_ptr<qx::XpcConnection>(connection)] {
    auto connection = weak.lock();
    return !connection || !connection->isValid();
  };
}
