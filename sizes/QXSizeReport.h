#pragma once

#include <memory>

#include "platform/foundation/Array.h"

namespace qx {
class XpcConnection;
}

// The interim report of a size calculation: one updateFileSizes:reply: call
// to the client, waited for.
class QXSizeReport {
 public:
  QXSizeReport() = delete;

  // Sends `batch` and blocks until the client answers: true to go on, false
  // to stop. A connection that is missing or invalidated before it answers,
  // a refused call, or an answer that is not a boolean count as stop, so the
  // caller is always released.
  static bool send(const std::shared_ptr<qx::XpcConnection>& connection, const qx::ArrayPtr& batch);
};
