#include "protocol/QXFileResponseProxy.h"

void QXFileResponseProxy::progressWithReply(AnswerReply reply) {
  send(&QXFileResponse::progressWithReply, std::move(reply));
}

void QXFileResponseProxy::updateFileSizes(qx::ArrayPtr sizes, AnswerReply reply) {
  send(&QXFileResponse::updateFileSizes, std::move(reply), sizes);
}

void QXFileResponseProxy::updateFileSizesWritten(const qx::XpcMessage::ArgumentWriter& sizes,
                                                 AnswerReply reply) {
  sendWritten(&QXFileResponse::updateFileSizes, std::move(reply), {&sizes, 1});
}
