// The test service: listens like the real service (socket activation, else the
// per-user socket), exports the test protocol, exits when idle.
#include "platform/xpc/XpcListener.h"
#include "tests/platform/xpc/support/TestProtocols.h"

int main() {
  qx::registerFoundationClasses();
  auto listener = qx::XpcListener::serviceListener(nullptr);
  if (!listener) return 1;
  listener->setDelegate(std::make_shared<qx::xpctest::TestServiceDelegate>());
  listener->resume();
  return 0;
}
