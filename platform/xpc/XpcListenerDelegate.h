#pragma once

#include <memory>

namespace qx {

class XpcConnection;
class XpcListener;

// Decides about each new connection of a listener: configures it (interfaces,
// exported object), resumes it and answers true to keep it; a connection
// answered false is invalidated.
class XpcListenerDelegate {
 public:
  virtual ~XpcListenerDelegate() = default;
  virtual bool shouldAcceptNewConnection(XpcListener& listener,
                                         const std::shared_ptr<XpcConnection>& connection) = 0;
};

}  // namespace qx
