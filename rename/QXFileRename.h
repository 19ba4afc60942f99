#pragma once

#include <memory>

#include "platform/foundation/Array.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/Error.h"
#include "platform/xpc/XpcConnection.h"

// Renames batches of items, each inside its own parent folder. Nothing is kept
// between calls.
class QXFileRename {
 public:
  QXFileRename() = delete;

  // Renames urls[i] to names[i] (surplus names are ignored), stopping at the
  // first failure or when the client answers YES to progressWithReply:, which
  // is sent after every 31 renames through `connection`'s remote object proxy
  // (its remote interface is QXFileResponse's). A question that gets no answer
  // (no connection, or one invalidated while waiting) stops too.
  // Renames already done stay done.
  //
  // Always returns {"urls": new URLs of the renamed items, "names": the names
  // they had before}, two mutable arrays. `error` (may be null) is nil on
  // completion and on a stop, and the wrapped error of the failing item on
  // failure. Blocks the calling thread while the client is asked, so it must
  // not run on the connection's delivery queue.
  static qx::DictionaryPtr renameUrls(const qx::ArrayPtr& urls, const qx::ArrayPtr& names,
                                      const std::shared_ptr<qx::XpcConnection>& connection,
                                      qx::ErrorPtr* error);
};
