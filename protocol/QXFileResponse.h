#pragma once

#include "platform/dispatch/OnceCallback.h"
#include "platform/foundation/Array.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcProtocol.h"

// The callbacks the service sends to its client while a rename or a size
// calculation runs. The client implements them and exports that object; the
// service's workers reach it through the connection's remote object proxy:
//
//   auto client = connection->remoteObjectProxy<QXFileResponse>();
//   client->updateFileSizes(batch, std::move(reply));
//
// The client must call each reply block once: the worker waits for it. The
// two answers have opposite senses, and both are kept exactly so.
class QXFileResponse {
 public:
  using AnswerReply = qx::OnceCallback<void(bool)>;

  virtual ~QXFileResponse() = default;

  // Sent by the batch rename at intervals. true: stop; false: go on.
  virtual void progressWithReply(AnswerReply reply) = 0;
  // Sent by the size calculation with the update records gathered since the
  // last report (dictionaries with the keys "QXIndexPath" and
  // "QXFileSizeItem"). true: go on; false: stop.
  virtual void updateFileSizes(qx::ArrayPtr sizes, AnswerReply reply) = 0;

  // The keys of a size update record.
  static constexpr const char* kIndexPathKey = "QXIndexPath";
  static constexpr const char* kFileSizeItemKey = "QXFileSizeItem";

  // The protocol's description for the connection layer (remote proxy class
  // QXFileResponseProxy).
  static const qx::XpcProtocol& protocol();

  // A client's rule for the size reports it receives, on its exported
  // interface. False when the rule names a method the protocol lacks.
  [[nodiscard]] static bool restrictArguments(qx::XpcInterface& exported);
};
