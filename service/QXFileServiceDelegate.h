#pragma once

#include <memory>

#include "platform/xpc/XpcListenerDelegate.h"

// Admits every connection of the service listener: the client's callbacks
// as the remote interface, the requests as the exported interface, a new
// QXFileService as the exported object. No peer is turned away here (the
// listener has already closed peers of another user).
class QXFileServiceDelegate final : public qx::XpcListenerDelegate {
 public:
  bool shouldAcceptNewConnection(qx::XpcListener& listener,
                                 const std::shared_ptr<qx::XpcConnection>& connection) override;
};
