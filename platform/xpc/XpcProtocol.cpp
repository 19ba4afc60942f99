#include "platform/xpc/XpcProtocol.h"

namespace qx {

const XpcMethod* XpcProtocol::method(std::string_view selector) const {
  for (const XpcMethod& method : methods_) {
    if (method.selector == selector) return &method;
  }
  return nullptr;
}

std::shared_ptr<void> XpcProtocol::makeProxy(std::shared_ptr<XpcConnection> connection,
                                             ErrorHandler errorHandler) const {
  if (!proxyFactory_) return nullptr;
  return proxyFactory_(*this, std::move(connection), std::move(errorHandler));
}

}  // namespace qx
