// Reader threads run deliveries themselves and keep reading afterwards; a
// delivery that blocks must hand reading over, or two peers writing to each
// other from their deliveries would each wait for the other to read.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <thread>

#include "platform/dispatch/ReplyWaiter.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcProtocol.h"
#include "platform/xpc/XpcRemoteProxy.h"

namespace qx {
namespace {

class Peer {
 public:
  virtual ~Peer() = default;
  // Asks the receiver to send a large `take:` back at once.
  virtual void kick() = 0;
  virtual void take(DataPtr bytes) = 0;
  virtual void ask(OnceCallback<void(bool)> reply) = 0;
};

class PeerProxy final : public Peer, XpcRemoteProxy {
 public:
  using XpcRemoteProxy::XpcRemoteProxy;
  void kick() override { sendWithoutReply(&Peer::kick); }
  void take(DataPtr bytes) override { sendWithoutReply(&Peer::take, bytes); }
  void ask(OnceCallback<void(bool)> reply) override { send(&Peer::ask, std::move(reply)); }
};

const XpcProtocol& peerProtocol() {
  static const XpcProtocol protocol = XpcProtocol::describe<Peer, PeerProxy>(
      "Peer", {xpcMethod("kick", &Peer::kick), xpcMethod("take:", &Peer::take),
               xpcMethod("askWithReply:", &Peer::ask)});
  return protocol;
}

// Far more than a socket buffer holds, so that the write blocks until the
// peer reads.
constexpr std::size_t kLarge = 8u << 20;

class Endpoint final : public Peer {
 public:
  std::shared_ptr<Peer> remote;
  Semaphore received;

  void kick() override { remote->take(Data::make(std::vector<uint8_t>(kLarge, 0x5a))); }
  void take(DataPtr bytes) override {
    if (bytes && bytes->length() == kLarge) received.signal();
  }
  void ask(OnceCallback<void(bool)> reply) override { reply(true); }
};

// Two endpoints joined by a socket pair.
class ReadingTurn : public ::testing::Test {
 protected:
  void SetUp() override {
    registerFoundationClasses();
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    first = connect(fds[0], one);
    second = connect(fds[1], two);
  }
  void TearDown() override {
    first->invalidate();
    second->invalidate();
  }
  static std::shared_ptr<XpcConnection> connect(int fd, const std::shared_ptr<Endpoint>& endpoint) {
    auto connection = XpcConnection::withSocket(UniqueFd(fd));
    connection->setExportedInterface(XpcInterface::interfaceWithProtocol(peerProtocol()));
    connection->setRemoteObjectInterface(XpcInterface::interfaceWithProtocol(peerProtocol()));
    connection->setExportedObject<Peer>(endpoint);
    endpoint->remote = connection->remoteObjectProxy<Peer>();
    return connection;
  }

  std::shared_ptr<Endpoint> one = std::make_shared<Endpoint>(), two = std::make_shared<Endpoint>();
  std::shared_ptr<XpcConnection> first, second;
};

TEST_F(ReadingTurn, PeersWritingLargeFramesToEachOtherFromDeliveriesBothGetThrough) {
  // Both kicks are queued before reading starts, so each side's first
  // delivery writes its large frame while the other side does the same.
  one->remote->kick();
  two->remote->kick();
  first->resume();
  second->resume();
  EXPECT_TRUE(one->received.waitFor(std::chrono::seconds(20)));
  EXPECT_TRUE(two->received.waitFor(std::chrono::seconds(20)));
}

// A thread that waits for its answers reads them itself, keeping the reading
// turn between its questions; once it stays away (here: busy, never asking
// again), the connection must read the other messages without it.
TEST_F(ReadingTurn, AThreadThatStopsAskingDoesNotHoldUpTheReading) {
  first->resume();
  second->resume();
  Semaphore askedEnough, release;
  std::thread asker([&] {
    for (int i = 0; i < 20; ++i) {
      auto yes = ReplyWaiter<bool>::wait([&](auto reply) { one->remote->ask(std::move(reply)); });
      EXPECT_EQ(yes, std::optional<bool>(true));
    }
    askedEnough.signal();
    release.wait();
  });
  askedEnough.wait();
  two->remote->kick();  // read by `first` while the asker is away; answered with a take:
  EXPECT_TRUE(two->received.waitFor(std::chrono::seconds(20)));
  release.signal();
  asker.join();
}

}  // namespace
}  // namespace qx
