#include "service/QXFileResponseProxy.h"

void QXFileResponseProxy::progressWithReply(AnswerReply reply) {
  send("progressWithReply:", std::move(reply));
}

void QXFileResponseProxy::updateFileSizes(qx::ArrayPtr sizes, AnswerReply reply) {
  send("updateFileSizes:reply:", std::move(reply), sizes);
}
