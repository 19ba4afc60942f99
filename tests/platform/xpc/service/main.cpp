// The test service: listens like the real service (socket activation, else the
// per-user socket), exports the test protocol, exits when idle.
//
// With the argument "--client" it is a client instead: it connects (starting
// the service when needed, with its own executable as the service), asks for
// the service's process id and prints it.
#include <cstdio>
#include <cstring>

#include "platform/xpc/XpcListener.h"
#include "tests/platform/xpc/support/TestProtocols.h"

namespace {

int runClient(const char* self) {
  qx::ErrorPtr error;
  auto connection = qx::XpcConnection::connectToService(self, &error);
  if (!connection) return 1;
  connection->setRemoteObjectInterface(
      qx::XpcInterface::interfaceWithProtocol(qx::xpctest::testRequestProtocol()));
  connection->resume();
  auto reply = qx::xpctest::waitForReply(*connection, "processIdWithReply:", {});
  connection->invalidate();
  auto pid = reply && reply->size() == 1 ? qx::cast<qx::Number>((*reply)[0]) : nullptr;
  if (!pid) return 1;
  std::printf("%lld\n", static_cast<long long>(pid->integerValue()));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  qx::registerFoundationClasses();
  if (argc > 1 && std::strcmp(argv[1], "--client") == 0) return runClient(argv[0]);
  auto listener = qx::XpcListener::serviceListener(nullptr);
  if (!listener) return 1;
  listener->setDelegate(std::make_shared<qx::xpctest::TestServiceDelegate>());
  listener->resume();
  return 0;
}
