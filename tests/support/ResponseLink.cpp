#include "tests/support/ResponseLink.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "model/ModelClasses.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/UniqueFd.h"
#include "platform/xpc/XpcInterface.h"

namespace qx::test {

ResponseLink::ResponseLink(ScriptedResponder::Script sizes, ScriptedResponder::Script questions)
    : client(std::make_shared<ScriptedResponder>(std::move(sizes), std::move(questions))) {
  registerFoundationClasses();
  registerModelClasses();
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    throw std::runtime_error(std::string("socketpair: ") + std::strerror(errno));
  }
  worker = XpcConnection::withSocket(UniqueFd(fds[0]));
  worker->setRemoteObjectInterface(XpcInterface::interfaceWithProtocol(QXFileResponse::protocol()));
  worker->resume();
  clientEnd = XpcConnection::withSocket(UniqueFd(fds[1]));
  auto exported = XpcInterface::interfaceWithProtocol(QXFileResponse::protocol());
  if (!QXFileResponse::restrictArguments(*exported))
    throw std::runtime_error("the client's class rule names no method");
  clientEnd->setExportedInterface(exported);
  clientEnd->setExportedObject<QXFileResponse>(client);
  clientEnd->resume();
}

ResponseLink::~ResponseLink() {
  clientEnd->invalidate();
  worker->invalidate();
}

}  // namespace qx::test
