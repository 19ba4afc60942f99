#pragma once

#include <functional>
#include <memory>

#include "platform/foundation/Array.h"
#include "platform/xpc/XpcConnection.h"
#include "rename/QXFileRename.h"
#include "sizes/QXFileSizes.h"

// Turns the workers' callbacks into calls of the client through the
// connection's QXFileResponse proxy. Each call waits for the client's reply;
// a reply that will not come (the call refused, the connection ended before
// the client answered) counts as "stop", so the worker is always released.
class QXClientCallbacks {
 public:
  QXClientCallbacks() = delete;

  // Sends each batch with updateFileSizes:reply: and answers the client's
  // YES (go on) or NO (stop).
  static QXFileSizes::Report sizeReport(std::shared_ptr<qx::XpcConnection> connection);
  // Asks progressWithReply: and answers the client's YES (stop) or NO.
  static QXFileRename::ShouldStop renameQuestion(std::shared_ptr<qx::XpcConnection> connection);
  // True once the connection has ended: work for that client may stop.
  static std::function<bool()> connectionEnded(std::shared_ptr<qx::XpcConnection> connection);

  // The update records as they cross the connection: dictionaries with the
  // keys "QXIndexPath" and "QXFileSizeItem".
  static qx::ArrayPtr wireRecords(const QXSizeUpdates& updates);
};
