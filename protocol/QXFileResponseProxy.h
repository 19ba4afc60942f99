#pragma once

#include "platform/xpc/XpcRemoteProxy.h"
#include "protocol/QXFileResponse.h"

// The service's side of QXFileResponse: each callback is sent to the client
// at once; its reply block runs on the connection's delivery queue when the
// client answers, and is dropped unanswered when the connection ends first.
// Made by XpcConnection::remoteObjectProxy<QXFileResponse>().
class QXFileResponseProxy final : public QXFileResponse, qx::XpcRemoteProxy {
 public:
  using XpcRemoteProxy::XpcRemoteProxy;

  void progressWithReply(AnswerReply reply) override;
  void updateFileSizes(qx::ArrayPtr sizes, AnswerReply reply) override;
  // The same call with the records written into the message by `sizes`
  // instead of archived from an array (the report the service sends most).
  void updateFileSizesWritten(const qx::XpcMessage::ArgumentWriter& sizes, AnswerReply reply);
};
