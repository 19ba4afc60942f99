#include "service/QXFileResponse.h"

#include "service/QXFileResponseProxy.h"

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
