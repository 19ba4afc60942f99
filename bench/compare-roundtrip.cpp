// Round trip of a minimal invocation and its reply through the connection
// layer, against a raw Unix-socket ping-pong of the same byte counts.
//
// Both run in this process over a socketpair: the layer with a client and a
// service connection (reader threads, delivery queues, keyed archives), the
// raw side with two threads doing blocking writes and reads. Prints, last:
//   roundtrip: ratio=R qxfile_us=A raw_us=B
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "platform/dispatch/ReplyWaiter.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcFrame.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcMessage.h"
#include "platform/xpc/XpcProtocol.h"
#include "platform/xpc/XpcRemoteProxy.h"

namespace {

using Clock = std::chrono::steady_clock;

class Ping {
 public:
  virtual ~Ping() = default;
  virtual void ping(qx::NumberPtr value, qx::OnceCallback<void(qx::NumberPtr)> reply) = 0;
};

class PingProxy final : public Ping, qx::XpcRemoteProxy {
 public:
  using XpcRemoteProxy::XpcRemoteProxy;
  void ping(qx::NumberPtr value, qx::OnceCallback<void(qx::NumberPtr)> reply) override {
    send(&Ping::ping, std::move(reply), value);
  }
};

class PingService final : public Ping {
 public:
  void ping(qx::NumberPtr value, qx::OnceCallback<void(qx::NumberPtr)> reply) override {
    reply(value);
  }
};

const qx::XpcProtocol& pingProtocol() {
  static const qx::XpcProtocol protocol = qx::XpcProtocol::describe<Ping, PingProxy>(
      "Ping", {qx::xpcMethod("ping:reply:", &Ping::ping)});
  return protocol;
}

struct Pair {
  std::shared_ptr<qx::XpcConnection> service;
  std::shared_ptr<qx::XpcConnection> client;
};

Pair connectPair() {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
  Pair pair;
  pair.service = qx::XpcConnection::withSocket(qx::UniqueFd(fds[0]));
  pair.service->setExportedInterface(qx::XpcInterface::interfaceWithProtocol(pingProtocol()));
  pair.service->setExportedObject<Ping>(std::make_shared<PingService>());
  pair.service->resume();
  pair.client = qx::XpcConnection::withSocket(qx::UniqueFd(fds[1]));
  pair.client->setRemoteObjectInterface(qx::XpcInterface::interfaceWithProtocol(pingProtocol()));
  pair.client->resume();
  return pair;
}

// Mean microseconds per round trip, the caller blocking on each reply.
double layerWaiting(const std::shared_ptr<Ping>& proxy, int count) {
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    auto answer =
        qx::ReplyWaiter<qx::NumberPtr>::wait([&](qx::OnceCallback<void(qx::NumberPtr)> reply) {
          proxy->ping(qx::Number::numberWithInteger(i), std::move(reply));
        });
    if (!answer || !*answer) std::abort();
  }
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / count;
}

// Mean microseconds per round trip, each reply sending the next call.
double layerChained(const std::shared_ptr<Ping>& proxy, int count) {
  qx::Semaphore done;
  struct Chain {
    std::shared_ptr<Ping> proxy;
    int left;
    qx::Semaphore* done;
    static void next(std::shared_ptr<Chain> chain) {
      if (chain->left-- == 0) return chain->done->signal();
      chain->proxy->ping(qx::Number::numberWithInteger(chain->left),
                         [chain](qx::NumberPtr) { next(chain); });
    }
  };
  auto chain = std::make_shared<Chain>(Chain{proxy, count, &done});
  auto start = Clock::now();
  Chain::next(chain);
  done.wait();
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / count;
}

bool readExactly(int fd, uint8_t* buffer, std::size_t length) {
  while (length > 0) {
    ssize_t got = ::read(fd, buffer, length);
    if (got <= 0) return false;
    buffer += got;
    length -= static_cast<std::size_t>(got);
  }
  return true;
}

bool writeExactly(int fd, const uint8_t* buffer, std::size_t length) {
  while (length > 0) {
    ssize_t sent = ::write(fd, buffer, length);
    if (sent <= 0) return false;
    buffer += sent;
    length -= static_cast<std::size_t>(sent);
  }
  return true;
}

// Mean microseconds per raw ping-pong of `request` and `reply` bytes.
double rawPingPong(std::size_t request, std::size_t reply, int count) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
  std::thread server([&] {
    std::vector<uint8_t> in(request), out(reply, 0x5a);
    for (int i = 0; i < count; ++i) {
      if (!readExactly(fds[0], in.data(), in.size())) break;
      if (!writeExactly(fds[0], out.data(), out.size())) break;
    }
  });
  std::vector<uint8_t> out(request, 0xa5), in(reply);
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    if (!writeExactly(fds[1], out.data(), out.size())) std::abort();
    if (!readExactly(fds[1], in.data(), in.size())) std::abort();
  }
  double mean = std::chrono::duration<double, std::micro>(Clock::now() - start).count() / count;
  server.join();
  ::close(fds[0]);
  ::close(fds[1]);
  return mean;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  qx::registerFoundationClasses();
  int count = argc > 1 ? std::max(100, std::atoi(argv[1])) : 20000;
  constexpr int kRounds = 5;

  // The byte counts of one invocation frame and one reply frame.
  std::size_t request =
      4 + qx::XpcMessage::invocation("ping:reply:", {qx::Number::numberWithInteger(count)}, 1)
              .encode()
              .size();
  std::size_t reply =
      4 + qx::XpcMessage::reply(1, {qx::Number::numberWithInteger(count)}).encode().size();

  Pair pair = connectPair();
  auto proxy = pair.client->remoteObjectProxy<Ping>();
  layerChained(proxy, count / 10);  // warm up threads and allocators
  rawPingPong(request, reply, count / 10);

  std::vector<double> chained, waiting, raw;
  for (int round = 0; round < kRounds; ++round) {
    chained.push_back(layerChained(proxy, count));
    waiting.push_back(layerWaiting(proxy, count));
    raw.push_back(rawPingPong(request, reply, count));
  }
  pair.client->invalidate();
  pair.service->invalidate();

  double layer = median(chained);
  double layerBlocking = median(waiting);
  double plain = median(raw);
  std::printf("frames: invocation %zu bytes, reply %zu bytes; %d round trips x %d rounds\n",
              request, reply, count, kRounds);
  std::printf("qxfile, caller blocking on each reply: %.2f us (ratio %.2f)\n", layerBlocking,
              layerBlocking / plain);
  std::printf("roundtrip: ratio=%.2f qxfile_us=%.2f raw_us=%.2f\n", layer / plain, layer, plain);
  return 0;
}
