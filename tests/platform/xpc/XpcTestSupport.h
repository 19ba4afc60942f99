#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcFrame.h"
#include "tests/platform/xpc/support/TestProtocols.h"
#include "tests/support/Eventually.h"

namespace qx::xpctest {

using qx::test::eventually;

inline bool writeAll(int fd, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(sent));
  }
  return true;
}

// True when the peer closes `fd` within the timeout, whatever it sends before.
inline bool peerClosesWithin(int fd, std::chrono::milliseconds timeout) {
  timeval tv{static_cast<time_t>(timeout.count() / 1000),
             static_cast<suseconds_t>((timeout.count() % 1000) * 1000)};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  uint8_t buffer[4096];
  for (;;) {
    ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
    if (got == 0) return true;
    if (got < 0) return errno == ECONNRESET;
  }
}

// The client side's exported object: answers questions at once, or holds the
// reply blocks until answerHeld().
class TestClient final : public TestResponse {
 public:
  explicit TestClient(bool hold = false) : hold_(hold) {}
  void question(NumberPtr index, OnceCallback<void(bool)> reply) override {
    std::lock_guard lock(mutex_);
    questions_.push_back(index ? index->integerValue() : -1);
    if (hold_) {
      held_.push_back(std::move(reply));
    } else {
      reply(index && index->integerValue() % 2 == 0);
    }
  }
  std::vector<int64_t> questions() {
    std::lock_guard lock(mutex_);
    return questions_;
  }
  void answerHeld(bool answer) {
    std::vector<OnceCallback<void(bool)>> held;
    {
      std::lock_guard lock(mutex_);
      held.swap(held_);
    }
    for (auto& reply : held) reply(answer);
  }

 private:
  std::mutex mutex_;
  bool hold_;
  std::vector<int64_t> questions_;
  std::vector<OnceCallback<void(bool)>> held_;
};

// Makes `connection` the client side of the test protocols.
inline void configureClientConnection(const std::shared_ptr<XpcConnection>& connection,
                                      std::shared_ptr<TestClient> client) {
  connection->setRemoteObjectInterface(XpcInterface::interfaceWithProtocol(testRequestProtocol()));
  connection->setExportedInterface(XpcInterface::interfaceWithProtocol(testResponseProtocol()));
  if (client) connection->setExportedObject<TestResponse>(std::move(client));
}

}  // namespace qx::xpctest
