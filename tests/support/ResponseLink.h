#pragma once

#include <memory>

#include "platform/xpc/XpcConnection.h"
#include "tests/support/ScriptedResponder.h"

namespace qx::test {

// A worker's connection joined by a socketpair to a client connection that
// exports a ScriptedResponder, both resumed: what a worker asks through
// `worker` crosses a real connection, encoded and decoded.
class ResponseLink {
 public:
  explicit ResponseLink(ScriptedResponder::Script sizes = nullptr,
                        ScriptedResponder::Script questions = nullptr);
  ~ResponseLink();
  ResponseLink(const ResponseLink&) = delete;
  ResponseLink& operator=(const ResponseLink&) = delete;

  std::shared_ptr<XpcConnection> worker;
  std::shared_ptr<XpcConnection> clientEnd;
  std::shared_ptr<ScriptedResponder> client;
};

}  // namespace qx::test
