// qxfile-service: the per-user file service. Started on demand by its
// clients (or by socket activation); no arguments, no configuration, no log.
// It stops by itself once no client has been connected for a while.
#include <cstdio>
#include <memory>

#include "model/ModelClasses.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcListener.h"
#include "protocol/QXFileRequest.h"
#include "service/QXFileServiceDelegate.h"

int main() {
  registerModelClasses();
  // A class rule for a method the protocol lacks would leave an argument with
  // wider classes than meant: such a service does not start.
  auto rules = qx::XpcInterface::interfaceWithProtocol(QXFileRequest::protocol());
  if (!QXFileRequest::restrictArguments(*rules)) {
    std::fputs("qxfile-service: a class rule names a method the protocol lacks\n", stderr);
    return 1;
  }
  std::shared_ptr<qx::XpcListener> listener = qx::XpcListener::serviceListener();
  if (!listener) return 1;  // no socket to listen on
  auto delegate = std::make_shared<QXFileServiceDelegate>();
  listener->setDelegate(delegate);
  listener->resume();
  return 0;
}
