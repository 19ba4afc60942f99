#include "protocol/QXFileResponse.h"

#include "protocol/QXFileRequest.h"
#include "protocol/QXFileResponseProxy.h"

const qx::XpcProtocol& QXFileResponse::protocol() {
  static const qx::XpcProtocol protocol =
      qx::XpcProtocol::describe<QXFileResponse, QXFileResponseProxy>(
          "QXFileResponse",
          {
              qx::xpcMethod("progressWithReply:", &QXFileResponse::progressWithReply),
              qx::xpcMethod("updateFileSizes:reply:", &QXFileResponse::updateFileSizes),
          });
  return protocol;
}

bool QXFileResponse::restrictArguments(qx::XpcInterface& exported) {
  return exported.setClasses(QXFileRequest::answerClasses(), &QXFileResponse::updateFileSizes, 0,
                             false);
}
