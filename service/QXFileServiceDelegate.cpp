#include "service/QXFileServiceDelegate.h"

#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcInterface.h"
#include "protocol/QXFileResponse.h"
#include "service/QXFileService.h"

bool QXFileServiceDelegate::shouldAcceptNewConnection(
    qx::XpcListener&, const std::shared_ptr<qx::XpcConnection>& connection) {
  connection->setRemoteObjectInterface(
      qx::XpcInterface::interfaceWithProtocol(QXFileResponse::protocol()));
  connection->setExportedInterface(
      qx::XpcInterface::interfaceWithProtocol(QXFileRequest::protocol()));
  // The service adds its class rules to the exported interface set just above.
  auto service = std::make_shared<QXFileService>(connection);
  connection->setExportedObject<QXFileRequest>(service);
  connection->resume();
  return true;
}
