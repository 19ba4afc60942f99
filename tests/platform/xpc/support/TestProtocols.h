#pragma once

#include <cassert>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/dispatch/OnceCallback.h"
#include "platform/dispatch/ReplyWaiter.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcListenerDelegate.h"
#include "platform/xpc/XpcProtocol.h"
#include "platform/xpc/XpcRemoteProxy.h"

namespace qx::xpctest {

// Sends an invocation and waits for its reply arguments; nullopt when no reply comes (refused, or
// the connection ends first).
inline std::optional<std::vector<ObjectPtr>> waitForReply(XpcConnection& connection,
                                                          std::string selector,
                                                          std::vector<ObjectPtr> arguments) {
  return ReplyWaiter<std::vector<ObjectPtr>>::wait([&](XpcReplyHandler reply) {
    connection.sendInvocation(std::move(selector), std::move(arguments), std::move(reply));
  });
}

using EchoReply = OnceCallback<void(ErrorPtr, ArrayPtr, bool)>;

// The protocol of the test service: an echo of an object that names its own sets, a collection and
// a BOOL, a restricted argument, per-connection state, a request whose worker asks the client and
// waits for each answer, a method without a reply block, and a reply larger than a socket buffer.
class TestRequest {
 public:
  virtual ~TestRequest() = default;
  virtual void echo(ErrorPtr error, ArrayPtr array, bool flag, EchoReply reply) = 0;
  // Argument 0 is restricted to NSArray and NSURL.
  virtual void countUrls(ArrayPtr urls, OnceCallback<void(NumberPtr)> reply) = 0;
  virtual void incrementWithReply(OnceCallback<void(NumberPtr)> reply) = 0;
  // On the object's operation queue: asks the client `count` questions, each time waiting for the
  // answer; replies with the answers. Released with no answer, it stops.
  virtual void askClient(NumberPtr count, OnceCallback<void(ArrayPtr)> reply) = 0;
  virtual void note(StringPtr text) = 0;
  virtual void notesWithReply(OnceCallback<void(ArrayPtr)> reply) = 0;
  // Replies, from the delivery itself, with `length` bytes.
  virtual void fill(NumberPtr length, OnceCallback<void(DataPtr)> reply) = 0;
};

// The protocol the test client exports.
class TestResponse {
 public:
  virtual ~TestResponse() = default;
  virtual void question(NumberPtr index, OnceCallback<void(bool)> reply) = 0;
};

class TestRequestProxy final : public TestRequest, XpcRemoteProxy {
 public:
  using XpcRemoteProxy::XpcRemoteProxy;
  void echo(ErrorPtr error, ArrayPtr array, bool flag, EchoReply reply) override {
    send(&TestRequest::echo, std::move(reply), error, array, flag);
  }
  void countUrls(ArrayPtr urls, OnceCallback<void(NumberPtr)> reply) override {
    send(&TestRequest::countUrls, std::move(reply), urls);
  }
  void incrementWithReply(OnceCallback<void(NumberPtr)> reply) override {
    send(&TestRequest::incrementWithReply, std::move(reply));
  }
  void askClient(NumberPtr count, OnceCallback<void(ArrayPtr)> reply) override {
    send(&TestRequest::askClient, std::move(reply), count);
  }
  void note(StringPtr text) override { sendWithoutReply(&TestRequest::note, text); }
  void notesWithReply(OnceCallback<void(ArrayPtr)> reply) override {
    send(&TestRequest::notesWithReply, std::move(reply));
  }
  void fill(NumberPtr length, OnceCallback<void(DataPtr)> reply) override {
    send(&TestRequest::fill, std::move(reply), length);
  }
};

class TestResponseProxy final : public TestResponse, XpcRemoteProxy {
 public:
  using XpcRemoteProxy::XpcRemoteProxy;
  void question(NumberPtr index, OnceCallback<void(bool)> reply) override {
    send(&TestResponse::question, std::move(reply), index);
  }
};

inline const XpcProtocol& testRequestProtocol() {
  static const XpcProtocol protocol = XpcProtocol::describe<TestRequest, TestRequestProxy>(
      "TestRequest", {
                         xpcMethod("echoError:array:flag:reply:", &TestRequest::echo),
                         xpcMethod("countUrls:reply:", &TestRequest::countUrls),
                         xpcMethod("incrementWithReply:", &TestRequest::incrementWithReply),
                         xpcMethod("askClient:reply:", &TestRequest::askClient),
                         xpcMethod("note:", &TestRequest::note),
                         xpcMethod("notesWithReply:", &TestRequest::notesWithReply),
                         xpcMethod("fill:reply:", &TestRequest::fill),
                     });
  return protocol;
}

inline const XpcProtocol& testResponseProtocol() {
  static const XpcProtocol protocol = XpcProtocol::describe<TestResponse, TestResponseProxy>(
      "TestResponse", {xpcMethod("question:reply:", &TestResponse::question)});
  return protocol;
}

// The exported object of one test-service connection. Like the service's own per-connection object
// it holds its connection and invalidates it when destroyed.
class TestService final : public TestRequest, public std::enable_shared_from_this<TestService> {
 public:
  explicit TestService(std::shared_ptr<XpcConnection> connection)
      : connection_(std::move(connection)) {
    ClassSet urls{&Array::classInfo(), &Url::classInfo()};
    [[maybe_unused]] bool known =
        connection_->exportedInterface()->setClasses(urls, &TestRequest::countUrls, 0, false);
    assert(known);
  }
  ~TestService() override { connection_->invalidate(); }

  void echo(ErrorPtr error, ArrayPtr array, bool flag, EchoReply reply) override {
    reply(error, array, flag);
  }
  void countUrls(ArrayPtr urls, OnceCallback<void(NumberPtr)> reply) override {
    reply(Number::numberWithInteger(urls ? static_cast<int64_t>(urls->count()) : -1));
  }
  void incrementWithReply(OnceCallback<void(NumberPtr)> reply) override {
    reply(Number::numberWithInteger(++counter_));
  }
  void askClient(NumberPtr count, OnceCallback<void(ArrayPtr)> reply) override {
    queue_.async([self = shared_from_this(), count, reply = std::move(reply)]() mutable {
      std::vector<ObjectPtr> answers;
      bool released = false;
      for (int64_t i = 0; count && i < count->integerValue() && !released; ++i) {
        auto proxy = self->connection_->remoteObjectProxy<TestResponse>();
        auto answer = ReplyWaiter<bool>::wait([&](OnceCallback<void(bool)> answered) {
          proxy->question(Number::numberWithInteger(i), std::move(answered));
        });
        released = !answer;
        if (answer) answers.push_back(Number::numberWithBool(*answer));
      }
      reply(Array::make(std::move(answers)));
    });
  }
  void note(StringPtr text) override { notes_.push_back(text); }
  void notesWithReply(OnceCallback<void(ArrayPtr)> reply) override { reply(Array::make(notes_)); }
  void fill(NumberPtr length, OnceCallback<void(DataPtr)> reply) override {
    reply(Data::make(std::vector<uint8_t>(length ? length->integerValue() : 0, 0x5a)));
  }

 private:
  std::shared_ptr<XpcConnection> connection_;
  SerialQueue queue_{"qx.test.OperationQueue"};
  int64_t counter_ = 0;  // touched on the delivery queue only
  std::vector<ObjectPtr> notes_;
};

// Sets up `connection` as the service side of the test protocols.
inline void configureServiceConnection(const std::shared_ptr<XpcConnection>& connection) {
  connection->setRemoteObjectInterface(XpcInterface::interfaceWithProtocol(testResponseProtocol()));
  connection->setExportedInterface(XpcInterface::interfaceWithProtocol(testRequestProtocol()));
  connection->setExportedObject<TestRequest>(std::make_shared<TestService>(connection));
}

// Configures each new connection as the test service does and accepts it.
class TestServiceDelegate final : public XpcListenerDelegate {
 public:
  bool shouldAcceptNewConnection(XpcListener&,
                                 const std::shared_ptr<XpcConnection>& connection) override {
    configureServiceConnection(connection);
    connection->resume();
    return true;
  }
};

// The client side's exported object: answers questions at once, or holds the reply blocks until
// answerHeld().
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
