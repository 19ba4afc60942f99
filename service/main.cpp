// qxfile-service: the per-user file service. Started on demand by its
// clients (or by socket activation); no arguments, no configuration, no log.
// It stops by itself once no client has been connected for a while.
#include <memory>

#include "model/ModelClasses.h"
#include "platform/xpc/XpcListener.h"
#include "service/QXFileServiceDelegate.h"

int main() {
  registerModelClasses();
  std::shared_ptr<qx::XpcListener> listener = qx::XpcListener::serviceListener();
  if (!listener) return 1;  // no socket to listen on
  auto delegate = std::make_shared<QXFileServiceDelegate>();
  listener->setDelegate(delegate);
  listener->resume();
  return 0;
}
